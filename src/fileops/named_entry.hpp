// SPDX-License-Identifier: MIT
// The entries that operations on two paths work with.
#pragma once

#include <string>

#include "corvalen/error.hpp"
#include "platform/files/entry.hpp"

namespace corvalen {

/// Opens the entry that `path` names; an empty path names nothing. Returns false and a Cocoa error
/// with the path if that fails.
bool openNamed(const std::string& path, Entry* entry, ErrorRef* error);

}  // namespace corvalen
