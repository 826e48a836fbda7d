// SPDX-License-Identifier: MIT
#include "helper/feedback_channel.hpp"

#include <mutex>

#include "operations/names.hpp"

namespace corvalen {
namespace {

/// Stores the last error of a proxy, which another thread may report later.
class ErrorBox {
  public:
    void put(ErrorRef error) {
        const std::lock_guard lock(_lock);
        _error = std::move(error);
    }
    [[nodiscard]] ErrorRef get() const {
        const std::lock_guard lock(_lock);
        return _error;
    }

  private:
    mutable std::mutex _lock;
    ErrorRef _error;
};

Array messageParams(Dictionary feedback) {
    Array params;
    params.emplace_back(std::move(feedback));
    return params;
}

}  // namespace

Result<std::unique_ptr<FeedbackChannel>, ErrorRef> FeedbackChannel::open(
    const EndpointRef& endpoint, Dictionary openingMessage) {
    auto connection = Connection::connectionToEndpoint(endpoint);
    connection->setSendTimeout(kFeedbackSendTimeout);
    connection->resume();
    const auto sending = std::make_shared<ErrorBox>();
    connection
        ->remoteObjectProxyWithErrorHandler(
            [sending](ErrorRef reported) { sending->put(std::move(reported)); })
        .notify(selector::kProcessFeedback, messageParams(std::move(openingMessage)));
    if (ErrorRef reported = sending->get()) return failure(std::move(reported));
    return std::unique_ptr<FeedbackChannel>(new FeedbackChannel(std::move(connection)));
}

FeedbackChannel::FeedbackChannel(std::shared_ptr<Connection> connection)
    : _connection(std::move(connection)), _proxy(_connection->remoteObjectProxy()) {}

void FeedbackChannel::processPrivilegedOperationFeedback(Dictionary feedback) {
    _proxy.notify(selector::kProcessFeedback, messageParams(std::move(feedback)));
}

void FeedbackChannel::close() {
    _connection->suspend();
    _connection->invalidate();
}

}  // namespace corvalen
