// SPDX-License-Identifier: MIT
// The objects and the purpose of a request, for the authority's rules, prompts and the audit.
#pragma once

#include <string>
#include <vector>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// Maximum bytes of a value in `RightPurpose::details`: longer values are cut, longer objects left
/// out.
inline constexpr std::size_t kLongestDetail = 256;
inline constexpr std::size_t kLongestObjectDetail = 4096;

/// Returns the objects that the arguments name, as sent: paths, names, decimal numbers. The
/// arguments may be unchecked; values of other types are left out.
[[nodiscard]] std::vector<std::string> objectsOfRequest(const OperationEntry& operation,
                                                        const Array& arguments);

/// Returns the purpose of a request. Its details are "operation", "object", and the other arguments
/// by name, with hyphens for blanks. "object" is present only if the request names exactly one; an
/// absolute path must have no empty, "." or ".." component. Control characters, markup, backslashes
/// and invalid UTF-8 are escaped as \xNN.
[[nodiscard]] RightPurpose purposeOfRequest(const OperationEntry& operation,
                                            const Array& arguments);

}  // namespace corvalen
