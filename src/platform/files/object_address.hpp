// SPDX-License-Identifier: MIT
// The address of a file system object: an open directory and a name in it, as the "at" system calls
// take them.
#pragma once

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Borrows everything. With an open `parent`, `name` is one component, so that nobody can change
/// the path between. With kWorkingDirectory it is a path. If it is empty, the object is the one
/// that `parent` is open at, possibly with O_PATH (open(2)).
struct ObjectAddress {
    Descriptor parent = kWorkingDirectory;
    const char* name = "";
    /// Use the target of a symlink instead of the link.
    bool followLink = false;
};

/// Opens the object with O_PATH, which has no side effects, or duplicates `parent` if the name is
/// empty: the descriptor fixes the object's identity.
[[nodiscard]] Result<UniqueFd> openAnchor(const ObjectAddress& object) noexcept;

/// The path below /proc/self/fd for system calls without a descriptor form. It leads to the open
/// object, O_PATH included, and nowhere else. c_str() is valid while this exists.
class DescriptorPath {
  public:
    explicit DescriptorPath(Descriptor descriptor) noexcept;
    [[nodiscard]] const char* c_str() const noexcept { return _text; }

  private:
    char _text[32];
};

}  // namespace corvalen
