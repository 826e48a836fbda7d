// SPDX-License-Identifier: MIT
// The access control list that a directory hands on to the objects below it.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/files/extended_acl.hpp"

namespace corvalen {

/// The named entries of a directory's list. An object that gets them keeps its own entries for
/// owner, owning group and others, which belong to its mode. Its mask becomes the union of the
/// named entries and the owning group, so that nobody gains or loses more than the list says. For
/// the same reason the named entries are cut to the mask of the directory's list, and the object's
/// owning group to its old mask. Directories also get the default list unchanged.
class PropagatedAcl {
  public:
    /// Reads the lists of the open directory with this st_mode.
    [[nodiscard]] Result<> read(ExtendedAcl& acl, Descriptor folder, std::uint32_t mode);
    /// Returns the directory's permission bits, with the owning group's permissions as group bits
    /// even if a list puts its mask there.
    [[nodiscard]] std::uint32_t permissionBits() const noexcept { return _permissionBits; }
    /// Whether objects get a list, so that their group bits become a mask.
    [[nodiscard]] bool hasNamedEntries() const noexcept { return !_named.empty(); }
    /// Marks the copies as inherited, not the directory's own list. No effect without a list.
    void markAsInherited() noexcept;

    /// Writes the list to an object with this st_mode, or removes the object's list if there is
    /// none to hand on. With named entries, the group bits in `taken` come from the directory.
    [[nodiscard]] Result<> applyTo(ExtendedAcl& acl, const ObjectAddress& object,
                                   std::uint32_t mode, std::uint32_t taken) const;

  private:
    /// Returns whether there was a list to change.
    Result<bool> applyAccessList(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                                 std::uint32_t taken) const;
    Result<> applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const;
    [[nodiscard]] bool exists() const noexcept { return !_named.empty() || !_inheritable.empty(); }

    std::vector<AclEntry> _named;
    unsigned _namedPermissions = 0;
    std::uint32_t _permissionBits = 0;
    ExternalAcl _inheritable;
    bool _inherited = false;
};

}  // namespace corvalen
