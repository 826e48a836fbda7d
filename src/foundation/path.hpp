// SPDX-License-Identifier: MIT
// Paths as bytes. Nothing here assumes a text encoding.
#pragma once

#include <string>
#include <string_view>

namespace corvalen {

/// `base` and `component` with exactly one slash between them; an empty side adds none. Trailing
/// slashes of the result are dropped (but "/" stays).
[[nodiscard]] std::string appendPathComponent(std::string_view base, std::string_view component);

/// The last component, trailing slashes aside; "/" for a path of slashes only, empty for an empty
/// path. Borrows from `path`.
[[nodiscard]] std::string_view lastPathComponent(std::string_view path) noexcept;

/// All but the last component: "/a" for "/a/b", "/" for "/a", empty for "a".
[[nodiscard]] std::string deleteLastPathComponent(std::string_view path);

/// What follows the last dot of the last component; empty without a dot, and when the only dot
/// begins the component (".profile") or ends it ("a."). Borrows from `path`.
[[nodiscard]] std::string_view pathExtension(std::string_view path) noexcept;

/// `path` less trailing slashes, a dot, and `extension`.
[[nodiscard]] std::string appendPathExtension(std::string_view path, std::string_view extension);

/// The path with every symbolic link, "." and ".." resolved, as far as it exists; what follows the
/// first missing component is kept as it stands. A relative path stays relative when nothing of it
/// can be resolved. When links form a loop the path comes back unchanged.
[[nodiscard]] std::string resolveSymlinksInPath(std::string_view path);

}  // namespace corvalen
