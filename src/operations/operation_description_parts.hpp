// SPDX-License-Identifier: MIT
// Where the descriptions are written, by the directory that performs the operations.
#pragma once

#include "operations/operation_descriptions.hpp"

namespace corvalen {

[[nodiscard]] std::span<const OperationDescription> descriptionsOfMaintenance() noexcept;
[[nodiscard]] std::span<const OperationDescription> descriptionsOfFileOperations() noexcept;
[[nodiscard]] std::span<const OperationDescription> descriptionsOfTreeOperations() noexcept;
[[nodiscard]] std::span<const OperationDescription> descriptionsOfSettings() noexcept;

// What several descriptions say in the same words.
namespace description {

inline constexpr ErrorDescription kEmptyPath = {ErrorOrigin::posix, 22, "the path is empty"};
inline constexpr ErrorDescription kNothingThere = {ErrorOrigin::posix, 2, "nothing exists there"};
inline constexpr ErrorDescription kNoFolder = {ErrorOrigin::posix, 20, "it is no folder"};
inline constexpr ErrorDescription kCallFailed = {ErrorOrigin::posix, 0,
                                                 "the system refuses the change"};

}  // namespace description
}  // namespace corvalen
