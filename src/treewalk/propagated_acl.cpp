// SPDX-License-Identifier: MIT
#include "treewalk/propagated_acl.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>

namespace corvalen {
namespace {

constexpr unsigned kGroupShift = 3;

/// Permissions of a list apart from its named entries. The owning group's are cut to the mask.
struct BasePermissions {
    unsigned owner = 0;
    unsigned group = 0;
    unsigned others = 0;
    unsigned mask = kAllAclPermissions;

    static BasePermissions ofMode(std::uint32_t mode) noexcept {
        return {mode >> 6U & kAllAclPermissions, mode >> kGroupShift & kAllAclPermissions,
                mode & kAllAclPermissions};
    }
    static BasePermissions ofList(const ExternalAcl& list) {
        BasePermissions base;
        for (const AclEntry& entry : entriesOf(list)) {
            if (entry.tag == acl_tag::kOwner) base.owner = entry.permissions;
            if (entry.tag == acl_tag::kOwningGroup) base.group = entry.permissions;
            if (entry.tag == acl_tag::kMask) base.mask = entry.permissions;
            if (entry.tag == acl_tag::kOthers) base.others = entry.permissions;
        }
        base.group &= base.mask;
        return base;
    }
};

}  // namespace

int PropagatedAcl::read(ExtendedAcl& acl, int folder, std::uint32_t mode) {
    _permissionBits = mode & (S_IRWXU | S_IRWXG | S_IRWXO);
    const ObjectAddress address{folder, ""};
    ExternalAcl list;
    int error = acl.readList(address, AclKind::access, &list);
    if (error == 0) error = acl.readList(address, AclKind::inheritable, &_inheritable);
    if (error == 0) error = acl.readInheritedMark(address, &_inherited);
    if (error != 0) return error;
    if (list.empty()) return 0;
    const BasePermissions base = BasePermissions::ofList(list);
    _permissionBits = (_permissionBits & ~unsigned{S_IRWXG}) | base.group << kGroupShift;
    for (AclEntry entry : entriesOf(list)) {
        if (!entry.isNamed()) continue;
        entry.permissions &= base.mask;
        _namedPermissions |= entry.permissions;
        _named.push_back(entry);
    }
    return 0;
}

void PropagatedAcl::markAsInherited() noexcept {
    _inherited = exists();
}

int PropagatedAcl::applyTo(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                           std::uint32_t taken) const {
    bool touched = false;
    int error = applyAccessList(acl, object, mode, taken, &touched);
    if (error == 0 && S_ISDIR(mode)) {
        touched = true;
        error = applyInheritableList(acl, object);
    }
    if (error != 0 || !touched) return error;
    const bool hasList = !_named.empty() || (S_ISDIR(mode) && !_inheritable.empty());
    return acl.setInheritedMark(object, _inherited && hasList);
}

int PropagatedAcl::applyAccessList(ExtendedAcl& acl, const ObjectAddress& object,
                                   std::uint32_t mode, std::uint32_t taken, bool* touched) const {
    ExternalAcl old;
    if (const int error = acl.readList(object, AclKind::access, &old)) return error;
    // Nothing to do if neither side has a list. A list to remove is replaced by its own three base
    // entries: removing it would leave its mask as the group's permissions.
    *touched = !old.empty() || !_named.empty();
    if (!*touched) return 0;
    BasePermissions base =
        old.empty() ? BasePermissions::ofMode(mode) : BasePermissions::ofList(old);
    if (!_named.empty()) {
        const unsigned group = (taken & S_IRWXG) >> kGroupShift;
        base.group = (base.group & ~group) | (_permissionBits >> kGroupShift & group);
    }
    std::vector<AclEntry> entries{{acl_tag::kOwner, base.owner}};
    const auto appendNamed = [&](unsigned tag) {
        std::copy_if(_named.begin(), _named.end(), std::back_inserter(entries),
                     [tag](const AclEntry& entry) { return entry.tag == tag; });
    };
    appendNamed(acl_tag::kNamedUser);
    entries.push_back({acl_tag::kOwningGroup, base.group});
    appendNamed(acl_tag::kNamedGroup);
    if (!_named.empty()) entries.push_back({acl_tag::kMask, base.group | _namedPermissions});
    entries.push_back({acl_tag::kOthers, base.others});
    return acl.writeList(object, AclKind::access, externalAclOf(entries));
}

int PropagatedAcl::applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const {
    if (_inheritable.empty()) return acl.removeList(object, AclKind::inheritable);
    return acl.writeList(object, AclKind::inheritable, _inheritable);
}

}  // namespace corvalen
