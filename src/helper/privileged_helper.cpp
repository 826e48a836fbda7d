// SPDX-License-Identifier: MIT
#include "helper/privileged_helper.hpp"

#include <unistd.h>

#include <thread>

#include "helper/authorization_check.hpp"
#include "helper/log_line.hpp"
#include "helper/log_message_ids.hpp"
#include "helper/request_pipeline.hpp"
#include "platform/processes/service_manager.hpp"

namespace corvalen {
namespace {

std::mutex gInstanceLock;
std::weak_ptr<QRLPrivilegedHelper> gQRLPrivilegedHelper;

// Milliseconds. SIGTERM must end the process within a second.
constexpr std::chrono::milliseconds kOperationsTimeout{800};
constexpr std::chrono::milliseconds kRepliesTimeout{100};
constexpr std::chrono::milliseconds kPauseBetweenLooks{2};
// Interval at which a requested end looks for running requests.
constexpr std::chrono::milliseconds kEndInterval{5};
constexpr std::chrono::milliseconds kLeftOutInterval{1000};

/// Waits until `condition` holds, at most `timeout`.
template <class Condition>
void waitUntil(const Condition& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(kPauseBetweenLooks);
}

}  // namespace

std::shared_ptr<QRLPrivilegedHelper> QRLPrivilegedHelper::privilegedHelper() {
    const std::lock_guard lock(gInstanceLock);
    return gQRLPrivilegedHelper.lock();
}

std::shared_ptr<QRLPrivilegedHelper> QRLPrivilegedHelper::initForOperationSet(
    const QRLPrivilegedOperationSet* operationSet, HelperServices services) {
    if (operationSet == nullptr) return nullptr;
    const std::lock_guard lock(gInstanceLock);
    if (auto existing = gQRLPrivilegedHelper.lock()) return existing;
    std::shared_ptr<QRLPrivilegedHelper> made(
        new QRLPrivilegedHelper(*operationSet, std::move(services)));
    gQRLPrivilegedHelper = made;
    return made;
}

QRLPrivilegedHelper::QRLPrivilegedHelper(const QRLPrivilegedOperationSet& operationSet,
                                         HelperServices services)
    : _log(std::move(services.log)),
      _authorization(std::move(services.authorization)),
      _fileFlags(std::move(services.fileFlags)),
      _operationSet(&operationSet),
      _maintenance({_log, *_authorization, *_fileFlags, operationSet}),
      _ownSocketPath(std::move(services.ownSocketPath)),
      _listener(Listener::listenerAtSocket(std::move(services.serviceSocket), _quotas)) {
    _log.setLeftOutHandler([this] { _wait.wake(); });
    _listener->setDelegate(this);
}

QRLPrivilegedHelper::~QRLPrivilegedHelper() = default;

void QRLPrivilegedHelper::run() {
    _listener->resume();
    notifyServiceManager("READY=1");
    std::optional<std::chrono::milliseconds> untilNextLook;
    while (!_wait.wait(untilNextLook))
        untilNextLook = attend();
    notifyServiceManager("STOPPING=1");
    _listener->suspend();
    removeOwnSocket();
    letOperationsFinish();
    _listener->invalidate();
}

/// The main thread's work after a wake-up. Returns the time until the next one; std::nullopt if
/// none is needed.
std::optional<std::chrono::milliseconds> QRLPrivilegedHelper::attend() {
    endIfIdle();
    const bool allSaid = _log.reportLeftOutLines(_quotas->accounts(), quotaSecond());
    if (_endRequested) return kEndInterval;
    if (!allSaid) return kLeftOutInterval;
    return std::nullopt;
}

void QRLPrivilegedHelper::letOperationsFinish() {
    _requests.cancelAll();
    waitUntil([this] { return !_requests.isPerforming(); }, kOperationsTimeout);
    waitUntil([this] { return !_listener->hasBusyConnection(); }, kRepliesTimeout);
}

bool QRLPrivilegedHelper::listenerShouldAcceptNewConnection(
    Listener& listener, const std::shared_ptr<Connection>& connection) {
    if (&listener != _listener.get() || connection == nullptr) {
        consoleLog("QRLPrivilegedHelper: received bad XPC connection request. Ignoring ...\n");
        return false;
    }
    connection->setExportedInterface(privilegedHelperProtocol(), shared_from_this());
    connection->resume();
    return true;
}

EndpointRef QRLPrivilegedHelper::connectWithEndpoint(const PeerIdentity& peer) {
    return _listener->endpoint(&peer);
}

const std::string& QRLPrivilegedHelper::getVersionString() const {
    return _operationSet->implementationVersion();
}

void QRLPrivilegedHelper::enableDebugMode(bool enable) {
    const std::uint32_t level = enable ? kDebugModeLevel : kNormalDebugLevel;
    if (_log.setLevel(level) == level) return;
    _log.error(LogLine(
        "Debug mode changed to {}. Debug messages are now handled at logging priority level {}.",
        enable ? "enabled" : "disabled", level));
    if (!enable) return;
    _log.debug(LogLine("--- This is helper version {}, implementing operation set '{}'. ---",
                       _operationSet->implementationVersion(),
                       _operationSet->implementationCode()));
}

bool QRLPrivilegedHelper::registerClientWithPID(std::int32_t pid,
                                                const std::shared_ptr<UserQuotas>& account) {
    if (!_clients.add(pid, account)) {
        _log.error(LogLine("Client {} was not registered because user {} has {} clients.", pid,
                           account->user(), account->charged(Resource::registrations)));
        return false;
    }
    _log.debug(LogLine("Beginning work for client {}.", pid));
    return true;
}

void QRLPrivilegedHelper::unregisterClientWithPID(std::int32_t pid) {
    _log.debug(LogLine("Finishing work for client {}.", pid));
    const std::size_t remaining = _clients.remove(pid);
    _log.debug(LogLine("{} clients remaining.", remaining));
    if (remaining > 0) return;
    _endRequested = true;
    endIfIdle();
    if (_endRequested) _wait.wake();
}

/// Ends the process if its end is requested, no client is registered and no request is running. The
/// checks also stop new requests from beginning, so none is cut off.
void QRLPrivilegedHelper::endIfIdle() {
    if (!_endRequested.exchange(false)) return;
    _clients.ifEmpty([this] {
        const bool isIdle = _listener->suspendIfIdle(Connection::current(),
                                                     [this] { return _requests.closeIfNone(); });
        if (isIdle) terminatePrivilegedHelper();
        _endRequested = true;
    });
}

void QRLPrivilegedHelper::terminatePrivilegedHelper() {
    const LogQuotaScope unlimited(nullptr);
    _log.reportLeftOutLines(_quotas->accounts(), quotaSecond() + 1);
    _log.debug("Terminating privileged helper.", kHelperEndedId);
    notifyServiceManager("STOPPING=1");
    removeOwnSocket();
    // Not exit(3): it would destroy static objects that other threads still use. No line is lost,
    // since the log is written line by line. No socket is closed before: the kernel does not let
    // the sockets of an exiting process linger.
    ::_exit(0);
}

void QRLPrivilegedHelper::removeOwnSocket() noexcept {
    if (!_ownSocketPath.empty()) ::unlink(_ownSocketPath.c_str());
}

ErrorRef QRLPrivilegedHelper::checkAuthorization(const PrivilegedRequest& request,
                                                 const OperationEntry* operation) {
    return corvalen::checkAuthorization(
        *_authorization, {request.authorizationData, request.peer, request.arguments}, operation,
        request.code == kDiscardAuthCode);
}

void QRLPrivilegedHelper::performPrivilegedOperation(const PrivilegedRequest& request,
                                                     const OperationReply& usingReply) {
    usingReply(
        performRequest({_log, *_operationSet, *_authorization, _maintenance, _requests}, request));
}

}  // namespace corvalen
