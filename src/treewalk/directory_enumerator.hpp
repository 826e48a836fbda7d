// SPDX-License-Identifier: MIT
// The walker of hierarchies: depth first, folders before their contents, in the order in which the
// file system lists them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/cancellation.hpp"
#include "platform/directory_reader.hpp"
#include "treewalk/lazy_attributes.hpp"

namespace corvalen {

/// Limits of a bounded walk: bytes of a relative path that is entered, levels that are open.
inline constexpr std::size_t kMaximumRelativePathLength = 1024;
inline constexpr std::ptrdiff_t kMaximumOpenLevels = 500;

/// A name of 256 bytes or more, its separator included, opens a level that repeats another one.
/// That happens only while such levels have given fewer objects than all others plus this many.
inline constexpr std::int64_t kFreeRepetitions = 1000;

/// How far a walk goes: within the limits (each reported on the console log once a walk), as deep
/// as the hierarchy, or not below the base folder's own objects.
enum class WalkReach : std::uint8_t { bounded, unbounded, directContents };

/// An open folder of a walk, or none; closed with its last copy.
using SharedFolder = std::shared_ptr<UniqueFd>;

[[nodiscard]] inline int descriptorOf(const SharedFolder& folder) noexcept {
    return folder ? folder->get() : -1;
}

/// Walks everything below a base folder. Uses fixed memory (an unbounded walk: a small record a
/// level) and at most 66 descriptors. Nothing below the base is resolved by path: each object is
/// one component relative to the open folder that holds it, and links are never followed.
///
/// A cancelled walk ends before its next object. Used by one thread; each walk has its own. Two
/// views of the same walk: `nextObject` hands out relative paths, `next` the entry itself, from
/// which path and attributes are made on demand.
class QRLDirectoryEnumerator {
  public:
    /// Null for a path that names no folder, reported on the console log unless it is empty.
    static std::unique_ptr<QRLDirectoryEnumerator> enumeratorAtPath(std::string_view path,
                                                                    bool stayOnFileSystem = false);
    /// Walks the open folder `base`, whose path is only used to build paths. A base that is not
    /// open gives an empty walk. Borrows the cancellation.
    QRLDirectoryEnumerator(UniqueFd base, std::string_view path, bool stayOnFileSystem,
                           WalkReach reach = WalkReach::bounded,
                           Cancellation& cancellation = currentCancellation());
    QRLDirectoryEnumerator(const QRLDirectoryEnumerator&) = delete;
    QRLDirectoryEnumerator& operator=(const QRLDirectoryEnumerator&) = delete;
    ~QRLDirectoryEnumerator() = default;

    /// The relative path of the next object; nothing when the walk is over.
    std::optional<std::string> nextObject();
    /// All that remain, in walk order.
    std::vector<std::string> allObjects();
    /// Closes the innermost level: right after a folder that was entered, its contents are left
    /// out; after any other object, the rest of the folder being read is.
    void skipDescendents() { popDirectory(); }
    /// Whether directories on another device or mount than the base's are not entered. Cleared when
    /// the base could not be examined.
    [[nodiscard]] bool shouldStayOnFileSystem() const noexcept { return _shouldStayOnFileSystem; }

    /// An object of the walk; valid until the next step. The name is NUL-terminated.
    struct Entry {
        std::string_view name;
        EntryType type = EntryType::unknown;
    };

    /// The fields of statx(2) that `attributes` is to know; when the walk itself has to look at an
    /// object it asks for them too, so that no object is looked at twice.
    void setAttributeMask(unsigned mask) noexcept { _attributeMask = mask; }
    /// The next object, or null when the walk is over. Makes no path and looks at the object only
    /// where the directory entry does not tell what the walk must know.
    const Entry* next();
    /// Whether the walk was cancelled before its end.
    [[nodiscard]] bool wasCancelled() const noexcept { return _wasCancelled; }

