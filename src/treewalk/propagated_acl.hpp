// SPDX-License-Identifier: MIT
// The access control list that a folder hands on to the objects below it.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/extended_acl.hpp"

namespace corvalen {

/// What a list grants beyond owner, owning group and others: its named entries. An object that gets
/// them keeps its own permissions for the other three, as these belong to its mode; its mask
/// becomes the union of what the named entries and the owning group have, so that nobody gains or
/// loses more than the list says. For the same reason the named entries are cut to the mask of the
/// list they come from, and the owning group's entry of an object to its old mask. Directories also
/// get the default list, as it stands.
class PropagatedAcl {
  public:
    /// Reads the list of an open directory with this mode. 0 or an errno.
    int read(ExtendedAcl& acl, int folder, std::uint32_t mode);
    /// The directory's permission bits: with a list its group bits are the mask, and here what the
    /// owning group has.
    [[nodiscard]] std::uint32_t permissionBits() const noexcept { return _permissionBits; }
    /// Whether objects get a list, so that their group bits become a mask.
    [[nodiscard]] bool hasNamedEntries() const noexcept { return !_named.empty(); }
    /// The copies count as inherited, not the folder's own list. Nothing without a list.
    void markAsInherited() noexcept;

    /// Gives the list to an object of this mode, or removes the object's list when there is none.
    /// With `hasNamedEntries`, the group bits in `taken` come from the directory. 0 or an errno.
    int applyTo(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                std::uint32_t taken) const;

  private:
    int applyAccessList(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                        std::uint32_t taken, bool* touched) const;
    int applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const;
    [[nodiscard]] bool exists() const noexcept { return !_named.empty() || !_inheritable.empty(); }

    std::vector<AclEntry> _named;
    unsigned _namedPermissions = 0;
    std::uint32_t _permissionBits = 0;
    ExternalAcl _inheritable;
    bool _inherited = false;
};

}  // namespace corvalen
