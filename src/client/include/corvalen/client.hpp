// SPDX-License-Identifier: MIT
// A client of the privileged helper: connect, ask it to perform operations, receive what they
// report.
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

/// The number of an operation; `corvalen/catalogue.hpp` tells them all.
using OperationCode = std::uint64_t;

/// What became of a request.
struct OperationResult {
    /// Null when the operation succeeded. `corvalen/failure.hpp` sorts errors and puts them into
    /// words.
    ErrorRef error;
    /// What an operation that answers has answered ("Size", "ObjectExistence"); else empty.
    Dictionary answer;
    /// False when the helper opened a feedback connection that ended before its final message: the
    /// handler has not seen everything.
    bool feedbackComplete = true;

    [[nodiscard]] bool succeeded() const noexcept { return error == nullptr; }
};

/// Receives one feedback message: "ProgressFraction", "FileObjectInfo", "OutputData", "ErrorData",
/// "FinalFeedbackMessage". Runs on a thread of the library, for one request never twice at once and
/// in the order of the messages. While it runs nothing more is received; the helper drops the
/// feedback of a client that takes nothing for 30 seconds. It must not throw, and must not call the
/// client that it belongs to, except for `stop` and `cancel`.
using FeedbackHandler = std::function<void(const Dictionary& message)>;

/// Receives the result, after the last feedback message. Runs on a thread of the library; it must
/// not throw, must not destroy the client and must not wait for it.
using CompletionHandler = std::function<void(OperationResult result)>;

/// One connection to the helper and one authorization, made when the client is made: an
/// authorization that the user granted is remembered for this object, not for another one.
///
/// The helper handles the requests of one client one after the other; make several clients to have
/// several requests at once. Methods may be called from any thread. Where a method has `error`, it
/// is filled on failure only and may be null. When the helper is gone the error is Cocoa 4099; a
/// client without a connection stays so, except that `registerClient` makes a new one.
class Client {
  public:
    /// Connects to the socket at `socketPath`, or to the helper's well-known one when it is empty.
    /// A helper that is not running is started by the service manager. Null when nobody listens
    /// there.
    [[nodiscard]] static std::unique_ptr<Client> connect(std::string_view socketPath = {},
                                                         ErrorRef* error = nullptr);
    /// Connects to a helper's listener behind an endpoint that was handed out.
    [[nodiscard]] static std::unique_ptr<Client> connectThroughEndpoint(
        const EndpointRef& endpoint);

    /// Ends the connection, first unregistering what `registerClient` registered and no other
    /// client of this process needs. A request that is still under way ends for its caller with
    /// Cocoa 4099; the helper may go on with it.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Tells the helper that a process needs it; it ends when the last one is unregistered. 0
    /// stands for the calling process. When the helper was just ending, a new one is waited for.
    bool registerClient(pid_t pid = 0, ErrorRef* error = nullptr);
    /// The helper knows a process once: this counts for every client that registered it. A helper
    /// that ends with its last client is no failure.
    bool unregisterClient(pid_t pid = 0, ErrorRef* error = nullptr);

    /// The helper's version; empty on failure.
    [[nodiscard]] std::string version(ErrorRef* error = nullptr);
    /// In debug mode the helper logs its debug lines at error priority.
    bool enableDebugMode(bool enabled, ErrorRef* error = nullptr);
    /// An endpoint of the helper's listener, to be passed on or connected to; without a descriptor
    /// on failure.
    [[nodiscard]] EndpointRef helperEndpoint(ErrorRef* error = nullptr);

    /// Asks for an operation and waits for its end, however long that takes; the user may be asked
    /// to authenticate meanwhile. With a handler every feedback message has been handled when this
    /// returns. An identifier that is not in the catalogue gives POSIX 22 (EINVAL) without asking
    /// the helper.
    OperationResult perform(OperationCode code, Array arguments,
                            const FeedbackHandler& feedback = nullptr);
    OperationResult perform(std::string_view identifier, Array arguments,
                            const FeedbackHandler& feedback = nullptr);
    /// The same without waiting; `completion` is called exactly once, perhaps before this returns.
    void performAsync(OperationCode code, Array arguments, const FeedbackHandler& feedback,
                      CompletionHandler completion);

    /// Takes back what was asked for, from any thread (not from a signal handler), and returns at
    /// once. Nothing more can be asked of this client. The helper stops a walk over many objects
    /// before its next object; the waiting `perform` then returns with POSIX ECANCELED, whose user
    /// info has the number "ObjectCount": how many objects had been handled. Work on a single
    /// object is finished and answered as usual. A helper that does not answer is left by `cancel`.
    void stop();
    /// Ends the connection for good, from any thread (not from a signal handler). A waiting
    /// `perform` returns with Cocoa 4099; the helper stops as for `stop`, but nobody learns where.
    void cancel();

    /// The 32 bytes that name this client's authorization.
    [[nodiscard]] const Data& authorizationData() const noexcept;

  private:
    class Impl;
    explicit Client(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> _impl;
};

/// Bytes that name a new authorization of this process. They prove nothing: the helper identifies
/// the caller by what the kernel attests. Empty when the kernel gives no random numbers.
[[nodiscard]] Data makeAuthorizationData();

}  // namespace corvalen
