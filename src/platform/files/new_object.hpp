// SPDX-License-Identifier: MIT
// Creation of files and directories in directories that another user may control.
#pragma once

#include <sys/types.h>

#include <string>

#include "corvalen/descriptor.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {

/// On failure nothing is left behind unless stated. The address has an open parent. Any thread may
/// call.

/// Creates a regular file exclusively and opens it for writing. It has exactly this mode, the
/// caller as owner and no access list, regardless of the directory's default list.
[[nodiscard]] Result<UniqueFd> makeFile(const ObjectAddress& where, mode_t mode);

/// Creates a directory and opens it for reading. It has exactly this mode, no access list and no
/// default list. ESTALE if another object replaced it before it was opened; that object is
/// unchanged, and the new directory stays behind, empty and with mode 0700.
[[nodiscard]] Result<UniqueFd> makeDirectory(const ObjectAddress& where, mode_t mode);

/// Returns an unpredictable name for a temporary object.
[[nodiscard]] std::string temporaryName();

}  // namespace corvalen
