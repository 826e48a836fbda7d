// SPDX-License-Identifier: MIT
// The entries that operations on two paths work with.
#pragma once

#include <string>

#include "corvalen/error.hpp"
#include "platform/files/entry.hpp"

namespace corvalen {

/// Opens the entry that `path` names; an empty path names nothing. Fails with a Cocoa error with
/// the path.
[[nodiscard]] Result<Entry, ErrorRef> openNamed(const std::string& path);

}  // namespace corvalen
