// SPDX-License-Identifier: MIT
// From the path that a client names to what the kernel is told.
//
// A client's path is resolved once. The result is either an entry (an open directory and one
// component in it: what is created, moved, linked or removed there) or an object (an O_PATH
// descriptor: what is examined or changed). Nothing behind these functions takes a path.
//
// Links on the way are followed by the kernel, magic links of /proc included. The last component:
//
//   operation                     resolves to     a link there             a magic link there
//   create-fileobject             entry           stays, refused (17)      stays, refused (17)
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
// A trailing slash demands a directory. An entry with one is never a link: ENOTDIR.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "corvalen/descriptor.hpp"
#include "platform/object_address.hpp"

namespace corvalen {

/// The text of a path as a client gave it: not empty, without a NUL byte.
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
    friend int openEntryAt(int base, std::string_view path, Entry* entry);
    explicit Component(std::string_view text) : _text(text) {}
    std::string _text;
};

/// Owns an open object (O_PATH unless said otherwise) with what statx(2) said when it was opened:
/// type, mode, owner, inode, birth time, mount, attributes.
struct Object {
    UniqueFd descriptor;
    struct statx status {};

    [[nodiscard]] ObjectAddress address() const noexcept { return {descriptor.get()}; }
    [[nodiscard]] bool isDirectory() const noexcept { return S_ISDIR(status.stx_mode); }
    [[nodiscard]] bool isLink() const noexcept { return S_ISLNK(status.stx_mode); }
};

/// Owns an open directory (O_PATH) and holds one component in it. Need not exist.
class Entry {
  public:
    Entry() : _name(".") {}

    [[nodiscard]] int parent() const noexcept { return _parent.get(); }
    [[nodiscard]] const Component& name() const noexcept { return _name; }
    /// The path ended with a slash.
    [[nodiscard]] bool mustBeDirectory() const noexcept { return _mustBeDirectory; }
    /// What rm(1) refuses to remove: EBUSY for "/", EINVAL for "." and "..", else 0.
    [[nodiscard]] int checkRemovable() const noexcept {
        if (_isRoot) return EBUSY;
        return _name.isDotOrDotDot() ? EINVAL : 0;
    }
    /// Borrows from the entry; the object itself, no link followed.
    [[nodiscard]] ObjectAddress address() const noexcept { return {_parent.get(), _name.c_str()}; }
    /// The path as the kernel shows it now, for messages; `otherwise` where it shows none.
    [[nodiscard]] std::string shownPath(std::string_view otherwise) const;

  private:
    friend int openEntryAt(int base, std::string_view path, Entry* entry);

    UniqueFd _parent;
    Component _name;
    bool _mustBeDirectory = false;
    bool _isRoot = false;
};

/// Each returns 0 or an errno, and may be called by any thread.

/// Opens the directory that holds the last component of `path`. ENOENT and ENOTDIR are about that
/// directory: the component itself is not looked at.
int openEntry(const ClientPath& path, Entry* entry);
/// The same for a path relative to the open directory `base`.
int openEntryAt(int base, std::string_view path, Entry* entry);
/// Follows links in the last component, one by one, to the entry that holds the object itself, and
/// opens that object. ELOOP after 40 links, and for a magic link, whose text is no path.
int openEntryBehindLinks(const ClientPath& path, Entry* entry, Object* object);

/// Opens what the path leads to, the kernel following all links.
int openObject(const ClientPath& path, Object* object);
/// Opens what the address names.
int openObject(const ObjectAddress& address, Object* object);
/// Whether an error of openEntry() or openObject() says that the path leads to nothing. Any other
/// error leaves open whether something is there.
[[nodiscard]] bool meansMissing(int error) noexcept;
/// ENOTDIR when the entry must be a directory and `object`, which was opened there, is none.
int checkType(const Entry& entry, const Object& object) noexcept;

/// A descriptor of its own for reading of a directory that is open in any way. Empty with errno on
/// failure.
[[nodiscard]] UniqueFd openForListing(int directory) noexcept;
/// Opens the directory `name`, one component, for reading; EXDEV when something is mounted there,
/// ELOOP or ENOTDIR for a link. Empty with errno on failure.
[[nodiscard]] UniqueFd openOnSameMount(int parent, const char* name) noexcept;
/// Opens a directory by a path without a link on its way for reading; a link anywhere (one put
/// there since the path was resolved) is refused. Empty with errno on failure.
[[nodiscard]] UniqueFd openResolvedDirectory(const char* path) noexcept;

/// The fields of statx(2) that an Object has, and of which its identity is made.
[[nodiscard]] unsigned objectStatxMask() noexcept;
/// What no other object has as long as this one exists: the number of a removed inode is given
/// anew, and a bind mount has the device of its file system.
struct ObjectIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t birthSeconds = 0;
    std::uint32_t birthNanoseconds = 0;
    std::uint64_t mount = 0;  // 0 where the kernel does not tell mounts

    friend bool operator==(const ObjectIdentity&, const ObjectIdentity&) = default;
};
/// `attributes` were read with objectStatxMask().
[[nodiscard]] ObjectIdentity identityOf(const struct statx& attributes) noexcept;
[[nodiscard]] bool isSameObject(const struct statx& one, const struct statx& other) noexcept;
/// Whether both lie on one mount; where the kernel does not tell mounts, on one device.
[[nodiscard]] bool isSameMount(const struct statx& one, const struct statx& other) noexcept;

/// Whether anything is there; a link itself counts.
[[nodiscard]] bool existsItself(const ObjectAddress& object) noexcept;
/// Renames within a file system; nothing may stand at `to` (EEXIST). EXDEV between file systems.
int renameExclusively(const ObjectAddress& from, const ObjectAddress& to) noexcept;

/// Writes the directory's entries to the disk. 0 as well where the file system cannot.
int syncDirectory(int directory) noexcept;
/// Writes content and attributes of a file or directory that is open for reading or writing.
int syncObject(int descriptor) noexcept;

}  // namespace corvalen
