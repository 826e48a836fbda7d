// SPDX-License-Identifier: MIT
#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <corvalen/client.hpp>
#include <mutex>
#include <set>
#include <utility>

#include "client/feedback_receiver.hpp"
#include "operations/names.hpp"
#include "platform/authorization/authorization.hpp"
#include "xpc/connection.hpp"

namespace corvalen {
namespace {

/// The daemon ends with its last client and cuts connections made at that moment. The next
/// connection reaches a new daemon.
constexpr int kRegistrationAttempts = 5;

bool isConnectionLost(const ErrorRef& error) {
    return error && error->domain() == kCocoaErrorDomain &&
           error->code() == cocoa::kConnectionInvalid;
}

Array pidParams(pid_t pid) {
    return {Value(static_cast<int>(pid == 0 ? ::getpid() : pid))};
}

OperationResult resultOfReply(const Value& reply) {
    OperationResult result;
    const ErrorRef error = reply.error();
    if (!error)
        result.error = makePosixError(EIO, Dictionary{{std::string(kLocalizedDescriptionKey),
                                                       "The helper gave an answer that is none."}});
    else if (error->code() != 0)
        result.error = error;
    else if (error->userInfo() != nullptr)
        result.answer = *error->userInfo();
    return result;
}

/// Registrations by the clients of this process, by socket. The lock is held until the daemon
/// acknowledges a change, else changes may be reordered.
struct Registrations {
    std::mutex mutex;
    std::multiset<std::pair<std::string, pid_t>> held;
};

Registrations& registrations() {
    static Registrations all;
    return all;
}

}  // namespace

Data makeAuthorizationData() {
    Data data = Data::copy(kAuthorizationExternalFormMagic);
    const std::size_t prefix = data.bytes.size();
    data.bytes.resize(kAuthorizationExternalFormLength);
    // getrandom(2) returns up to 256 bytes at once, uninterrupted once the pool is initialized.
    const std::size_t wanted = data.bytes.size() - prefix;
    if (::getrandom(data.bytes.data() + prefix, wanted, 0) != static_cast<ssize_t>(wanted))
        return {};
    return data;
}

/// The result of a request whose feedback could not arrive, so that it was not sent.
OperationResult withoutDescriptors() {
    return {makePosixError(EMFILE), {}, false};
}

/// Shared with pending requests. Hidden: the pattern for Client's members in exports.map would
/// export it.
class __attribute__((visibility("hidden"))) Client::Impl {
  public:
    Impl(std::shared_ptr<Connection> connection, std::string socketPath)
        : _connection(std::move(connection)), _socketPath(std::move(socketPath)) {}

    [[nodiscard]] const Data& authorization() const noexcept { return _authorization; }
    bool registerClient(pid_t pid, ErrorRef* error);
    bool unregisterClient(pid_t pid, ErrorRef* error);
    void unregisterAll();
    CallOutcome call(std::string_view selector, const Array& params);
    OperationResult perform(OperationCode code, Array arguments, const FeedbackHandler& feedback);
    static void performAsync(const std::shared_ptr<Impl>& impl, OperationCode code, Array arguments,
                             const FeedbackHandler& feedback, CompletionHandler completion);
    void stop();
    void cancel();
    void end() { connection()->invalidate(); }

  private:
    std::shared_ptr<Connection> connection() {
        const std::lock_guard lock(_mutex);
        return _connection;
    }
    bool reconnect(ErrorRef* error);
    /// Call with the lock of the registrations held.
    void removeRegistration(pid_t pid);
    bool sendUnregistration(const Array& params, ErrorRef* error);
    /// Returns a connection that the daemon reads at once, not one that it is busy with.
    Result<std::shared_ptr<Connection>, ErrorRef> idleConnection();
    [[nodiscard]] Array performParams(OperationCode code, Array arguments,
                                      const FeedbackReceiver* receiver) const;
    OperationResult finishRequest(OperationCode code, const CallOutcome& reply,
                                  FeedbackReceiver* receiver) const;

    std::mutex _mutex;
    std::shared_ptr<Connection> _connection;
    bool _resumed = false;

    /// Guarded by the lock of the registrations.
    std::set<pid_t> _registered;

