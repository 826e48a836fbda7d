// SPDX-License-Identifier: MIT
#include "treewalk/propagated_acl.hpp"

#include <sys/stat.h>

#include <cstddef>

namespace corvalen {
namespace {

// The external form, see platform/extended_acl.hpp; tags of acl(5) in the order of a list.
constexpr std::uint8_t kVersion = 2;
constexpr std::size_t kHeaderLength = 4;
constexpr std::size_t kEntryLength = 8;
constexpr unsigned kOwner = 0x01;
constexpr unsigned kNamedUser = 0x02;
constexpr unsigned kOwningGroup = 0x04;
constexpr unsigned kNamedGroup = 0x08;
constexpr unsigned kMask = 0x10;
constexpr unsigned kOthers = 0x20;
constexpr unsigned kAllPermissions = 7;
constexpr std::size_t kPermissionsOffset = 2;

unsigned tagAt(const ExternalAcl& list, std::size_t entry) {
    return list[entry] | static_cast<unsigned>(list[entry + 1]) << 8U;
}

/// What a list grants outside its named entries.
struct BasePermissions {
    unsigned owner = 0;
    unsigned group = 0;
    unsigned others = 0;
    unsigned mask = kAllPermissions;

    static BasePermissions ofMode(std::uint32_t mode) noexcept {
        return {mode >> 6U & kAllPermissions, mode >> 3U & kAllPermissions, mode & kAllPermissions};
    }
    static BasePermissions ofList(const ExternalAcl& list) {
        BasePermissions base;
        for (std::size_t entry = kHeaderLength; entry + kEntryLength <= list.size();
             entry += kEntryLength) {
            const unsigned permissions = list[entry + kPermissionsOffset] & kAllPermissions;
            switch (tagAt(list, entry)) {
                case kOwner:
                    base.owner = permissions;
                    break;
                case kOwningGroup:
                    base.group = permissions;
                    break;
                case kMask:
                    base.mask = permissions;
                    break;
                case kOthers:
                    base.others = permissions;
                    break;
                default:
                    break;
            }
        }
        return base;
    }
};

void appendEntry(ExternalAcl* list, unsigned tag, unsigned permissions) {
    constexpr std::uint8_t kNoId = 0xFF;
    const auto byte = [](unsigned value) { return static_cast<std::uint8_t>(value); };
    list->insert(list->end(), {byte(tag), 0, byte(permissions), 0, kNoId, kNoId, kNoId, kNoId});
}

void appendNamed(ExternalAcl* list, const ExternalAcl& named, unsigned tag) {
    for (std::size_t entry = 0; entry < named.size(); entry += kEntryLength) {
        if (tagAt(named, entry) != tag) continue;
        const auto begin = named.begin() + static_cast<std::ptrdiff_t>(entry);
        list->insert(list->end(), begin, begin + kEntryLength);
    }
}

}  // namespace

int PropagatedAcl::read(ExtendedAcl& acl, int folder) {
    const ObjectAddress address{folder, ""};
    ExternalAcl list;
    int error = acl.readList(address, AclKind::access, &list);
    if (error == 0) error = acl.readList(address, AclKind::inheritable, &_inheritable);
    if (error == 0) error = acl.readInheritedMark(address, &_inherited);
    if (error != 0) return error;
    const unsigned mask = BasePermissions::ofList(list).mask;
    for (std::size_t entry = kHeaderLength; entry + kEntryLength <= list.size();
         entry += kEntryLength) {
        const unsigned tag = tagAt(list, entry);
        if (tag != kNamedUser && tag != kNamedGroup) continue;
        const auto begin = list.begin() + static_cast<std::ptrdiff_t>(entry);
        _named.insert(_named.end(), begin, begin + kEntryLength);
        std::uint8_t& permissions = _named[_named.size() - kEntryLength + kPermissionsOffset];
        permissions = static_cast<std::uint8_t>(permissions & mask);
        _namedPermissions |= permissions;
    }
    return 0;
}

void PropagatedAcl::markAsInherited() noexcept {
    _inherited = exists();
}

int PropagatedAcl::applyTo(ExtendedAcl& acl, const ObjectAddress& object,
                           std::uint32_t mode) const {
    bool touched = false;
    int error = applyAccessList(acl, object, mode, &touched);
    if (error == 0 && S_ISDIR(mode)) {
        touched = true;
        error = applyInheritableList(acl, object);
    }
    if (error != 0 || !touched) return error;
    const bool hasList = !_named.empty() || (S_ISDIR(mode) && !_inheritable.empty());
    return acl.setInheritedMark(object, _inherited && hasList);
}

int PropagatedAcl::applyAccessList(ExtendedAcl& acl, const ObjectAddress& object,
                                   std::uint32_t mode, bool* touched) const {
    ExternalAcl old;
    if (const int error = acl.readList(object, AclKind::access, &old)) return error;
    // Without a list on either side there is nothing to change. One that goes is replaced by its
    // own three entries: removed, it would leave its mask behind as the group's permissions.
    *touched = !old.empty() || !_named.empty();
    if (!*touched) return 0;
    const BasePermissions base =
        old.empty() ? BasePermissions::ofMode(mode) : BasePermissions::ofList(old);
    ExternalAcl list{kVersion, 0, 0, 0};
    appendEntry(&list, kOwner, base.owner);
    appendNamed(&list, _named, kNamedUser);
    appendEntry(&list, kOwningGroup, base.group);
    appendNamed(&list, _named, kNamedGroup);
    if (!_named.empty()) appendEntry(&list, kMask, base.group | _namedPermissions);
    appendEntry(&list, kOthers, base.others);
    return acl.writeList(object, AclKind::access, list);
}

int PropagatedAcl::applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const {
    if (_inheritable.empty()) return acl.removeList(object, AclKind::inheritable);
    return acl.writeList(object, AclKind::inheritable, _inheritable);
}

}  // namespace corvalen
