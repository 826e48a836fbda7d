// SPDX-License-Identifier: MIT
#include "treewalk/propagated_acl.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <utility>

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

Result<> PropagatedAcl::read(ExtendedAcl& acl, Descriptor folder, std::uint32_t mode) {
    _permissionBits = mode & (S_IRWXU | S_IRWXG | S_IRWXO);
    const ObjectAddress address{folder, ""};
    const Result<ExternalAcl> list = acl.readList(address, AclKind::access);
    if (!list) return failure(list.error());
    Result<ExternalAcl> inheritable = acl.readList(address, AclKind::inheritable);
    if (!inheritable) return failure(inheritable.error());
    const Result<bool> inherited = acl.readInheritedMark(address);
    if (!inherited) return failure(inherited.error());
    _inheritable = *std::move(inheritable);
    _inherited = *inherited;
    if (list->empty()) return {};
    const BasePermissions base = BasePermissions::ofList(*list);
    _permissionBits = (_permissionBits & ~unsigned{S_IRWXG}) | base.group << kGroupShift;
    for (AclEntry entry : entriesOf(*list)) {
        if (!entry.isNamed()) continue;
        entry.permissions &= base.mask;
        _namedPermissions |= entry.permissions;
        _named.push_back(entry);
    }
    return {};
}

void PropagatedAcl::markAsInherited() noexcept {
    _inherited = exists();
}

Result<> PropagatedAcl::applyTo(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                                std::uint32_t taken) const {
    const Result<bool> touched = applyAccessList(acl, object, mode, taken);
    if (!touched) return failure(touched.error());
    if (S_ISDIR(mode)) {
        if (const Result<> applied = applyInheritableList(acl, object); !applied) return applied;
    } else if (!*touched) {
        return {};
    }
    const bool hasList = !_named.empty() || (S_ISDIR(mode) && !_inheritable.empty());
    return acl.setInheritedMark(object, _inherited && hasList);
}

Result<bool> PropagatedAcl::applyAccessList(ExtendedAcl& acl, const ObjectAddress& object,
                                            std::uint32_t mode, std::uint32_t taken) const {
    const Result<ExternalAcl> read = acl.readList(object, AclKind::access);
    if (!read) return failure(read.error());
    const ExternalAcl& old = *read;
    // Nothing to do if neither side has a list. A list to remove is replaced by its own three base
    // entries: removing it would leave its mask as the group's permissions.
    if (old.empty() && _named.empty()) return false;
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
    return acl.writeList(object, AclKind::access, externalAclOf(entries)).map([] { return true; });
}

Result<> PropagatedAcl::applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const {
    if (_inheritable.empty()) return acl.removeList(object, AclKind::inheritable);
    return acl.writeList(object, AclKind::inheritable, _inheritable);
}

}  // namespace corvalen