    const std::string _socketPath;
    const Data _authorization = makeAuthorizationData();
    std::atomic<int> _runningRequests = 0;
    /// `stop` was called: nothing more can be sent.
    std::atomic<bool> _stopped = false;
    std::atomic<bool> _canceled = false;
};

bool Client::Impl::reconnect(ErrorRef* error) {
    auto connection = Connection::connectionToServiceAtPath(_socketPath);
    if (!connection) return fail(error, connection.error());
    const std::lock_guard lock(_mutex);
    _connection.swap(*connection);
    _resumed = false;
    return true;
}

bool Client::Impl::registerClient(pid_t pid, ErrorRef* error) {
    const Array params = pidParams(pid);
    const std::lock_guard order(registrations().mutex);
    for (int attempt = 1;; ++attempt) {
        // A request, not a notification: the reply confirms the registration.
        const auto reply = call(selector::kRegisterClient, params);
        if (reply) break;
        const bool again = isConnectionLost(reply.error()) && !_socketPath.empty() && !_stopped &&
                           !_canceled && attempt < kRegistrationAttempts;
        if (!again) return fail(error, reply.error());
        if (!reconnect(error)) return false;
    }
    const pid_t registered = params[0].number()->intValue();
    if (_registered.insert(registered).second)
        registrations().held.emplace(_socketPath, registered);
    return true;
}

Result<std::shared_ptr<Connection>, ErrorRef> Client::Impl::idleConnection() {
    const bool busy = _runningRequests > 0 || _stopped || _canceled;
    if (!busy || _socketPath.empty()) return connection();
    return Connection::connectionToServiceAtPath(_socketPath);
}

bool Client::Impl::unregisterClient(pid_t pid, ErrorRef* error) {
    const Array params = pidParams(pid);
    const std::lock_guard order(registrations().mutex);
    removeRegistration(params[0].number()->intValue());
    return sendUnregistration(params, error);
}

void Client::Impl::unregisterAll() {
    const std::lock_guard order(registrations().mutex);
    while (!_registered.empty()) {
        const pid_t pid = *_registered.begin();
        removeRegistration(pid);
        // The daemon has one entry per process, however many clients the process has.
        const bool isLast = registrations().held.count({_socketPath, pid}) == 0;
        if (isLast) sendUnregistration(pidParams(pid), nullptr);
    }
}

void Client::Impl::removeRegistration(pid_t pid) {
    if (_registered.erase(pid) == 0) return;
    auto& held = registrations().held;
    held.erase(held.find({_socketPath, pid}));
}

bool Client::Impl::sendUnregistration(const Array& params, ErrorRef* error) {
    const auto connection = idleConnection();
    if (!connection) return fail(error, connection.error());
    // A request, so that it takes effect before this returns. A daemon that ends with its last
    // client does not reply.
    const auto reply = (*connection)->remoteObjectProxy().call(selector::kUnregisterClient, params);
    return reply || isConnectionLost(reply.error()) ? true : fail(error, reply.error());
}

CallOutcome Client::Impl::call(std::string_view selector, const Array& params) {
    return connection()->remoteObjectProxy().call(selector, params);
}

Array Client::Impl::performParams(OperationCode code, Array arguments,
                                  const FeedbackReceiver* receiver) const {
    Array params;
    params.reserve(4);
    params.emplace_back(code);
    params.emplace_back(_authorization);
    params.push_back(receiver != nullptr ? Value(receiver->endpoint()) : Value());
    params.emplace_back(std::move(arguments));
    return params;
}

OperationResult Client::Impl::finishRequest(OperationCode code, const CallOutcome& reply,
                                            FeedbackReceiver* receiver) const {
    OperationResult result;
    if (reply)
        result = resultOfReply(*reply);
    else
        result.error = reply.error();
    if (receiver == nullptr) return result;
    // After a cancellation the daemon may continue to send for long.
    if (_canceled) receiver->abandon();
    const OperationInfo* operation = findOperation(code);
    const bool wasSent = result.succeeded() && operation != nullptr &&
                         operation->feedback != OperationFeedback::none;
    result.feedbackComplete = !_canceled && receiver->finish(wasSent);
    return result;
}

OperationResult Client::Impl::perform(OperationCode code, Array arguments,
                                      const FeedbackHandler& feedback) {
    std::unique_ptr<FeedbackReceiver> receiver;
    if (feedback) receiver = std::make_unique<FeedbackReceiver>(feedback);
    if (receiver && !receiver->endpoint().descriptor) return withoutDescriptors();
    ++_runningRequests;
    const auto reply = call(selector::kPerformPrivilegedOperation,
                            performParams(code, std::move(arguments), receiver.get()));
    --_runningRequests;
    return finishRequest(code, reply, receiver.get());
}

void Client::Impl::performAsync(const std::shared_ptr<Impl>& impl, OperationCode code,
                                Array arguments, const FeedbackHandler& feedback,
                                CompletionHandler completion) {
    std::shared_ptr<FeedbackReceiver> receiver;
    if (feedback) receiver = std::make_shared<FeedbackReceiver>(feedback);
    if (receiver && !receiver->endpoint().descriptor) return completion(withoutDescriptors());
    std::shared_ptr<Connection> connection;
    {
        const std::lock_guard lock(impl->_mutex);
        connection = impl->_connection;
        if (!std::exchange(impl->_resumed, true)) connection->resume();
    }
    ++impl->_runningRequests;
    const Array params = impl->performParams(code, std::move(arguments), receiver.get());
    connection->remoteObjectProxy().callWithReply(
        selector::kPerformPrivilegedOperation, params,
        [impl, code, receiver, done = std::move(completion)](const CallOutcome& reply) {
            --impl->_runningRequests;
            done(impl->finishRequest(code, reply, receiver.get()));
        });
}

void Client::Impl::stop() {
    _stopped = true;
    connection()->shutDownSending();
}

void Client::Impl::cancel() {
    _canceled = true;
    end();
}

Client::Client(std::shared_ptr<Impl> impl) : _impl(std::move(impl)) {}

Client::~Client() {
    _impl->unregisterAll();
    _impl->cancel();
}

std::unique_ptr<Client> Client::connect(std::string_view socketPath, ErrorRef* error) {
    const std::string path(socketPath.empty() ? kServiceSocketPath : socketPath);
    auto connection = Connection::connectionToServiceAtPath(path);
    if (!connection) {
        fail(error, connection.error());
        return nullptr;
    }
    return std::unique_ptr<Client>(
        new Client(std::make_shared<Impl>(*std::move(connection), path)));
}

std::unique_ptr<Client> Client::connectThroughEndpoint(const EndpointRef& endpoint) {
    return std::unique_ptr<Client>(new Client(
        std::make_shared<Impl>(Connection::connectionToEndpoint(endpoint), std::string())));
}

bool Client::registerClient(pid_t pid, ErrorRef* error) {
    return _impl->registerClient(pid, error);
}

bool Client::unregisterClient(pid_t pid, ErrorRef* error) {
    return _impl->unregisterClient(pid, error);
}

std::string Client::version(ErrorRef* error) {
    const CallOutcome version = _impl->call(selector::kGetVersionString, {});
    if (!version) fail(error, version.error());
    return version && version->string() != nullptr ? *version->string() : std::string();
}

bool Client::enableDebugMode(bool enabled, ErrorRef* error) {
    const CallOutcome reply = _impl->call(selector::kEnableDebugMode, {Value(enabled)});
    return reply ? true : fail(error, reply.error());
}

EndpointRef Client::helperEndpoint(ErrorRef* error) {
    const CallOutcome endpoint = _impl->call(selector::kConnectWithEndpoint, {});
    if (!endpoint) fail(error, endpoint.error());
    return endpoint && endpoint->endpoint() != nullptr ? *endpoint->endpoint() : EndpointRef{};
}

OperationResult Client::perform(OperationCode code, Array arguments,
                                const FeedbackHandler& feedback) {
    return _impl->perform(code, std::move(arguments), feedback);
}

OperationResult Client::perform(std::string_view identifier, Array arguments,
                                const FeedbackHandler& feedback) {
    const OperationInfo* operation = findOperation(identifier);
    if (operation == nullptr) return {makePosixError(EINVAL), {}, true};
    return perform(operation->code, std::move(arguments), feedback);
}

void Client::performAsync(OperationCode code, Array arguments, const FeedbackHandler& feedback,
                          CompletionHandler completion) {
    Impl::performAsync(_impl, code, std::move(arguments), feedback, std::move(completion));
}

void Client::stop() {
    _impl->stop();
}

void Client::cancel() {
    _impl->cancel();
}

const Data& Client::authorizationData() const noexcept {
    return _impl->authorization();
}

}  // namespace corvalen
