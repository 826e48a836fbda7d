// SPDX-License-Identifier: MIT
#include "helper/privileged_helper.hpp"

#include <unistd.h>

#include "helper/authorization_check.hpp"
#include "helper/log_line.hpp"
#include "helper/log_message_ids.hpp"
#include "helper/process_setup.hpp"
#include "helper/request_pipeline.hpp"
#include "operations/privileged_operation_set_kvx.hpp"
#include "platform/service_manager.hpp"

namespace corvalen {
namespace {

std::mutex gInstanceLock;
std::weak_ptr<QRLPrivilegedHelper> gQRLPrivilegedHelper;

constexpr std::size_t kExpectedClients = 10;

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
      _ownSocketPath(std::move(services.ownSocketPath)),
      _clientSet(kExpectedClients),
      _listener(Listener::listenerAtSocket(std::move(services.serviceSocket))) {
    _listener->setDelegate(this);
}

QRLPrivilegedHelper::~QRLPrivilegedHelper() = default;

void QRLPrivilegedHelper::run() {
    _listener->resume();
    notifyServiceManager("READY=1");
    waitForTerminationSignal();
    notifyServiceManager("STOPPING=1");
    _listener->suspend();
    _listener->invalidate();
    removeOwnSocket();
}

std::unordered_set<std::int32_t> QRLPrivilegedHelper::clientSet() const {
    const std::lock_guard lock(_clientSetLock);
    return _clientSet;
}

void QRLPrivilegedHelper::logErrorMessage(std::string_view message) {
    if (message.empty()) return;
    _log.debug(LogLine("Error during execution of privileged operation: {}", message),
               kOperationFailedId);
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

bool QRLPrivilegedHelper::registerClientWithPID(std::int32_t pid) {
    _log.debug(LogLine("Beginning work for client {}.", pid));
    const std::lock_guard lock(_clientSetLock);
    if (_clientSet.size() >= kMaximumClients && !_clientSet.contains(pid)) return false;
    _clientSet.insert(pid);
    return true;
}

void QRLPrivilegedHelper::unregisterClientWithPID(std::int32_t pid) {
    _log.debug(LogLine("Finishing work for client {}.", pid));
    std::size_t remaining = 0;
    {
        const std::lock_guard lock(_clientSetLock);
        _clientSet.erase(pid);
        remaining = _clientSet.size();
    }
    _log.debug(LogLine("{} clients remaining.", remaining));
    if (remaining == 0) terminatePrivilegedHelper();
}

void QRLPrivilegedHelper::terminatePrivilegedHelper() {
    _log.debug("Terminating privileged helper.", kHelperEndedId);
    notifyServiceManager("STOPPING=1");
    _listener->suspend();
    _listener->invalidate();
    removeOwnSocket();
    // Not exit(3): it would destroy static objects under the threads that still serve other
    // connections. Nothing is lost, since the log is written line by line.
    ::_exit(0);
}

void QRLPrivilegedHelper::removeOwnSocket() noexcept {
    if (!_ownSocketPath.empty()) ::unlink(_ownSocketPath.c_str());
}

ErrorRef QRLPrivilegedHelper::checkAuthorization(const PrivilegedRequest& request,
                                                 const OperationEntry* operation) {
    return corvalen::checkAuthorization(*_authorization, {request.authorizationData, request.peer},
                                        operation, request.code == kDiscardAuthCode);
}

void QRLPrivilegedHelper::performPrivilegedOperation(const PrivilegedRequest& request,
                                                     const OperationReply& usingReply) {
    ErrorRef result;
    try {
        result = RequestPipeline(*this, request).perform();
    } catch (...) {
        result = errorOfCurrentException(_log, "request");
    }
    usingReply(std::move(result));
}

}  // namespace corvalen
