// SPDX-License-Identifier: MIT
// Functions on paths as bytes; they assume no text encoding.
#pragma once

#include <string>
#include <string_view>

namespace corvalen {

/// Joins `base` and `component` with exactly one slash; an empty side adds none. Drops trailing
/// slashes of the result, except for "/".
[[nodiscard]] std::string appendPathComponent(std::string_view base, std::string_view component);

/// The last component without trailing slashes; "/" if the path has only slashes, empty if it is
/// empty. Borrows from `path`.
[[nodiscard]] std::string_view lastPathComponent(std::string_view path) noexcept;

/// All but the last component: "/a" for "/a/b", "/" for "/a", empty for "a".
[[nodiscard]] std::string deleteLastPathComponent(std::string_view path);

/// The text after the last dot of the last component. Empty if there is no dot, and for ".profile"
/// and "a.". Borrows from `path`.
[[nodiscard]] std::string_view pathExtension(std::string_view path) noexcept;

/// `path` without trailing slashes, a dot, and `extension`.
[[nodiscard]] std::string appendPathExtension(std::string_view path, std::string_view extension);

/// Resolves symlinks, "." and ".." with realpath(3) as far as the path exists, and appends the rest
/// unchanged. Returns `path` itself if no part of it resolves, or if realpath(3) fails otherwise
/// (symlink loop).
[[nodiscard]] std::string resolveSymlinksInPath(std::string_view path);

}  // namespace corvalen
