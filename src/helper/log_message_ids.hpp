// SPDX-License-Identifier: MIT
// Message ids of the lines that administrators look for (systemd.journal-fields(7), MESSAGE_ID);
// resources/corvalen.catalog has their texts. An id never changes its meaning.
#pragma once

#include <string_view>

namespace corvalen {

inline constexpr std::string_view kMessageIdField = "MESSAGE_ID";

inline constexpr std::string_view kHelperStartedId = "4fbc48f36cc849ca91e6f6f2cf9163d0";
inline constexpr std::string_view kHelperEndedId = "dc1f11abfe5d4bc1a2600bb3a8df81b0";
inline constexpr std::string_view kRequestRejectedId = "f86b8f9e72e74f728fbe92278479f348";
inline constexpr std::string_view kRequestDeniedId = "b8fabc55800c463bbe9df76f9fe60ce9";
inline constexpr std::string_view kOperationFailedId = "1c753b500d164facbcf4a2dce6d3e2db";
// The id of the audit is in operations/audit_fields.hpp, for its readers.

}  // namespace corvalen