    // Of the object that `next` gave:
    /// Its own attributes (a link's, not its target's); null with errno when it cannot be examined.
    const struct statx* attributes();
    /// Those that the walk itself had to ask for; null for the others.
    [[nodiscard]] const struct statx* knownAttributes() const noexcept {
        return _attributes.known();
    }
    /// Whether it is a folder that the walk has entered: the next object is the first inside.
    [[nodiscard]] bool hasEntered() const noexcept { return _topIndex > _entryLevel; }
    /// The open folder that holds it, and the folder itself where the walk has entered it: null
    /// where it has not, or reads something else (see openEntry). What is done to a folder by its
    /// descriptor needs no name. Each stays open as long as it is shared.
    [[nodiscard]] const SharedFolder& parentFolder() const noexcept;
    [[nodiscard]] const SharedFolder& enteredFolder() const noexcept;
    /// Leaves the contents of an entered folder to the caller: the open folder, read from its
    /// start.
    [[nodiscard]] UniqueFd takeEnteredFolder();
    /// Paths in a buffer of the walk, valid until the next step. An unbounded walk makes none.
    std::string_view currentRelativePathForDirectoryEntry();
    std::string_view currentAbsolutePathForDirectoryEntry();
    /// Bytes that no path of the walk is longer than.
    [[nodiscard]] std::size_t longestPath() const noexcept { return _pathBuffer.size(); }

  private:
    [[nodiscard]] bool makesPaths() const noexcept { return _reach != WalkReach::unbounded; }

    struct Level {
        SharedFolder stream;
        /// Bytes that this level added to the relative path, modulo 256.
        std::uint8_t addedLength = 0;
        /// Opened on the parent's own folder again, see openEntry.
        bool repeatsParent = false;
        /// This level or one around it was opened by a cut name, see openEntry.
        bool isRepetition = false;
        /// The position must be sought before more is read.
        bool seekBeforeRead = false;
        /// Part of the buffer that is this level's, and the unread rest of it.
        std::size_t bufferStart = 0;
        std::size_t unreadStart = 0;
        std::size_t unreadEnd = 0;
        /// Behind the last entry that was taken from the buffer.
        std::int64_t position = 0;
        /// Known when the stream was closed to save a descriptor.
        FileIdentity identity;

        [[nodiscard]] bool drained() const noexcept { return unreadStart == unreadEnd; }
    };

    [[nodiscard]] bool mustEnd(const Level& level);
    bool readMoreEntries(Level& level);
    void forgetBufferedEntries();
    bool takeEntry(Level& level);
    [[nodiscard]] bool shouldDescend();
    [[nodiscard]] bool isBehindVolumeTree() const noexcept;
    void pushDirectoryEntry();
    void openLevel(UniqueFd stream, std::uint8_t addedLength);
    void closeDistantStream();
    void popDirectory();
    [[nodiscard]] UniqueFd openEntry(std::size_t addedLength, bool* repeatsParent);
    [[nodiscard]] bool hasCutName() const noexcept;
    [[nodiscard]] bool mayRepeat() const noexcept;
    [[nodiscard]] bool withinLimits();
    void writeEntryNameBehind(std::size_t relativeLength);

    std::vector<char> _pathBuffer;
    std::size_t _relativePathStart = 0;
    std::size_t _relativePathLength = 0;
    std::vector<Level> _directoryStack;
    std::ptrdiff_t _topIndex = -1;
    bool _shouldStayOnFileSystem = false;
    WalkReach _reach = WalkReach::bounded;
    bool _insideVolumeTree = false;
    bool _baseIsRoot = false;
    std::uint64_t _baseFileSystemID = 0;
    /// A bind mount has its file system's device and is told from it by its mount.
    struct statx _baseAttributes {};
    /// kFreeRepetitions, plus the objects of the other levels, minus those of repetitions.
    std::int64_t _repetitionsLeft = kFreeRepetitions;
    bool _loggedPathLimit = false;
    bool _loggedDepthLimit = false;
    bool _wasCancelled = false;
    int _quickSteps = 0;
    Cancellation* _cancellation;

    std::unique_ptr<std::byte[]> _entryBuffer;
    Entry _entry;
    /// Level and relative path length of the folder that holds the current object.
    std::ptrdiff_t _entryLevel = -1;
    std::size_t _entryPathLength = 0;
    unsigned _attributeMask = 0;
    LazyAttributes _attributes;
};

}  // namespace corvalen
