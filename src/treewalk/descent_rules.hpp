// SPDX-License-Identifier: MIT
// Which directories the searches enter.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/tree_walk.hpp"

namespace corvalen {

/// Bytes of a relative path that is entered, and levels that are open.
inline constexpr std::size_t kMaximumRelativePathLength = 1024;
inline constexpr std::size_t kMaximumOpenLevels = 500;

/// The rules of one walk. They look only at the object where a walk stands and keep no state, so
/// that several threads may walk by the same rules.
class DescentRules {
  public:
    /// `base` is the open directory where the walk begins, `path` its path. Without a base that can
    /// be examined the walk does not stay on a file system.
    DescentRules(int base, std::string_view path, bool stayOnFileSystem);

    /// Stays on this device; on none: does not stay.
    void setFileSystem(std::optional<std::uint64_t> device) noexcept;
    [[nodiscard]] bool staysOnFileSystem() const noexcept { return _staysOnFileSystem; }

    /// Whether the object is to be entered as far as its type and place allow. Calls
    /// walk.attributes() where the walk stays on its file system.
    [[nodiscard]] bool admit(TreeWalk& walk) const {
        return hasDirectoryBit(walk.entry().type) && admitDirectory(walk);
    }

    // Of an object that is to be entered:
    [[nodiscard]] static bool exceedsPathLength(const TreeWalk& walk) noexcept;
    [[nodiscard]] static bool exceedsDepth(const TreeWalk& walk) noexcept;
    /// Bytes that its name adds to the path, the separator included, and whether the record of a
    /// level, which keeps them modulo kAddedLengths, cannot count them.
    static constexpr std::size_t kAddedLengths = 256;
    [[nodiscard]] static std::size_t addedLength(const TreeWalk& walk) noexcept;
    [[nodiscard]] static bool hasCutName(const TreeWalk& walk) noexcept;
    /// Whether one of these makes QRLDirectoryEnumerator do anything but open the object.
    [[nodiscard]] static bool isSpecial(const TreeWalk& walk) noexcept;

  private:
    /// A mode counts as a directory's by the single bit S_IFDIR, which block devices and sockets
    /// carry too: they meet the limits like directories, and then cannot be opened.
    static bool hasDirectoryBit(EntryType type) noexcept {
        return type == EntryType::directory || type == EntryType::blockDevice ||
               type == EntryType::socket;
    }
    [[nodiscard]] bool admitDirectory(TreeWalk& walk) const;

    bool _insideVolumeTree;
    bool _baseIsRoot;
    bool _staysOnFileSystem = false;
    std::uint64_t _fileSystem = 0;
    struct statx _base {};
};

}  // namespace corvalen
