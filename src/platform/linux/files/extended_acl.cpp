// SPDX-License-Identifier: MIT
#include "platform/files/extended_acl.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr std::size_t kHeaderLength = 4;
constexpr std::size_t kEntryLength = 8;
constexpr std::size_t kEntriesOfMode = 3;
constexpr std::uint32_t kVersion = 2;

constexpr const char* kInheritedAttribute = "trusted.net.corvalen.acl-inherited";

unsigned byteAt(std::string_view bytes, std::size_t offset) noexcept {
    return static_cast<unsigned char>(bytes[offset]);
}

std::uint32_t littleEndian32(std::string_view bytes, std::size_t offset) noexcept {
    return byteAt(bytes, offset) | byteAt(bytes, offset + 1) << 8 |
           byteAt(bytes, offset + 2) << 16 | byteAt(bytes, offset + 3) << 24;
}

AclEntry entryAt(std::string_view bytes, std::size_t offset) noexcept {
    return {byteAt(bytes, offset) | byteAt(bytes, offset + 1) << 8,
            byteAt(bytes, offset + 2) | byteAt(bytes, offset + 3) << 8,
            littleEndian32(bytes, offset + 4)};
}

void appendLittleEndian(ExternalAcl* bytes, std::uint32_t number, unsigned size) {
    for (unsigned i = 0; i < size; ++i)
        bytes->push_back(static_cast<std::uint8_t>(number >> (8 * i)));
}

bool isKnown(const AclEntry& entry) noexcept {
    using namespace acl_tag;
    return entry.isNamed() || entry.tag == kOwner || entry.tag == kOwningGroup ||
           entry.tag == kMask || entry.tag == kOthers;
}

/// Tags ascend; only named entries repeat, with ascending ids. The ids of other entries are
/// ignored, as by the kernel.
bool mayFollow(const AclEntry& next, const AclEntry& last) noexcept {
    if (next.tag != last.tag) return next.tag > last.tag;
    return next.isNamed() && next.id > last.id;
}

const char* attributeOf(AclKind kind) noexcept {
    return kind == AclKind::access ? kAccessListAttribute : kDefaultListAttribute;
}

std::string_view viewOf(const ExternalAcl& list) noexcept {
    return {reinterpret_cast<const char*>(list.data()), list.size()};
}

class KernelExtendedAcl : public ExtendedAcl {
  public:
    Result<ExternalAcl> readList(const ObjectAddress& object, AclKind kind) override {
        Result<ExternalAcl> list = getAttribute(object, attributeOf(kind));
        if (!list && meansNoList(list.error())) return ExternalAcl();
        if (!list) return list;
        const bool onlyMode = list->size() <= kHeaderLength + kEntriesOfMode * kEntryLength;
        if (kind == AclKind::access && onlyMode) list->clear();
        return list;
    }

    Result<> writeList(const ObjectAddress& object, AclKind kind,
                       const ExternalAcl& list) override {
        if (!isValidExternalAcl(viewOf(list))) return failure(EINVAL);
        return setAttribute(object, attributeOf(kind), viewOf(list));
    }

    Result<> removeList(const ObjectAddress& object, AclKind kind) override {
        return ignoring(meansNoList, removeAttribute(object, attributeOf(kind)));
    }

    Result<bool> readInheritedMark(const ObjectAddress& object) override {
        const Result<ExternalAcl> value = getAttribute(object, kInheritedAttribute);
        if (!value && !meansNoList(value.error())) return failure(value.error());
        return value.has_value();
    }

    Result<> setInheritedMark(const ObjectAddress& object, bool inherited) override {
        return ignoring(meansNoList, inherited ? setAttribute(object, kInheritedAttribute, "1")
                                               : removeAttribute(object, kInheritedAttribute));
    }
};

}  // namespace

bool isValidExternalAcl(std::string_view bytes) noexcept {
    if (bytes.size() < kHeaderLength + kEntriesOfMode * kEntryLength) return false;
    if ((bytes.size() - kHeaderLength) % kEntryLength != 0) return false;
    if ((bytes.size() - kHeaderLength) / kEntryLength > kMaximumAclEntries) return false;
    if (littleEndian32(bytes, 0) != kVersion) return false;
    using namespace acl_tag;
    unsigned seen = 0;
    AclEntry last;
    for (std::size_t at = kHeaderLength; at < bytes.size(); at += kEntryLength) {
        const AclEntry entry = entryAt(bytes, at);
        if (!isKnown(entry) || entry.permissions > kAllAclPermissions) return false;
        if (entry.isNamed() && entry.id == kNoAclId) return false;
        if (!mayFollow(entry, last)) return false;
        seen |= entry.tag;
        last = entry;
    }
    const unsigned always = kOwner | kOwningGroup | kOthers;
    const bool named = (seen & (kNamedUser | kNamedGroup)) != 0;
    return (seen & always) == always && (!named || (seen & kMask) != 0);
}

std::optional<ExternalAclPair> splitExternalAcl(std::string_view bytes) {
    std::size_t end = kHeaderLength;
    while (end + kEntryLength <= bytes.size()) {
        const AclEntry entry = entryAt(bytes, end);
        end += kEntryLength;
        if (entry.tag == acl_tag::kOthers) break;
    }
    const std::string_view access = bytes.substr(0, end);
    const std::string_view inheritable = bytes.substr(std::min(end, bytes.size()));
    if (!isValidExternalAcl(access)) return std::nullopt;
    if (!inheritable.empty() && !isValidExternalAcl(inheritable)) return std::nullopt;
    return ExternalAclPair{{access.begin(), access.end()},
                           {inheritable.begin(), inheritable.end()}};
}

std::vector<AclEntry> entriesOf(const ExternalAcl& list) {
    const std::string_view bytes = viewOf(list);
    std::vector<AclEntry> entries;
    if (bytes.size() > kHeaderLength)
        entries.reserve((bytes.size() - kHeaderLength) / kEntryLength);
    for (std::size_t at = kHeaderLength; at + kEntryLength <= bytes.size(); at += kEntryLength)
        entries.push_back(entryAt(bytes, at));
    return entries;
}

ExternalAcl externalAclOf(const std::vector<AclEntry>& entries) {
    ExternalAcl list;
    list.reserve(kHeaderLength + entries.size() * kEntryLength);
    appendLittleEndian(&list, kVersion, 4);
    for (const AclEntry& entry : entries) {
        appendLittleEndian(&list, entry.tag, 2);
        appendLittleEndian(&list, entry.permissions, 2);
        appendLittleEndian(&list, entry.id, 4);
    }
    return list;
}

std::unique_ptr<ExtendedAcl> makeExtendedAcl() {
    return std::make_unique<KernelExtendedAcl>();
}

}  // namespace corvalen
