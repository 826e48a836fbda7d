// SPDX-License-Identifier: MIT
// Names of the system: service, paths, error domain, selectors, keys of feedback and answers,
// journal fields, permitted utilities.
#pragma once

#include <array>
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

/// Keys of the messages that a running operation sends to its client.
inline constexpr std::string_view kQRLPORK_ProgressFraction = "ProgressFraction";
inline constexpr std::string_view kQRLPORK_FileObjectInfo = "FileObjectInfo";
inline constexpr std::string_view kQRLPORK_OutputData = "OutputData";
inline constexpr std::string_view kQRLPORK_ErrorData = "ErrorData";
inline constexpr std::string_view kQRLPORK_FinalFeedbackMessage = "FinalFeedbackMessage";

/// Keys of file object info records, and of answers in user info.
inline constexpr std::string_view kKeyObjectPath = "Path";
inline constexpr std::string_view kKeyObjectType = "Type";
inline constexpr std::string_view kKeyObjectSize = "Size";
inline constexpr std::string_view kKeyObjectModificationDate = "ModificationDate";
inline constexpr std::string_view kKeyObjectPOSIXMode = "Mode";
inline constexpr std::string_view kKeyObjectExistenceInfo = "ObjectExistence";
/// In the error of a stopped operation: the number of finished objects.
inline constexpr std::string_view kKeyObjectCount = "ObjectCount";

/// Journal fields of an audit line, shared by its writer and its readers. The names are a contract
/// with administrators' own tools.
namespace audit_field {
/// The value of MESSAGE_ID; never used for anything else.
inline constexpr std::string_view kMessageId = "c330ee75d92a4a538f20fe2db795b385";
inline constexpr std::string_view kUser = "CORVALEN_CLIENT_UID";
inline constexpr std::string_view kProcess = "CORVALEN_CLIENT_PID";
inline constexpr std::string_view kExecutable = "CORVALEN_CLIENT_EXECUTABLE";
inline constexpr std::string_view kOperation = "CORVALEN_OPERATION";
/// One field per object, up to a limit.
inline constexpr std::string_view kObject = "CORVALEN_OBJECT";
inline constexpr std::string_view kObjectCount = "CORVALEN_OBJECT_COUNT";
/// Code of the error in the reply, 0 for success, and its domain.
inline constexpr std::string_view kOutcome = "CORVALEN_OUTCOME";
inline constexpr std::string_view kOutcomeDomain = "CORVALEN_OUTCOME_DOMAIN";
}  // namespace audit_field

/// Their paths; clients name them by the last component.
inline constexpr std::array<std::string_view, 16> kPermittedUtilities = {
    "/usr/bin/dscacheutil",
    "/usr/sbin/discoveryutil",
    "/bin/chmod",
    "/usr/sbin/chown",
    "/usr/bin/update_dyld_shared_cache",
    "/usr/bin/ditto",
    "/usr/sbin/periodic",
    "/usr/sbin/diskutil",
    "/usr/bin/mdutil",
    "/usr/bin/lipo",
    "/usr/bin/atsutil",
    "/bin/launchctl",
    "/usr/sbin/cupsctl",
    "/usr/bin/tmutil",
    "/usr/sbin/dot_clean",
    "/usr/libexec/xpchelper",
};

/// Taken from the client application, never from the system.
inline constexpr std::string_view kUtilityOfApplication = "lipo";

}  // namespace corvalen
