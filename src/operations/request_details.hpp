// SPDX-License-Identifier: MIT
// What a request is about: for the authority and its rules, for the person who is asked, and for
// the audit.
#pragma once

#include <string>
#include <vector>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// A value that is longer in `RightPurpose::details` is cut or, as an object, left out.
inline constexpr std::size_t kLongestDetail = 256;
inline constexpr std::size_t kLongestObjectDetail = 4096;

/// What the arguments name as the objects of the operation, as they were sent: paths, names,
/// numbers in decimal. They need not have been checked; what is of no type for an object is left
/// out.
[[nodiscard]] std::vector<std::string> objectsOfRequest(const OperationEntry& operation,
                                                        const Array& arguments);

/// The details are "operation", "object" and the other arguments by their names, with hyphens for
/// blanks. "object" is there only when the request names exactly one, and a path only as it is
/// resolved: absolute, without an empty component, "." and "..". Control characters, markup,
/// backslashes and bytes that are no UTF-8 are written as \xNN.
[[nodiscard]] RightPurpose purposeOfRequest(const OperationEntry& operation,
                                            const Array& arguments);

}  // namespace corvalen
