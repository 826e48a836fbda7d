// SPDX-License-Identifier: MIT
// Resolves a client's path to descriptors.
//
// A client's path is resolved once: to an entry (an open directory and one component in it, for
// creating, moving, linking and removing) or to an object (an O_PATH descriptor, for examining and
// changing). No later step uses the path.
//
// The kernel follows links on the way, magic links of /proc included. The last component:
//
//   operation                     resolves to     a link there             a magic link there
//   create-fileobject             entry           stays, refused           stays, refused
//   create-link (the new link)    entry           stays, refused           stays, refused
//   create-link (what it names)   entry           is linked itself         is linked itself
//   rename-fileobject (both)      entry           is moved / refused       is moved / refused
//   delete-fileobjects            entry           is removed itself        is removed itself
//   delete-files                  entry           is removed itself        is removed itself
//   modify-systemfile             entry behind    followed                 refused (ELOOP)
//   inspect-, touch-fileobject    object          followed                 followed by the kernel
//   modify-hfsattr, modify-acl    object          followed                 followed by the kernel
//   modify-protection             object          followed                 followed by the kernel
//   delete-foldercontents         object          followed                 followed by the kernel
//
// Searches, inspect-storagesize and prop-permissions resolve their directory with
// openSearchedFolder(), which follows links once; their walks enter no link.
//
// A path with a trailing slash must name a directory. Where links are not followed, such a path to
// a link fails with ENOTDIR.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "corvalen/descriptor.hpp"
#include "foundation/result.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {

/// A path as a client gave it: not empty, without a NUL byte.
class ClientPath {
  public:
    [[nodiscard]] static std::optional<ClientPath> from(std::string_view text);
    [[nodiscard]] const std::string& text() const noexcept { return _text; }

  private:
    explicit ClientPath(std::string_view text) : _text(text) {}
    std::string _text;
};

class Entry;

/// One component of a path: not empty, without a slash or a NUL byte. "." and ".." are components.
class Component {
  public:
    [[nodiscard]] static std::optional<Component> from(std::string_view text);
    [[nodiscard]] const char* c_str() const noexcept { return _text.c_str(); }
    [[nodiscard]] const std::string& text() const noexcept { return _text; }
    [[nodiscard]] bool isDotOrDotDot() const noexcept { return _text == "." || _text == ".."; }

  private:
    friend class Entry;
    friend Result<Entry> openEntryAt(Descriptor base, std::string_view path);
    explicit Component(std::string_view text) : _text(text) {}
    std::string _text;
};

/// An open object (owned; O_PATH unless stated) and the result of statx(2) when it was opened:
/// type, mode, owner, inode, birth time, mount, attributes.
struct Object {
    UniqueFd descriptor;
    struct statx status {};

    [[nodiscard]] ObjectAddress address() const noexcept { return {descriptor}; }
    [[nodiscard]] bool isDirectory() const noexcept { return S_ISDIR(status.stx_mode); }
    [[nodiscard]] bool isLink() const noexcept { return S_ISLNK(status.stx_mode); }
};

/// An open directory (owned; O_PATH) and one component in it, which need not exist.
class Entry {
  public:
    [[nodiscard]] Descriptor parent() const noexcept { return _parent; }
    [[nodiscard]] const Component& name() const noexcept { return _name; }
    /// True if the path ended with a slash.
    [[nodiscard]] bool mustBeDirectory() const noexcept { return _mustBeDirectory; }
    /// EBUSY for "/" and EINVAL for "." and "..", which rm(1) refuses too.
    [[nodiscard]] Result<> checkRemovable() const noexcept {
        if (_isRoot) return failure(EBUSY);
        if (_name.isDotOrDotDot()) return failure(EINVAL);
        return {};
    }
    /// Borrows from the entry; follows no link.
    [[nodiscard]] ObjectAddress address() const noexcept { return {_parent, _name.c_str()}; }
    /// Returns the path as the kernel shows it now, for messages; `otherwise` if it shows none.
    [[nodiscard]] std::string shownPath(std::string_view otherwise) const;

  private:
    friend Result<Entry> openEntryAt(Descriptor base, std::string_view path);
    Entry(UniqueFd parent, Component name) noexcept
        : _parent(std::move(parent)), _name(std::move(name)) {}

