// SPDX-License-Identifier: MIT
// Names of the system: service, paths, error domain, selectors.
#pragma once

#include <string_view>

namespace corvalen {

inline constexpr std::string_view kVendorPrefix = "net.corvalen";
inline constexpr std::string_view kImplementationCode = "kvx";
inline constexpr std::string_view kServiceName = "net.corvalen.system.privilegedhelper-kvx";
inline constexpr std::string_view kServiceSocketPath =
    "/run/net.corvalen.system.privilegedhelper-kvx.sock";
inline constexpr std::string_view kStoreDirectory =
    "/var/lib/net.corvalen.system.privilegedhelper-kvx";
inline constexpr std::string_view kErrorDomain = "net.corvalen.error.privileged-operation";

/// Selectors of QRLPrivilegedHelperProtocol and QRLPrivilegedOperationFeedbackProtocol.
namespace selector {
inline constexpr std::string_view kConnectWithEndpoint = "connectWithEndpointUsingReply:";
inline constexpr std::string_view kGetVersionString = "getVersionStringUsingReply:";
inline constexpr std::string_view kEnableDebugMode = "enableDebugMode:";
inline constexpr std::string_view kRegisterClient = "registerClientWithPID:";
inline constexpr std::string_view kUnregisterClient = "unregisterClientWithPID:";
inline constexpr std::string_view kPerformPrivilegedOperation =
    "performPrivilegedOperation:withAuthorizationData:feedbackEndpoint:arguments:usingReply:";
inline constexpr std::string_view kProcessFeedback = "processPrivilegedOperationFeedback:";
}  // namespace selector

}  // namespace corvalen
