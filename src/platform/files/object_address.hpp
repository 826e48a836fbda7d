// SPDX-License-Identifier: MIT
// The address of a file system object: an open directory and a name in it, as the "at" system calls
// take them. Changes of owner and mode, and creation, at an address.
#pragma once

#include <sys/types.h>

#include <string>

#include "corvalen/descriptor.hpp"
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

// Owners and modes of objects, for every operation that changes them. Follow no links, and open
// nothing for reading or writing, so devices and pipes see no effect. Any thread may call.

/// The bits of a mode that chmod(2) sets.
inline constexpr mode_t kPermissionBits = 07777;
/// Objects that only their owner, root, may use.
inline constexpr mode_t kPrivateFileMode = 0600;
inline constexpr mode_t kPrivateFolderMode = 0700;

/// Leaves an owner or group unchanged.
inline constexpr unsigned kUnchangedID = 0xFFFFFFFF;

/// Changes owner and group, a link's own.
[[nodiscard]] Result<> changeOwner(const ObjectAddress& object, uid_t owner, gid_t group) noexcept;

/// Returns whether a file has capabilities (capabilities(7)), which the kernel silently removes
/// when owner or group change. False also if they cannot be read.
[[nodiscard]] bool hasFileCapabilities(const ObjectAddress& file);

/// Changes the permission bits; does nothing for a named link, which has none.
[[nodiscard]] Result<> changeMode(const ObjectAddress& object, mode_t mode) noexcept;

// Creation of files and directories in directories that another user may control.
// On failure nothing is left behind unless stated. The address has an open parent. Any thread may
// call.

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
