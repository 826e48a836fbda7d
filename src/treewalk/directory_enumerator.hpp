// SPDX-License-Identifier: MIT
// The walk of the searches: the one walk of the system with limits and oddities of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tree_walk.hpp"

namespace corvalen {

/// Bytes of a relative path that is entered, and levels that are open. A directory beyond is given,
/// but not entered; that is reported on the console log once a walk.
inline constexpr std::size_t kMaximumRelativePathLength = 1024;
inline constexpr std::size_t kMaximumOpenLevels = 500;

/// A name of 256 bytes or more, its separator included, opens a level that repeats another one.
/// That happens only while such levels have given fewer objects than all others plus this many.
inline constexpr std::int64_t kFreeRepetitions = 1000;

/// Walks everything below a base directory, directories before their contents, in the order in
/// which the file system lists them. What cannot be listed, or was moved away meanwhile, counts as
/// empty. Uses fixed memory and at most 66 descriptors.
///
/// A cancelled walk ends before its next object. Used by one thread. Two views of the same walk:
/// `nextObject` returns relative paths, `next` the entry, from which path and attributes are made
/// on demand.
class QRLDirectoryEnumerator : private TreeWalk {
  public:
    /// Null for a path that names no directory, reported on the console log unless it is empty.
    static std::unique_ptr<QRLDirectoryEnumerator> enumeratorAtPath(std::string_view path,
                                                                    bool stayOnFileSystem = false);
    /// Walks the open directory `base`, whose path is only used to build paths. A base that is not
    /// open gives an empty walk. Borrows the cancellation.
    QRLDirectoryEnumerator(UniqueFd base, std::string_view path, bool stayOnFileSystem,
                           Cancellation& cancellation = currentCancellation());

    /// The relative path of the next object; nothing when the walk is over.
    std::optional<std::string> nextObject();
    /// All that remain, in walk order.
    std::vector<std::string> allObjects();
    /// Closes the innermost level: right after a directory that was entered, its contents are left
    /// out; after any other object, the rest of the directory being read is.
    void skipDescendents() { skip(); }
    /// Whether directories on another device or mount than the base's are not entered. Cleared when
    /// the base could not be examined.
    [[nodiscard]] bool shouldStayOnFileSystem() const noexcept { return _shouldStayOnFileSystem; }

    /// The next object, or null when the walk is over; valid until the next step. Makes no path and
    /// examines the object only where the directory entry does not say what the walk must know.
    const WalkEntry* next();
    /// Whether the walk was cancelled before its end.
    [[nodiscard]] bool wasCancelled() const noexcept { return error() == ECANCELED; }

    // Of the object that `next` gave. When the walk itself has to examine it, it reads the fields
    // of the mask too, so that no object is examined twice.
    using TreeWalk::attributes;
    using TreeWalk::enteredDirectory;  // null also where the walk reads another one instead
    using TreeWalk::knownAttributes;
    using TreeWalk::parentDirectory;
    using TreeWalk::setAttributeMask;
    std::string_view currentRelativePathForDirectoryEntry() { return relativePath(); }
    std::string_view currentAbsolutePathForDirectoryEntry() { return path(); }
    /// Bytes that no path of the walk is longer than.
    [[nodiscard]] std::size_t longestPath() const noexcept { return _longestPath; }

  private:
    [[nodiscard]] bool shouldDescend();
    [[nodiscard]] bool withinLimits();
    [[nodiscard]] std::size_t addedLength() const noexcept;
    [[nodiscard]] bool hasCutName() const noexcept;
    [[nodiscard]] bool mayRepeat() const noexcept;
    void countRepetitions() noexcept;
    void pushDirectoryEntry();
    void enterCutName();

    const std::size_t _longestPath;
    const bool _insideVolumeTree;
    const bool _baseIsRoot;
    bool _shouldStayOnFileSystem = false;
    std::uint64_t _baseFileSystemID = 0;
    struct statx _baseAttributes {};
    bool _loggedPathLimit = false;
    bool _loggedDepthLimit = false;
    /// The depth from which on levels repeat others; 0 while none does.
    std::size_t _repeatedFrom = 0;
    /// kFreeRepetitions, plus the objects of the other levels, minus those of repetitions.
    std::int64_t _repetitionsLeft = kFreeRepetitions;
};

}  // namespace corvalen
