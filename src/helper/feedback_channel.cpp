// SPDX-License-Identifier: MIT
#include "helper/feedback_channel.hpp"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "operations/names.hpp"
#include "platform/processes/threads.hpp"
#include "xpc/connection_state.hpp"
#include "xpc/socket_io.hpp"

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

/// Interval of looking whether a closed connection was read to its end.
constexpr std::chrono::seconds kReadInterval{1};

/// Closed feedback connections that the other side has not read to their end, with their charges.
/// Never destroyed: threads may use it until the process ends.
class UnreadConnections {
  public:
    static UnreadConnections& all() {
        static UnreadConnections& one = *new UnreadConnections;
        return one;
    }

    void add(UniqueFd socket, QuotaCharge charge) noexcept {
        if (!hasUnread(socket)) return closeElsewhere(std::move(socket));
        const std::lock_guard lock(_mutex);
        try {
            _connections.push_back({std::move(socket), std::move(charge)});
            if (_hasThread) return;
            std::thread([this] { forgetUntilEmpty(); }).detach();
            _hasThread = true;
        } catch (...) {
            // Without memory the connection is closed; without a thread it waits for the next one.
            closeElsewhere(std::move(socket));
        }
    }
    /// Forgets those that were read, or whose other side was closed.
    void forgetRead() noexcept {
        const std::lock_guard lock(_mutex);
        eraseRead();
    }

  private:
    struct Unread {
        UniqueFd socket;
        QuotaCharge charge;
    };

    static bool hasUnread(Descriptor socket) noexcept {
        int bytes = 0;
        return ::ioctl(socket.get(), SIOCOUTQ, &bytes) == 0 && bytes > 0;
    }

    void forgetUntilEmpty() noexcept {
        dropInheritedCapabilities();
        for (;;) {
            std::this_thread::sleep_for(kReadInterval);
            const std::lock_guard lock(_mutex);
            eraseRead();
            _hasThread = !_connections.empty();
            if (!_hasThread) return;
        }
    }

    /// Call with the lock held.
    void eraseRead() noexcept {
        std::erase_if(_connections, [](Unread& each) {
            if (hasUnread(each.socket)) return false;
            closeElsewhere(std::move(each.socket));
            return true;
        });
    }

    std::mutex _mutex;
    std::vector<Unread> _connections;
    bool _hasThread = false;
};

Array messageParams(Dictionary feedback) {
    Array params;
    params.emplace_back(std::move(feedback));
    return params;
}

}  // namespace

Result<std::unique_ptr<FeedbackChannel>, ErrorRef> FeedbackChannel::open(
    const EndpointRef& endpoint, Dictionary openingMessage, std::shared_ptr<UserQuotas> quotas) {
    UnreadConnections::all().forgetRead();
    QuotaCharge charge(std::move(quotas), Resource::feedback);
    if (!charge.setAmount(1)) return failure(makePosixError(ENOBUFS));
    auto connection = Connection::connectionToEndpoint(endpoint);
    connection->setSendTimeout(kFeedbackSendTimeout);
    connection->resume();
    const auto sending = std::make_shared<ErrorBox>();
    connection
        ->remoteObjectProxyWithErrorHandler(
            [sending](ErrorRef reported) { sending->put(std::move(reported)); })
        .notify(selector::kProcessFeedback, messageParams(std::move(openingMessage)));
    if (ErrorRef reported = sending->get()) return failure(std::move(reported));
    return std::unique_ptr<FeedbackChannel>(
        new FeedbackChannel(std::move(connection), std::move(charge)));
}

FeedbackChannel::FeedbackChannel(std::shared_ptr<Connection> connection, QuotaCharge charge)
    : _connection(std::move(connection)),
      _charge(std::move(charge)),
      _proxy(_connection->remoteObjectProxy()) {}

FeedbackChannel::~FeedbackChannel() {
    _connection->suspend();
    _connection->invalidate();
    UniqueFd socket = _connection->state().takeUnservedSocket();
    if (socket) UnreadConnections::all().add(std::move(socket), std::move(_charge));
}

void FeedbackChannel::processPrivilegedOperationFeedback(Dictionary feedback) {
    _proxy.notify(selector::kProcessFeedback, messageParams(std::move(feedback)));
}

void FeedbackChannel::processLater(Dictionary feedback) {
    _proxy.notifyLater(selector::kProcessFeedback, messageParams(std::move(feedback)));
}

void FeedbackChannel::flush() {
    _proxy.flush();
}

}  // namespace corvalen
