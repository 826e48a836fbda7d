// SPDX-License-Identifier: MIT
#include "client/feedback_receiver.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "operations/names.hpp"
#include "xpc/connection.hpp"

namespace corvalen {
namespace {

constexpr std::chrono::seconds kFeedbackTimeout{5};

/// Sent by the receiver to itself. An endpoint delivers connections in order, so those that the
/// daemon opened before its reply are accepted before the marker arrives.
constexpr std::string_view kMarkerSelector = "allConnectionsAccepted";

constexpr InterfaceMethod kFeedbackMethods[] = {{selector::kProcessFeedback, false},
                                                {kMarkerSelector, false}};
constexpr Interface kFeedbackInterface{"QRLPrivilegedOperationFeedbackProtocol", kFeedbackMethods};

}  // namespace

/// State shared by the connections of one receiver. The handler runs with `_handlerMutex` held, so
/// `close` waits for it.
class FeedbackSink : public ExportedObject {
  public:
    explicit FeedbackSink(const FeedbackHandler& handler) : _handler(handler) {}

    CallResult handleMessage(Connection& /*connection*/, std::string_view selector,
                             Array params) override {
        if (selector == kMarkerSelector)
            noteMarker();
        else if (params.size() == 1 && params[0].dictionary() != nullptr)
            deliver(*params[0].dictionary());
        else
            return CallResult::refused("one dictionary expected");
        return {};
    }

    void connectionOpened(const std::shared_ptr<Connection>& connection) {
        const std::lock_guard lock(_mutex);
        ++_open;
        _connections.push_back(connection);
    }

    void connectionEnded() {
        const std::lock_guard lock(_mutex);
        --_open;
        ++_events;
        _changed.notify_all();
    }

    void noteMarker() {
        const std::lock_guard lock(_mutex);
        _markerArrived = true;
        ++_events;
        _changed.notify_all();
    }

    /// Returns true once every connection has ended; false if nothing happened for
    /// kFeedbackTimeout.
    bool waitUntilDrained() {
        std::unique_lock lock(_mutex);
        while (!_markerArrived || _open > 0) {
            const std::uint64_t before = _events;
            const bool happened = _changed.wait_for(lock, kFeedbackTimeout,
                                                    [&] { return _events != before || _handling; });
            if (!happened) return false;
            if (_handling) _changed.wait(lock, [&] { return !_handling; });
        }
        return true;
    }

    /// Returns true if the final message arrived, or none did and none `wasSent`.
    bool isComplete(bool wasSent) {
        const std::lock_guard lock(_mutex);
        return _finalArrived || (!_messageArrived && !wasSent);
    }

    void close() {
        std::vector<std::weak_ptr<Connection>> connections;
        {
            const std::lock_guard handlerLock(_handlerMutex);
            const std::lock_guard lock(_mutex);
            _closed = true;
            connections.swap(_connections);
        }
        for (const auto& weak : connections)
            if (const auto connection = weak.lock()) connection->invalidate();
    }

  private:
    void deliver(const Dictionary& message) {
        const std::lock_guard handlerLock(_handlerMutex);
        {
            const std::lock_guard lock(_mutex);
            if (_closed) return;
            _messageArrived = true;
            _handling = true;
            if (message.find(kQRLPORK_FinalFeedbackMessage) != nullptr) _finalArrived = true;
        }
        _handler(message);
        const std::lock_guard lock(_mutex);
        _handling = false;
        ++_events;
        _changed.notify_all();
    }

    const FeedbackHandler _handler;
    std::mutex _handlerMutex;

    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<std::weak_ptr<Connection>> _connections;
    int _open = 0;
    std::uint64_t _events = 0;
    bool _markerArrived = false;
    bool _messageArrived = false;
    bool _finalArrived = false;
    bool _handling = false;
    bool _closed = false;
};

FeedbackReceiver::FeedbackReceiver(const FeedbackHandler& handler)
    : _sink(std::make_shared<FeedbackSink>(handler)),
      _listener(Listener::anonymousListener()),
      _endpoint(_listener->endpoint()) {
    _listener->setDelegate(this);
    _listener->resume();
}

FeedbackReceiver::~FeedbackReceiver() {
    abandon();
}

bool FeedbackReceiver::finish(bool wasSent) {
    sendMarker();
    const bool drained = _sink->waitUntilDrained();
    abandon();
    return drained && _sink->isComplete(wasSent);
}

void FeedbackReceiver::abandon() {
    _listener->invalidate();
    _sink->close();
}

bool FeedbackReceiver::listenerShouldAcceptNewConnection(
    Listener& /*listener*/, const std::shared_ptr<Connection>& connection) {
    _sink->connectionOpened(connection);
    connection->setExportedInterface(kFeedbackInterface, _sink);
    connection->setInvalidationHandler([sink = _sink] { sink->connectionEnded(); });
    connection->resume();
    return true;
}

void FeedbackReceiver::sendMarker() {
    const auto marker = Connection::connectionToEndpoint(_endpoint);
    // If the marker cannot be sent, no connection can be accepted either.
    const auto proxy = marker->remoteObjectProxyWithErrorHandler(
        [sink = _sink](const ErrorRef& /*error*/) { sink->noteMarker(); });
    proxy.notify(kMarkerSelector, {});
    marker->invalidate();
}

}  // namespace corvalen
