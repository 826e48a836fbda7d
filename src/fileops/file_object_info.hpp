// SPDX-License-Identifier: MIT
// The record that describes an object to the client.
#pragma once

#include <string>
#include <string_view>

#include "corvalen/value.hpp"

struct statx;

namespace corvalen {

/// Returns the statx(2) mask of the fields that a record needs.
[[nodiscard]] unsigned fileObjectInfoStatxMask() noexcept;

/// Makes the record of the object at `path` from its statx(2) attributes, symlinks not followed.
/// Keys: "Path", "Type", "Size" (bytes), "ModificationDate", "Mode".
[[nodiscard]] Dictionary makeFileObjectInfo(std::string path, const struct statx& attributes);

/// Appends the record of the object at `path`; describes a symlink itself. Appends nothing if the
/// array is null, the path is empty or has a NUL byte, or statx(2) fails.
void addFileSystemObjectInfoDictionaryToArray(Array* array, std::string_view path);

/// Returns the type string for an st_mode ("NSFileTypeRegular", ...).
[[nodiscard]] std::string_view fileTypeName(unsigned mode) noexcept;

}  // namespace corvalen
