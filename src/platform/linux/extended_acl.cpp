// SPDX-License-Identifier: MIT
#include "platform/extended_acl.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "platform/linux/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr std::size_t kHeaderLength = 4;
constexpr std::size_t kEntryLength = 8;
constexpr std::size_t kEntriesOfMode = 3;
constexpr std::uint32_t kVersion = 2;
constexpr unsigned kPermissionBits = 7;
constexpr std::uint32_t kNoId = 0xFFFFFFFF;

constexpr const char* kInheritedAttribute = "trusted.net.corvalen.acl-inherited";

// Tags of acl(5), in the order in which they stand in a list.
constexpr unsigned kOwner = 0x01;
constexpr unsigned kNamedUser = 0x02;
constexpr unsigned kOwningGroup = 0x04;
constexpr unsigned kNamedGroup = 0x08;
constexpr unsigned kMask = 0x10;
constexpr unsigned kOthers = 0x20;

struct Entry {
    unsigned tag;
    unsigned permissions;
    std::uint32_t id;
};

unsigned byteAt(std::string_view bytes, std::size_t offset) noexcept {
    return static_cast<unsigned char>(bytes[offset]);
}

std::uint32_t littleEndian32(std::string_view bytes, std::size_t offset) noexcept {
    return byteAt(bytes, offset) | byteAt(bytes, offset + 1) << 8 |
           byteAt(bytes, offset + 2) << 16 | byteAt(bytes, offset + 3) << 24;
}

Entry entryAt(std::string_view bytes, std::size_t offset) noexcept {
    return {byteAt(bytes, offset) | byteAt(bytes, offset + 1) << 8,
            byteAt(bytes, offset + 2) | byteAt(bytes, offset + 3) << 8,
            littleEndian32(bytes, offset + 4)};
}

bool isNamed(unsigned tag) noexcept {
    return tag == kNamedUser || tag == kNamedGroup;
}

bool isKnown(unsigned tag) noexcept {
    return isNamed(tag) || tag == kOwner || tag == kOwningGroup || tag == kMask || tag == kOthers;
}

/// Tags ascend; only named entries repeat, and then with ascending ids. The id of the others is
/// not looked at, since the kernel does not look at it either.
bool mayFollow(const Entry& next, const Entry& last) noexcept {
    if (next.tag != last.tag) return next.tag > last.tag;
    return isNamed(next.tag) && next.id > last.id;
}

const char* attributeOf(AclKind kind) noexcept {
    return kind == AclKind::access ? "system.posix_acl_access" : "system.posix_acl_default";
}

std::string_view viewOf(const ExternalAcl& list) noexcept {
    return {reinterpret_cast<const char*>(list.data()), list.size()};
}

bool meansNone(int error) noexcept {
    return error == ENODATA || error == EOPNOTSUPP;
}

class KernelExtendedAcl : public ExtendedAcl {
  public:
    int readList(const ObjectAddress& object, AclKind kind, ExternalAcl* list) override {
        list->clear();
        const int error = getAttribute(object, attributeOf(kind), list);
        if (error != 0) {
            list->clear();
            return meansNone(error) ? 0 : error;
        }
        const bool onlyMode = list->size() <= kHeaderLength + kEntriesOfMode * kEntryLength;
        if (kind == AclKind::access && onlyMode) list->clear();
        return 0;
    }

    int writeList(const ObjectAddress& object, AclKind kind, const ExternalAcl& list) override {
        if (!isValidExternalAcl(viewOf(list))) return EINVAL;
        return setAttribute(object, attributeOf(kind), viewOf(list));
    }

    int removeList(const ObjectAddress& object, AclKind kind) override {
        const int error = removeAttribute(object, attributeOf(kind));
        return meansNone(error) ? 0 : error;
    }

    int readInheritedMark(const ObjectAddress& object, bool* inherited) override {
        ExternalAcl value;
        const int error = getAttribute(object, kInheritedAttribute, &value);
        *inherited = error == 0;
        return meansNone(error) ? 0 : error;
    }

    int setInheritedMark(const ObjectAddress& object, bool inherited) override {
        const int error = inherited ? setAttribute(object, kInheritedAttribute, "1")
                                    : removeAttribute(object, kInheritedAttribute);
        return meansNone(error) ? 0 : error;
    }
};

}  // namespace

bool isValidExternalAcl(std::string_view bytes) noexcept {
    if (bytes.size() < kHeaderLength + kEntriesOfMode * kEntryLength) return false;
    if ((bytes.size() - kHeaderLength) % kEntryLength != 0) return false;
    if ((bytes.size() - kHeaderLength) / kEntryLength > kMaximumAclEntries) return false;
    if (littleEndian32(bytes, 0) != kVersion) return false;
    unsigned seen = 0;
    Entry last{0, 0, 0};
    for (std::size_t offset = kHeaderLength; offset < bytes.size(); offset += kEntryLength) {
        const Entry entry = entryAt(bytes, offset);
        if (!isKnown(entry.tag) || entry.permissions > kPermissionBits) return false;
        if (isNamed(entry.tag) && entry.id == kNoId) return false;
        if (!mayFollow(entry, last)) return false;
        seen |= entry.tag;
        last = entry;
    }
    const unsigned always = kOwner | kOwningGroup | kOthers;
    const bool named = (seen & (kNamedUser | kNamedGroup)) != 0;
    return (seen & always) == always && (!named || (seen & kMask) != 0);
}

std::unique_ptr<ExtendedAcl> makeExtendedAcl() {
    return std::make_unique<KernelExtendedAcl>();
}

}  // namespace corvalen
