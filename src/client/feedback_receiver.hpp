// SPDX-License-Identifier: MIT
// Receives the feedback of one request and waits until all of it is handled.
#pragma once

#include <corvalen/client.hpp>
#include <memory>

#include "xpc/listener.hpp"

namespace corvalen {

class FeedbackSink;

/// For one request: the daemon connects to its endpoint at most once. The handler runs on the
/// thread of that connection, and never after `finish`, `abandon` or the destructor has returned.
class FeedbackReceiver : private ListenerDelegate {
  public:
    /// `handler` is copied.
    explicit FeedbackReceiver(const FeedbackHandler& handler);
    ~FeedbackReceiver() override;
    FeedbackReceiver(const FeedbackReceiver&) = delete;
    FeedbackReceiver& operator=(const FeedbackReceiver&) = delete;

    /// Has no descriptor if the descriptors are used up.
    [[nodiscard]] const EndpointRef& endpoint() const noexcept { return _endpoint; }

    /// Call after the reply: waits until every sent message is handled. Returns false if the
    /// messages ended before the final one, if none arrived although feedback `wasSent`, or if an
    /// open connection delivered nothing for `kFeedbackTimeout`.
    bool finish(bool wasSent);
    /// Drops unhandled messages.
    void abandon();

  private:
    bool listenerShouldAcceptNewConnection(Listener& listener,
                                           const std::shared_ptr<Connection>& connection) override;
    /// Sends a marker, which arrives after every earlier connection is accepted.
    void sendMarker();

    std::shared_ptr<FeedbackSink> _sink;
    std::unique_ptr<Listener> _listener;
    EndpointRef _endpoint;
};

}  // namespace corvalen
