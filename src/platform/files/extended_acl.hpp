// SPDX-License-Identifier: MIT
// Access control lists beyond the permission bits (acl(5)).
//
// The external form of a list is the kernel's attribute format (linux/posix_acl_xattr.h): a
// little-endian 32-bit version 2, then per entry a 16-bit tag, 16-bit permissions, a 32-bit id.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/files/object_address.hpp"

namespace corvalen {

/// The access list, and the default list of a directory, which new entries in it inherit.
enum class AclKind : std::uint8_t { access, inheritable };

using ExternalAcl = std::vector<std::uint8_t>;

/// Tags of acl(5), in the order of entries in a list.
namespace acl_tag {
inline constexpr unsigned kOwner = 0x01;
inline constexpr unsigned kNamedUser = 0x02;
inline constexpr unsigned kOwningGroup = 0x04;
inline constexpr unsigned kNamedGroup = 0x08;
inline constexpr unsigned kMask = 0x10;
inline constexpr unsigned kOthers = 0x20;
}  // namespace acl_tag

inline constexpr unsigned kAllAclPermissions = 7;
/// The id of unnamed entries.
inline constexpr std::uint32_t kNoAclId = 0xFFFFFFFF;

struct AclEntry {
    unsigned tag = 0;
    unsigned permissions = 0;
    std::uint32_t id = kNoAclId;

    [[nodiscard]] bool isNamed() const noexcept {
        return tag == acl_tag::kNamedUser || tag == acl_tag::kNamedGroup;
    }
};

/// Returns the complete entries of a list, in their order and unchecked.
[[nodiscard]] std::vector<AclEntry> entriesOf(const ExternalAcl& list);
[[nodiscard]] ExternalAcl externalAclOf(const std::vector<AclEntry>& entries);

/// Maximum number of entries: those that fit in an attribute of 64 KiB (XATTR_SIZE_MAX).
inline constexpr std::size_t kMaximumAclEntries = (65536 - 4) / 8;

/// Returns whether the bytes are a well-formed list: version 2, complete entries, known tags in
/// their order, one entry each for owner, owning group and others, at most one mask and exactly one
/// with named entries, ascending ids without repetition, permissions of three bits.
[[nodiscard]] bool isValidExternalAcl(std::string_view bytes) noexcept;

/// The lists that a client sends for one object: the access list and, for a directory, the default
/// list. Each is in external form with its own version.
struct ExternalAclPair {
    ExternalAcl access;
    ExternalAcl inheritable;  // empty if not sent
};

/// Splits the bytes of one or two lists; the entry for others ends the first. Returns std::nullopt
/// unless both are well-formed.
[[nodiscard]] std::optional<ExternalAclPair> splitExternalAcl(std::string_view bytes);

/// Reads and changes lists. Any thread may call.
class ExtendedAcl {
  public:
    virtual ~ExtendedAcl() = default;

    /// Reads the list of `object`; empty if it only repeats the mode, does not exist or is not
    /// supported by the file system.
    [[nodiscard]] virtual Result<ExternalAcl> readList(const ObjectAddress& object,
                                                       AclKind kind) = 0;
    /// Replaces the list; the kernel adapts the permission bits. EINVAL if the list is not
    /// well-formed.
    [[nodiscard]] virtual Result<> writeList(const ObjectAddress& object, AclKind kind,
                                             const ExternalAcl& list) = 0;
    /// Removes the list; the permission bits stay. Succeeds without a list.
    [[nodiscard]] virtual Result<> removeList(const ObjectAddress& object, AclKind kind) = 0;

    /// Reads whether the list was inherited from a directory above. An attribute of the "trusted"
    /// name space stores it, since the kernel's list format cannot.
    [[nodiscard]] virtual Result<bool> readInheritedMark(const ObjectAddress& object) = 0;
    /// Succeeds without storing the mark if the file system has no such attributes.
    [[nodiscard]] virtual Result<> setInheritedMark(const ObjectAddress& object,
                                                    bool inherited) = 0;
};

[[nodiscard]] std::unique_ptr<ExtendedAcl> makeExtendedAcl();

}  // namespace corvalen
