// SPDX-License-Identifier: MIT
// A client of the privileged helper: connects, requests operations, receives their feedback.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"

namespace corvalen {

/// The number of an operation; `corvalen/catalogue.hpp` lists them.
using OperationCode = std::uint64_t;

/// The result of a request.
struct OperationResult {
    /// Null if the operation succeeded. `corvalen/failure.hpp` classifies and describes errors.
    ErrorRef error;
    /// The operation's answer ("Size", "ObjectExistence"); else empty.
    Dictionary answer;
    /// False if the feedback connection ended before its final message: the handler missed
    /// messages.
    bool feedbackComplete = true;

    [[nodiscard]] bool succeeded() const noexcept { return error == nullptr; }
};

/// Receives one feedback message: "ProgressFraction", "FileObjectInfo", "OutputData", "ErrorData",
/// "FinalFeedbackMessage". Runs on a thread of the library, for one message of a request at a time,
/// in order. No message is received while it runs; the daemon drops the feedback of a client that
/// accepts none for 30 seconds. Must not throw. Must not call its own client, except `stop` and
/// `cancel`.
using FeedbackHandler = std::function<void(const Dictionary& message)>;

/// Receives the result, after the last feedback message. Runs on a thread of the library, or on the
/// calling thread if sending fails. Must not throw, destroy the client, or wait for it.
using CompletionHandler = std::function<void(OperationResult result)>;

/// One connection to the daemon and one authorization. The user's grants are remembered for this
/// object only.
///
/// The daemon handles the requests of one client one after the other; use several clients for
/// parallel requests. Thread-safe. `error` may be null and is set on failure only. If the daemon is
/// gone, the error is Cocoa 4099, and the client stays disconnected unless `registerClient`
/// reconnects it.
class Client {
  public:
    /// Connects to the socket at `socketPath`, or to the well-known one if it is empty. The service
    /// manager starts a daemon that is not running. Returns null if nobody listens there.
    [[nodiscard]] static std::unique_ptr<Client> connect(std::string_view socketPath = {},
                                                         ErrorRef* error = nullptr);
    /// Connects to the daemon's listener behind an endpoint. Never returns null.
    [[nodiscard]] static std::unique_ptr<Client> connectThroughEndpoint(
        const EndpointRef& endpoint);

    /// Unregisters the processes that this client registered, except those that another client of
    /// this process also registered, and ends the connection. Pending requests end with Cocoa 4099;
    /// the daemon may continue them.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Registers a process (0: the calling one). The daemon ends when the last one is unregistered.
    /// If it is just ending, connects to a new daemon.
    bool registerClient(pid_t pid = 0, ErrorRef* error = nullptr);
    /// Unregisters a process, for every client that registered it: the daemon counts a process
    /// once. Succeeds also if the daemon ends with its last client.
    bool unregisterClient(pid_t pid = 0, ErrorRef* error = nullptr);

    /// The daemon's version; empty on failure.
    [[nodiscard]] std::string version(ErrorRef* error = nullptr);
    /// In debug mode the daemon logs its debug lines at error priority.
    bool enableDebugMode(bool enabled, ErrorRef* error = nullptr);
    /// Returns an endpoint of the daemon's listener, to pass on or connect to; no descriptor on
    /// failure.
    [[nodiscard]] EndpointRef helperEndpoint(ErrorRef* error = nullptr);

    /// Performs an operation and waits for its end, without a timeout; the user may have to
    /// authenticate. When it returns, the handler has handled every message. An identifier that is
    /// not in the catalogue fails with POSIX 22 (EINVAL) without a request.
    OperationResult perform(OperationCode code, Array arguments,
                            const FeedbackHandler& feedback = nullptr);
    OperationResult perform(std::string_view identifier, Array arguments,
                            const FeedbackHandler& feedback = nullptr);
    /// Same without waiting. Calls `completion` exactly once, possibly before it returns.
    void performAsync(OperationCode code, Array arguments, const FeedbackHandler& feedback,
                      CompletionHandler completion);

    /// Stops pending requests and returns at once. Any thread, but not a signal handler. The client
    /// can send nothing more. The daemon stops a walk before its next object; `perform` then
    /// returns POSIX ECANCELED, with the number of handled objects as "ObjectCount" in the user
    /// info. It finishes work on a single object and replies as usual. If the daemon does not
    /// reply, use `cancel`.
    void stop();
    /// Ends the connection permanently. Any thread, but not a signal handler. A waiting `perform`
    /// returns Cocoa 4099. The daemon stops as for `stop`, but does not report where.
    void cancel();

    /// The 32 bytes that name this client's authorization.
    [[nodiscard]] const Data& authorizationData() const noexcept;

  private:
    class Impl;
    explicit Client(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> _impl;
};

/// Returns bytes that name a new authorization of this process. They prove nothing: the daemon
/// identifies the caller by the kernel's peer credentials. Empty if getrandom(2) fails.
[[nodiscard]] Data makeAuthorizationData();

}  // namespace corvalen
