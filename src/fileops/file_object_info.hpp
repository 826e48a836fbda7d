// SPDX-License-Identifier: MIT
// The record that describes one object to the client.
#pragma once

#include <string>
#include <string_view>

#include "corvalen/value.hpp"

struct statx;

namespace corvalen {

/// The fields of statx(2) that a record needs.
[[nodiscard]] unsigned fileObjectInfoStatxMask() noexcept;

/// The record of the object at `path` from what statx(2) told of the object itself: "Path", "Type",
/// "Size", "ModificationDate", "Mode".
[[nodiscard]] Dictionary makeFileObjectInfo(std::string path, const struct statx& attributes);

/// Appends the record of the object at `path` (a link is described itself); does nothing when
/// there is no array, the path is empty, or the object cannot be examined.
void addFileSystemObjectInfoDictionaryToArray(Array* array, std::string_view path);

/// The type string of an object of this mode ("NSFileTypeRegular", ...).
[[nodiscard]] std::string_view fileTypeName(unsigned mode) noexcept;

}  // namespace corvalen