    UniqueFd _parent;
    Component _name;
    bool _mustBeDirectory = false;
    bool _isRoot = false;
};

/// An open object and the entry that holds it.
struct LocatedObject {
    Entry entry;
    Object object;
};

/// Any thread may call these functions.

/// Opens the directory that holds the last component of `path`. ENOENT and ENOTDIR concern that
/// directory; the component itself is not examined.
[[nodiscard]] Result<Entry> openEntry(const ClientPath& path);
/// The same for a path relative to the open directory `base`.
[[nodiscard]] Result<Entry> openEntryAt(Descriptor base, std::string_view path);
/// Follows links in the last component, one by one, to the entry that holds the object, and opens
/// that object. ELOOP after 40 links and for a magic link, whose text is not a path.
[[nodiscard]] Result<LocatedObject> openEntryBehindLinks(const ClientPath& path);

/// Opens the object at the path; the kernel follows all links.
[[nodiscard]] Result<Object> openObject(const ClientPath& path);
/// Opens the object at the address.
[[nodiscard]] Result<Object> openObject(const ObjectAddress& address);
/// Returns whether an error of openEntry() or openObject() means that nothing exists at the path.
/// Other errors leave that open.
[[nodiscard]] bool meansMissing(SystemError error) noexcept;
template <class T>
[[nodiscard]] bool meansMissing(const Result<T>& result) noexcept {
    return !result && meansMissing(result.error());
}
/// ENOTDIR if the entry must be a directory and `object`, opened there, is not.
[[nodiscard]] Result<> checkType(const Entry& entry, const Object& object) noexcept;

/// Opens an open directory, O_PATH included, again for reading, with its own position.
[[nodiscard]] Result<UniqueFd> openForListing(Descriptor directory) noexcept;
/// Opens the directory `name`, one component, for reading. EXDEV if something is mounted on it,
/// ELOOP or ENOTDIR for a link.
[[nodiscard]] Result<UniqueFd> openOnSameMount(Descriptor parent, const char* name) noexcept;
/// Opens a directory for reading by a path that was resolved before. A link in the path was put
/// there since and is refused; before Linux 5.6 only in the last component.
[[nodiscard]] Result<UniqueFd> openResolvedDirectory(const char* path) noexcept;

/// Returns the mask of the statx(2) fields in Object::status, from which identities are made.
[[nodiscard]] unsigned objectStatxMask() noexcept;
/// Unique while the object exists. Inode numbers are reused, so the birth time counts; a bind mount
/// has the device of its file system, so the mount counts.
struct ObjectIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t birthSeconds = 0;
    std::uint32_t birthNanoseconds = 0;
    std::uint64_t mount = 0;  // 0 if the kernel does not report mounts

    friend bool operator==(const ObjectIdentity&, const ObjectIdentity&) = default;
};
/// `attributes` must have been read with objectStatxMask().
[[nodiscard]] ObjectIdentity identityOf(const struct statx& attributes) noexcept;
[[nodiscard]] bool isSameObject(const struct statx& one, const struct statx& other) noexcept;
/// Returns whether both are on one mount; if the kernel does not report mounts, on one device.
[[nodiscard]] bool isSameMount(const struct statx& one, const struct statx& other) noexcept;

/// Returns whether anything exists at the address; a link itself counts.
[[nodiscard]] bool existsItself(const ObjectAddress& object) noexcept;
/// Renames within a file system. EEXIST if `to` exists, which is checked beforehand where the file
/// system lacks RENAME_NOREPLACE (rename(2)). EXDEV between file systems.
[[nodiscard]] Result<> renameExclusively(const ObjectAddress& from,
                                         const ObjectAddress& to) noexcept;

/// Writes the directory's entries to the disk. Succeeds also if the file system cannot.
[[nodiscard]] Result<> syncDirectory(Descriptor directory) noexcept;
/// Writes contents and attributes of a file or directory that is open for reading or writing.
/// Succeeds also if the file system cannot.
[[nodiscard]] Result<> syncObject(Descriptor descriptor) noexcept;

}  // namespace corvalen
