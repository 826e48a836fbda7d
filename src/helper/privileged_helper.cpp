// SPDX-License-Identifier: MIT
#include "helper/privileged_helper.hpp"

#include <array>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include "helper/helper_log.hpp"
#include "helper/request_pipeline.hpp"
#include "operations/names.hpp"

namespace corvalen {
namespace {

std::mutex gInstanceLock;
std::weak_ptr<QRLPrivilegedHelper> gQRLPrivilegedHelper;

// The messages of the service. Their parameters are untrusted and are checked here.

constexpr std::array kMethods = {
    InterfaceMethod{selector::kConnectWithEndpoint, true},
    InterfaceMethod{selector::kGetVersionString, true},
    InterfaceMethod{selector::kEnableDebugMode, false},
    InterfaceMethod{selector::kRegisterClient, false},
    InterfaceMethod{selector::kUnregisterClient, false},
    InterfaceMethod{selector::kPerformPrivilegedOperation, true},
};

constexpr Interface kProtocol{"QRLPrivilegedHelperProtocol", kMethods};

CallResult wrongParameters() {
    return CallResult::refused("the parameters have the wrong form");
}

/// An integer of at least 0, signed or unsigned.
std::optional<std::uint64_t> unsignedParameter(const Value& value) {
    const Number* number = value.number();
    if (number == nullptr || !number->isInteger()) return std::nullopt;
    if (number->kind() == Number::Kind::signedInteger && number->longLongValue() < 0)
        return std::nullopt;
    return number->unsignedIntegerValue();
}

/// A process id: a signed 32-bit integer.
std::optional<std::int32_t> pidParameter(const Array& params) {
    const Number* number = params.size() == 1 ? params[0].number() : nullptr;
    if (number == nullptr || !number->isInteger()) return std::nullopt;
    using Limits = std::numeric_limits<std::int32_t>;
    if (number->kind() == Number::Kind::unsignedInteger &&
        number->unsignedIntegerValue() > static_cast<std::uint64_t>(Limits::max()))
        return std::nullopt;
    const std::int64_t pid = number->longLongValue();
    if (pid < Limits::min() || pid > Limits::max()) return std::nullopt;
    return static_cast<std::int32_t>(pid);
}

std::optional<bool> booleanParameter(const Array& params) {
    const Number* number = params.size() == 1 ? params[0].number() : nullptr;
    if (number == nullptr || number->kind() != Number::Kind::boolean) return std::nullopt;
    return number->boolValue();
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
      _service(std::move(services.serviceSocket), std::move(services.ownSocketPath),
               {_log, _clients, _requests}) {
    listener()->setDelegate(this);
}

QRLPrivilegedHelper::~QRLPrivilegedHelper() = default;

bool QRLPrivilegedHelper::listenerShouldAcceptNewConnection(
    Listener& listener, const std::shared_ptr<Connection>& connection) {
    if (&listener != this->listener() || connection == nullptr) {
        consoleLog("QRLPrivilegedHelper: received bad XPC connection request. Ignoring ...\n");
        return false;
    }
    connection->setExportedInterface(privilegedHelperProtocol(), shared_from_this());
    connection->resume();
    return true;
}

EndpointRef QRLPrivilegedHelper::connectWithEndpoint(const PeerIdentity& peer) {
    return listener()->endpoint(&peer);
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
    if (remaining == 0) _service.endWhenIdle();
}

ErrorRef QRLPrivilegedHelper::checkAuthorization(const PrivilegedRequest& request,
                                                 const OperationEntry* operation) {
    return corvalen::checkAuthorization(*_authorization, request, operation);
}

void QRLPrivilegedHelper::performPrivilegedOperation(const PrivilegedRequest& request,
                                                     const OperationReply& usingReply) {
    usingReply(
        performRequest({_log, *_operationSet, *_authorization, _maintenance, _requests}, request));
}

const Interface& privilegedHelperProtocol() noexcept {
    return kProtocol;
}

CallResult QRLPrivilegedHelper::handleMessage(Connection& connection, std::string_view selector,
                                              Array params) {
    const LogQuotaScope quota(connection.quotas().get());
    try {
        return dispatchMessage(connection, selector, params);
    } catch (const std::exception&) {
        return CallResult::refused("the call could not be handled");
    }
}

CallResult QRLPrivilegedHelper::dispatchMessage(Connection& connection, std::string_view selector,
                                                const Array& params) {
    if (selector == selector::kPerformPrivilegedOperation)
        return performMessage(connection, params);
    if (selector == selector::kConnectWithEndpoint) {
        if (!params.empty()) return wrongParameters();
        EndpointRef endpoint = connectWithEndpoint(connection.peer());
        if (endpoint.descriptor == nullptr) return CallResult::refused("no endpoint can be made");
        return {Value(std::move(endpoint)), {}};
    }
    if (selector == selector::kGetVersionString)
        return params.empty() ? CallResult{Value(getVersionString()), {}} : wrongParameters();
    if (selector == selector::kEnableDebugMode) {
        const auto enable = booleanParameter(params);
        if (!enable) return wrongParameters();
        enableDebugMode(*enable);
        return {};
    }
    const auto pid = pidParameter(params);
    if (!pid) return wrongParameters();
    if (selector == selector::kUnregisterClient) {
        unregisterClientWithPID(*pid);
        return {};
    }
    // What is left is registerClient: no other selector is in the interface.
    return registerClientWithPID(*pid, connection.quotas())
               ? CallResult{}
               : CallResult::refused("too many clients");
}

CallResult QRLPrivilegedHelper::performMessage(Connection& connection, const Array& params) {
    if (params.size() != 4) return wrongParameters();
    const auto code = unsignedParameter(params[0]);
    const Data* authorizationData = params[1].data();
    const EndpointRef* endpoint = params[2].endpoint();
    const Array* arguments = params[3].array();
    const bool wellFormed = code && (authorizationData != nullptr || params[1].isNil()) &&
                            (endpoint != nullptr || params[2].isNil()) &&
                            (arguments != nullptr || params[3].isNil());
    if (!wellFormed) return wrongParameters();

    const PrivilegedRequest request{
        *code,
        authorizationData != nullptr ? authorizationData->view() : std::string_view(),
        endpoint != nullptr ? *endpoint : EndpointRef{},
        arguments,
        connection.peer(),
        connection.quotas()};
    CallResult reply;
    performPrivilegedOperation(
        request, [&reply](ErrorRef result) { reply.result = Value(std::move(result)); });
    return reply;
}

}  // namespace corvalen
