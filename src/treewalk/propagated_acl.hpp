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
/// list they come from. Folders also get the default list, as it stands.
class PropagatedAcl {
  public:
    /// Reads the list of an open folder. 0 or an errno.
    int read(ExtendedAcl& acl, int folder);
    /// The copies count as inherited, not the folder's own list. Nothing without a list.
    void markAsInherited() noexcept;

    /// Gives the list to an object of this mode, or takes the object's list away when there is
    /// none. 0 or an errno.
    int applyTo(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode) const;

  private:
    int applyAccessList(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                        bool* touched) const;
    int applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const;
    [[nodiscard]] bool exists() const noexcept { return !_named.empty() || !_inheritable.empty(); }

    std::vector<AclEntry> _named;
    unsigned _namedPermissions = 0;
    ExternalAcl _inheritable;
    bool _inherited = false;
};

}  // namespace corvalen
