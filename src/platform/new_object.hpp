// SPDX-License-Identifier: MIT
// Files and directories that are certainly the ones just made, whoever owns the directory above.
#pragma once

#include <sys/types.h>

#include <string>

#include "corvalen/descriptor.hpp"
#include "platform/object_address.hpp"

namespace corvalen {

/// The first two return 0 or an errno, and leave nothing behind on failure unless they say so. The
/// address has an open parent. Any thread may call.

/// Creates a regular file, exclusively, and opens it for writing. It has exactly this mode, the
/// caller as owner and no access list, whatever the directory hands down.
int makeFile(const ObjectAddress& where, mode_t mode, UniqueFd* file);

/// Creates a directory and opens it for reading. It has exactly this mode, and neither an access
/// list nor a default list. ESTALE when somebody put another object in its place before it could
/// be opened; that object is not changed, and the new directory is empty with mode 0700.
int makeDirectory(const ObjectAddress& where, mode_t mode, UniqueFd* directory);

/// A name that nobody can foresee, for an object that is only there for a while.
[[nodiscard]] std::string temporaryName();

}  // namespace corvalen
