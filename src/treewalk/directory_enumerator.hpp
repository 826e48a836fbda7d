// SPDX-License-Identifier: MIT
// The tree walk of the searches, with limits of its own, and the rules by which it enters
// directories.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    /// Bytes that its name adds to the path, separator included. A level counts them modulo
    /// kAddedLengths; hasCutName() returns whether that loses some (see kFreeRepetitions).
    static constexpr std::size_t kAddedLengths = 256;
    [[nodiscard]] static std::size_t addedLength(const TreeWalk& walk) noexcept;
    [[nodiscard]] static bool hasCutName(const TreeWalk& walk) noexcept;
    /// Whether QRLDirectoryEnumerator does anything but open the object.
    [[nodiscard]] static bool isSpecial(const TreeWalk& walk) noexcept;

  private:
    /// Kept: tests only the bit S_IFDIR, which block devices and sockets have too. The limits also
    /// apply to them; then they fail to open.
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

/// Kept: the walk counts the bytes of a name, separator included, modulo 256. So a directory whose
/// name has 256 bytes or more (a cut name) may open another directory, and its objects are returned
/// again. The walk opens such levels only while they have returned fewer objects than all others
/// plus this number.
inline constexpr std::int64_t kFreeRepetitions = 1000;

/// Walks everything below a base directory in the order of the file system, each directory before
/// its contents, and enters directories by its DescentRules. It returns a directory beyond their
/// limits but does not enter it, and logs that to the console once. A directory that cannot be
/// listed, or was moved away meanwhile, counts as empty. Uses fixed memory and at most 66
/// descriptors.
///
/// For one thread. A cancelled walk ends before its next object. nextObject() returns relative
/// paths; next() returns the entry, path and attributes on demand.
class QRLDirectoryEnumerator : private TreeWalk {
  public:
    /// Null if `path` does not lead to a directory; logs that to the console unless it is empty.
    static std::unique_ptr<QRLDirectoryEnumerator> enumeratorAtPath(std::string_view path,
                                                                    bool stayOnFileSystem = false);
    /// Walks the open directory `base`; `path` only builds paths. A walk of an empty `base` is
    /// empty. Borrows the cancellation.
    QRLDirectoryEnumerator(UniqueFd base, std::string_view path, bool stayOnFileSystem,
                           Cancellation& cancellation = currentCancellation());
    /// Walks the rest of a directory of another walk with these rules. For a tree without special
    /// objects: one that appears is not logged, and a cut name not entered. `buffer` is
    /// TreeWalkOptions::buffer.
    QRLDirectoryEnumerator(WalkRest rest, const DescentRules& rules, Cancellation& cancellation,
                           std::byte* buffer);

    /// Returns the relative path of the next object; std::nullopt at the end.
    std::optional<std::string> nextObject();
    /// Returns the relative paths of all remaining objects, in walk order.
    std::vector<std::string> allObjects();
    /// Closes the innermost level. Right after an entered directory this skips its contents; after
    /// any other object, the rest of the directory being read.
    void skipDescendents() { skip(); }
    /// Whether the walk stays on the base's device and mount. False if the base could not be
    /// examined.
    [[nodiscard]] bool shouldStayOnFileSystem() const noexcept {
        return _rules.staysOnFileSystem();
    }

    /// Returns the next object, or null at the end; valid until the next step. Builds no path, and
    /// calls statx(2) only if the entry lacks what the walk needs.
    const WalkEntry* next();
    /// Whether the walk was cancelled before its end.
    [[nodiscard]] bool wasCancelled() const noexcept { return failedWith(result(), ECANCELED); }

    // Of the object that next() returned. If the walk itself calls statx(2), it reads the fields of
    // the mask too, so that each object is examined once.
    using TreeWalk::attributes;
    using TreeWalk::depth;
    using TreeWalk::enteredDirectory;  // null too if the walk entered another one instead
    using TreeWalk::giveRest;
    using TreeWalk::knownAttributes;
    using TreeWalk::parentDepth;
    using TreeWalk::parentDirectory;
    using TreeWalk::setAttributeMask;
    std::string_view currentRelativePathForDirectoryEntry() { return relativePath(); }
    std::string_view currentAbsolutePathForDirectoryEntry() { return path(); }
    /// Maximum length in bytes of a path of this walk.
    [[nodiscard]] std::size_t longestPath() const noexcept { return _longestPath; }

  private:
    [[nodiscard]] bool withinLimits();
    [[nodiscard]] bool mayRepeat() const noexcept;
    void countRepetitions() noexcept;
    void pushDirectoryEntry();
    void enterCutName();

    const std::size_t _longestPath;
    DescentRules _rules;
    bool _loggedPathLimit = false;
    bool _loggedDepthLimit = false;
    /// Depth of the first level that repeats another one; 0 if none does.
    std::size_t _repeatedFrom = 0;
    /// kFreeRepetitions, plus the objects of other levels, minus those of repetitions.
    std::int64_t _repetitionsLeft = kFreeRepetitions;
};

}  // namespace corvalen
