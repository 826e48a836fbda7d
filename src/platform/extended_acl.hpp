// SPDX-License-Identifier: MIT
// Access control lists beyond the permission bits (acl(5)).
//
// The external form of a list is the kernel's own attribute format (linux/posix_acl_xattr.h): a
// little-endian 32-bit version 2, then per entry a 16-bit tag, 16-bit permissions, a 32-bit id.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/object_address.hpp"

namespace corvalen {

/// The list that rules access, and the one that a folder hands down to what is made in it.
enum class AclKind : std::uint8_t { access, inheritable };

using ExternalAcl = std::vector<std::uint8_t>;

/// Tags of acl(5), in the order in which they stand in a list.
namespace acl_tag {
inline constexpr unsigned kOwner = 0x01;
inline constexpr unsigned kNamedUser = 0x02;
inline constexpr unsigned kOwningGroup = 0x04;
inline constexpr unsigned kNamedGroup = 0x08;
inline constexpr unsigned kMask = 0x10;
inline constexpr unsigned kOthers = 0x20;
}  // namespace acl_tag

inline constexpr unsigned kAllAclPermissions = 7;
/// The id of every entry that is not named.
inline constexpr std::uint32_t kNoAclId = 0xFFFFFFFF;

struct AclEntry {
    unsigned tag = 0;
    unsigned permissions = 0;
    std::uint32_t id = kNoAclId;

    [[nodiscard]] bool isNamed() const noexcept {
        return tag == acl_tag::kNamedUser || tag == acl_tag::kNamedGroup;
    }
};

/// The whole entries of a list, as they stand; none for an empty one.
[[nodiscard]] std::vector<AclEntry> entriesOf(const ExternalAcl& list);
[[nodiscard]] ExternalAcl externalAclOf(const std::vector<AclEntry>& entries);

/// At most so many entries: what fits in an attribute of 64 KiB.
inline constexpr std::size_t kMaximumAclEntries = (65536 - 4) / 8;

/// Whether the bytes are a well-formed list: version 2, whole entries, known tags in their order,
/// one owner, owning group and others entry each, at most one mask and exactly one where there are
/// named entries, ascending ids without repetition, permissions of three bits.
[[nodiscard]] bool isValidExternalAcl(std::string_view bytes) noexcept;

/// What a client sends for one object: the access list, and behind it, for a directory, the list
/// that it hands down to what is made in it. Each is a list in external form with its own version.
struct ExternalAclPair {
    ExternalAcl access;
    ExternalAcl inheritable;  // empty when there is none
};

/// Empty unless the bytes are one or two well-formed lists. The entry of the others ends a list.
[[nodiscard]] std::optional<ExternalAclPair> splitExternalAcl(std::string_view bytes);

/// Reads and changes lists. Each function gives 0 or an errno. Any thread may call.
class ExtendedAcl {
  public:
    virtual ~ExtendedAcl() = default;

    /// The list of `object`; empty when it says no more than the mode, when there is none, and
    /// where the file system keeps none.
    virtual int readList(const ObjectAddress& object, AclKind kind, ExternalAcl* list) = 0;
    /// Replaces the list; the kernel adapts the permission bits to it. EINVAL for bytes that are
    /// no well-formed list.
    virtual int writeList(const ObjectAddress& object, AclKind kind, const ExternalAcl& list) = 0;
    /// Removes the list; the permission bits stay. An object without one is no failure.
    virtual int removeList(const ObjectAddress& object, AclKind kind) = 0;

    /// Whether the object's list came from a folder above. The kernel's list has no place for it:
    /// an attribute of the trusted name space beside the list keeps it.
    virtual int readInheritedMark(const ObjectAddress& object, bool* inherited) = 0;
    /// Where the file system keeps no such attributes the mark is lost without a failure.
    virtual int setInheritedMark(const ObjectAddress& object, bool inherited) = 0;
};

[[nodiscard]] std::unique_ptr<ExtendedAcl> makeExtendedAcl();

}  // namespace corvalen
