// SPDX-License-Identifier: MIT
// What the sources of the descriptions share.
#pragma once

#include "operations/operation_descriptions.hpp"

namespace corvalen {

/// The operations on objects and trees; those on settings and the daemon itself are in
/// operation_descriptions.cpp.
[[nodiscard]] std::span<const OperationDescription> descriptionsOfObjectOperations() noexcept;

// Errors that several operations share.
namespace description {

inline constexpr ErrorDescription kEmptyPath = {ErrorOrigin::posix, 22, "the path is empty"};
inline constexpr ErrorDescription kNothingThere = {ErrorOrigin::posix, 2, "nothing exists there"};
inline constexpr ErrorDescription kNotADirectory = {ErrorOrigin::posix, 20, "it is no folder"};
inline constexpr ErrorDescription kCallFailed = {ErrorOrigin::posix, 0,
                                                 "the system refuses the change"};

}  // namespace description
}  // namespace corvalen
