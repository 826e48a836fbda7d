// SPDX-License-Identifier: MIT
// Parts of the descriptions, one for each directory that performs operations.
#pragma once

#include "operations/operation_descriptions.hpp"

namespace corvalen {

[[nodiscard]] std::span<const OperationDescription> descriptionsOfMaintenance() noexcept;
[[nodiscard]] std::span<const OperationDescription> descriptionsOfFileOperations() noexcept;
[[nodiscard]] std::span<const OperationDescription> descriptionsOfTreeOperations() noexcept;
[[nodiscard]] std::span<const OperationDescription> descriptionsOfSettings() noexcept;

// Errors that several operations share.
namespace description {

inline constexpr ErrorDescription kEmptyPath = {ErrorOrigin::posix, 22, "the path is empty"};
inline constexpr ErrorDescription kNothingThere = {ErrorOrigin::posix, 2, "nothing exists there"};
inline constexpr ErrorDescription kNoFolder = {ErrorOrigin::posix, 20, "it is no folder"};
inline constexpr ErrorDescription kCallFailed = {ErrorOrigin::posix, 0,
                                                 "the system refuses the change"};

}  // namespace description
}  // namespace corvalen
