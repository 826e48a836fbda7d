// SPDX-License-Identifier: MIT
// Receives the feedback of one request and knows when all of it has been handled.
#pragma once

#include <corvalen/client.hpp>
#include <memory>

#include "xpc/listener.hpp"

namespace corvalen {

class FeedbackSink;

/// Made for one request: its endpoint goes to the helper, which connects to it at most once. The
/// handler runs on the thread of that connection and never after `finish` or `abandon` or the
/// destructor have returned.
class FeedbackReceiver : private ListenerDelegate {
  public:
    /// `handler` is copied.
    explicit FeedbackReceiver(const FeedbackHandler& handler);
    ~FeedbackReceiver() override;
    FeedbackReceiver(const FeedbackReceiver&) = delete;
    FeedbackReceiver& operator=(const FeedbackReceiver&) = delete;

    /// Without a descriptor when descriptors have run out.
    [[nodiscard]] const EndpointRef& endpoint() const noexcept { return _endpoint; }

    /// To be called after the reply: returns when every message that was sent has been handled.
    /// False when the messages ended before the final one. Gives up on a connection that stays
    /// open without bringing anything for `kFeedbackPatience`.
    bool finish();
    /// Drops what has not been handled.
    void abandon();

  private:
    bool listenerShouldAcceptNewConnection(Listener& listener,
                                           const std::shared_ptr<Connection>& connection) override;
    /// Waits until every connection that was made before this call has been accepted.
    void sendMarker();

    std::shared_ptr<FeedbackSink> _sink;
    std::unique_ptr<Listener> _listener;
    EndpointRef _endpoint;
};

}  // namespace corvalen
