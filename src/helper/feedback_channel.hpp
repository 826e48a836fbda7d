// SPDX-License-Identifier: MIT
// The connection back to a client, over which a running operation reports.
#pragma once

#include <chrono>
#include <memory>

#include "operations/feedback.hpp"
#include "xpc/connection.hpp"

namespace corvalen {

/// A client that takes no feedback for so long loses it; its operation goes on.
inline constexpr std::chrono::seconds kFeedbackSendTimeout{30};

/// One feedback connection of one request. Used by the thread of that request only; destroying it
/// closes the connection.
class FeedbackChannel final : public FeedbackConnection {
  public:
    /// Connects to the client's listener and sends the first message. Null and `*error` when
    /// sending it failed.
    static std::unique_ptr<FeedbackChannel> open(const EndpointRef& endpoint,
                                                 Dictionary openingMessage, ErrorRef* error);

    void processPrivilegedOperationFeedback(Dictionary feedback) override;
    /// Suspends and invalidates the connection; nothing is delivered after that.
    void close();
    /// The connection's address, by which the log names it.
    [[nodiscard]] const void* address() const noexcept { return _connection.get(); }

  private:
    explicit FeedbackChannel(std::shared_ptr<Connection> connection);

    std::shared_ptr<Connection> _connection;
    RemoteObjectProxy _proxy;
};

}  // namespace corvalen
