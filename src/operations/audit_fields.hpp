// SPDX-License-Identifier: MIT
// Journal fields of an audit line, shared by its writer and its readers. The names are a contract
// with administrators' own tools.
#pragma once

#include <string_view>

namespace corvalen::audit_field {

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

}  // namespace corvalen::audit_field
