// SPDX-License-Identifier: MIT
// The rules by which searches enter directories.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/files/tree_walk.hpp"

namespace corvalen {

/// Maximum bytes of an entered relative path, and maximum number of open levels.
inline constexpr std::size_t kMaximumRelativePathLength = 1024;
inline constexpr std::size_t kMaximumOpenLevels = 500;

/// The rules of one walk. The const functions read only the current object of a walk, so several
/// threads may call them.
class DescentRules {
  public:
    /// `base` is the open top directory of the walk, `path` its path. If `base` cannot be examined,
    /// the walk does not stay on its file system.
    DescentRules(Descriptor base, std::string_view path, bool stayOnFileSystem);

    /// Keeps the walk on this device; std::nullopt lets it leave.
    void setFileSystem(std::optional<std::uint64_t> device) noexcept;
    [[nodiscard]] bool staysOnFileSystem() const noexcept { return _staysOnFileSystem; }

    /// Whether type and place of the object allow entering it. Calls walk.attributes() if the walk
    /// stays on its file system.
    [[nodiscard]] bool admit(TreeWalk& walk) const {
        return hasDirectoryBit(walk.entry().type) && admitDirectory(walk);
    }

    // Of an object that admit() accepts:
    [[nodiscard]] static bool exceedsPathLength(const TreeWalk& walk) noexcept;
    [[nodiscard]] static bool exceedsDepth(const TreeWalk& walk) noexcept;
    /// Bytes that its name adds to the path, separator included. The record of a level keeps them
    /// modulo kAddedLengths; hasCutName() returns whether that loses some.
    static constexpr std::size_t kAddedLengths = 256;
    [[nodiscard]] static std::size_t addedLength(const TreeWalk& walk) noexcept;
    [[nodiscard]] static bool hasCutName(const TreeWalk& walk) noexcept;
    /// Whether QRLDirectoryEnumerator does anything but open the object.
    [[nodiscard]] static bool isSpecial(const TreeWalk& walk) noexcept;

  private:
    /// Tests only the bit S_IFDIR, which block devices and sockets have too: the limits also apply
    /// to them, then they fail to open.
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
