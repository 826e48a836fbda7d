// SPDX-License-Identifier: MIT
// How one file system object is named to the kernel: an open folder and one name in it.
#pragma once

#include <fcntl.h>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Borrows everything. With an open `parent` the name is one component, so that nobody can change
/// what lies between; with AT_FDCWD it is a path. An empty name means the object that `parent` is
/// open at, which may be an O_PATH descriptor (open(2)).
struct ObjectAddress {
    int parent = AT_FDCWD;
    const char* name = "";
    /// Act on the target of a symbolic link instead of on the link.
    bool followLink = false;
};

/// Opens the object without side effects (O_PATH): an anchor that keeps its identity. Empty with
/// errno on failure.
[[nodiscard]] UniqueFd openAnchor(const ObjectAddress& object) noexcept;

/// The path under /proc by which calls without a descriptor form reach an open object, O_PATH
/// included; following it never leaves that object. Must outlive its use as a C string.
class DescriptorPath {
  public:
    explicit DescriptorPath(int descriptor) noexcept;
    [[nodiscard]] const char* c_str() const noexcept { return _text; }

  private:
    char _text[32];
};

}  // namespace corvalen
