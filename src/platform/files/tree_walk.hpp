// SPDX-License-Identifier: MIT
// A tree walk that is safe against renames and symlink swaps by the owner of the tree. All walks of
// the daemon use it: QRLDirectoryEnumerator adds the limits of searches, WalkAhead reads ahead in
// order, walkSubtrees() works out of order.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/cancellation.hpp"
#include "foundation/result.hpp"
#include "platform/files/directory_reader.hpp"
#include "platform/files/directory_stack.hpp"

namespace corvalen {

/// The statx(2) result of one object, read at first use and at most once.
class LazyAttributes {
  public:
    /// Returns the attributes of `name` in `parent`, links not followed, or of `opened` if that is
    /// one. Returns null with errno on failure.
    const struct statx* read(Descriptor parent, const char* name, Descriptor opened,
                             unsigned mask) noexcept {
        if (!wereRead()) {
            mask |= STATX_TYPE;
            const bool isKnown = opened ? examineOpen(opened, mask, &_attributes)
                                        : examineAt(parent, name, mask, &_attributes);
            _errno = isKnown ? 0 : errno;
        }
        if (_errno != 0) errno = _errno;
        return known();
    }
    /// Returns the attributes if they were read, else null.
    [[nodiscard]] const struct statx* known() const noexcept {
        return _errno == 0 ? &_attributes : nullptr;
    }
    /// Whether statx(2) was called, even if it failed.
    [[nodiscard]] bool wereRead() const noexcept { return _errno != kUnread; }
    void set(const struct statx& attributes) noexcept {
        _attributes = attributes;
        _errno = 0;
    }
    void forget() noexcept { _errno = kUnread; }

  private:
    static constexpr int kUnread = -1;

    int _errno = kUnread;
    struct statx _attributes {};
};

struct TreeWalkOptions {
    /// Where reading continues in a directory that must be read again: after the last entry, or at
    /// the start, for walks that remove every entry.
    enum class Resume : std::uint8_t { atPosition, fromStart };
    /// Large directories on a disk are faster in inode order. `byInode` sorts no others.
    enum class Order : std::uint8_t { asListed, byInode };
    /// Whether open() opens mount points. If refused, it fails with EXDEV.
    enum class Mounts : std::uint8_t { entered, refused };
    /// A fault ends the walk with its errno, or counts as the end of the directory.
    enum class Faults : std::uint8_t { end, pass };

    Resume resume = Resume::atPosition;
    Order order = Order::asListed;
    Mounts mounts = Mounts::entered;
    Faults unlisted = Faults::end;  // the rest of a directory cannot be read
    Faults moved = Faults::end;     // a directory on the way back was moved: ESTALE
    /// Whether one directory at a time may use 6 MiB to sort entries by inode, else 1.5 MiB. In
    /// walkSubtrees() for the first worker only.
    bool largeBatch = false;
    bool givesLeft = false;  // whether next() also returns Step::left
    /// Steps without a system call between two checks of the cancellation. kQuickSteps, which
    /// makes the checks cheap, suits callers that do little with an object.
    static constexpr int kQuickSteps = 16;
    int quickSteps = 1;
    /// The fields of statx(2) that attributes() must have.
    unsigned attributeMask = 0;
    std::size_t budget = DirectoryStack::kDefaultBudget;
    /// Buffer for entries, kBufferSize bytes aligned to 8; one walk at a time may use it. Null: the
    /// walk allocates its own. Borrowed.
    std::byte* buffer = nullptr;
    static constexpr std::size_t kBufferSize = std::size_t{256} * 1024;
    /// Place of the top in a larger walk: the levels above it, and the bytes of its relative path.
    /// depth(), parentDepth() and parentPathLength() include them.
    std::size_t levelsAbove = 0;
    std::size_t pathLengthAbove = 0;
    /// Checked before objects (see `quickSteps`); a request ends the walk with ECANCELED. May be
    /// null. Borrowed.
    Cancellation* cancellation = nullptr;
};

/// A part of a directory that one walk reads, for another walk to return.
struct WalkRest {
    /// Null makes an empty walk. Nothing else may list it.
    SharedDirectory directory;
    /// The directory's path.
    std::string path;
    /// The levels above it, and the bytes of its relative path, from the top of the first walk.
    std::size_t levelsAbove = 0;
    std::size_t pathLength = 0;
    /// Entries that were read but not returned, in the form that directoryEntryAt() reads. If the
    /// rest is cut, they may lack their inodes and positions.
    std::vector<std::byte> entries;
    /// Position after the last returned entry, if the first walk forgot those behind it.
    std::optional<std::int64_t> position;
    /// Whether it ends with `entries`, as another walk has what follows.
    bool isCut = false;
};

/// An object of a walk. The name is NUL-terminated.
struct WalkEntry {
    std::string_view name;
    EntryType type = EntryType::unknown;  // unknown only if statx(2) failed
};

/// Walks depth first to any depth and enters the directories that its caller chooses. Addresses
/// each object as one component relative to its open directory and follows no link. Holds one
/// buffer of entries, batches of large directories, the current path and a small record per level.
/// Not copyable. For one thread. Throws std::bad_alloc.
class TreeWalk {
  public:
    /// No system call accepts a longer name. Names of 255 UTF-16 units reach 765 bytes.
    static constexpr std::size_t kLongestName = 4095;

    enum class Step : std::uint8_t {
        object,  ///< entry() is the next object, a directory before its contents
        left,    ///< entry() is an entered directory whose contents were all returned
        end,     ///< the walk is over, see result()
    };

    /// Walks everything below `top`; an empty `top` makes an empty walk. path() begins with `base`,
    /// the path of the top.
    explicit TreeWalk(UniqueFd top, const TreeWalkOptions& options = {},
                      std::string_view base = {});
    /// Walks everything in and below the rest of a directory; path() begins with its path.
    TreeWalk(WalkRest rest, const TreeWalkOptions& options);
    ~TreeWalk();

    Step next();
    /// The error that ended the walk, if one did; path() then names the directory concerned.
    [[nodiscard]] Result<> result() const noexcept {
        if (_error != 0) return failure(_error);
        return {};
    }

    void setAttributeMask(unsigned mask) noexcept { _attributeMask = mask; }

    // Of the object that next() returned; valid until the next step.
    [[nodiscard]] const WalkEntry& entry() const noexcept { return _entry; }
    [[nodiscard]] ObjectAddress address() const noexcept {
        return {descriptorOf(parentDirectory()), _entry.name.data()};
    }
    /// Returns the object's own attributes (a link's, not its target's); null with errno.
    const struct statx* attributes() noexcept;
    /// Returns the attributes if already read, also by the walk itself; else null.
    const struct statx* knownAttributes() const noexcept { return _attributes.known(); }
    /// The directory that holds the object (at first the top), and the object itself if it is a
    /// directory that was entered or left; else null. Copies keep them open.
    [[nodiscard]] const SharedDirectory& parentDirectory() const noexcept;
    [[nodiscard]] const SharedDirectory& enteredDirectory() const noexcept;
    /// Paths in a buffer of the walk; path() begins with the base.
    std::string_view path();
    std::string_view relativePath() { return path().substr(_baseLength); }

    /// open() opens the object as a directory; ENOTDIR or ELOOP if it no longer is one. push()
    /// steps into an open directory: the next object is its first. enter() does both.
    [[nodiscard]] Result<UniqueFd> open() const noexcept;
    void push(UniqueFd directory);
    [[nodiscard]] Result<> enter();
    /// Steps into another directory in place of the object. The object's name and separator add
    /// only `addedLength` bytes to the path. The way back must be ".." or ".".
    void pushInstead(UniqueFd directory, std::size_t addedLength);
    /// Leaves the innermost directory and drops its unread entries.
    void skip();

    /// Gives up the last part of the outermost directory that this walk still reads: half of the
    /// entries that it has read ahead, and all that follow. This walk returns its own objects
    /// before those.
    /// std::nullopt if that is the innermost directory, or if it is not open.
    [[nodiscard]] std::optional<WalkRest> giveRest();
    /// Gives up the next entries that it has read ahead in the current directory, if there are
    /// many: up to half of them. Their objects come before the remaining ones. The result has no
    /// path.
    [[nodiscard]] std::optional<WalkRest> giveEntries();

    /// Number of open levels, 1 at the top; and the number down to the object's directory.
    [[nodiscard]] std::size_t depth() const noexcept { return _options.levelsAbove + _depth; }
    [[nodiscard]] std::size_t parentDepth() const noexcept {
        return _options.levelsAbove + _entryLevel + 1;
    }
    /// Bytes of the relative path of the object's directory, and of the object itself.
    [[nodiscard]] std::size_t parentPathLength() const noexcept {
        return relativeLength(_parentPathEnd);
    }
    [[nodiscard]] std::size_t pathLength() const noexcept {
        const std::size_t parent = parentPathLength();
        return parent + (parent > 0 ? 1 : 0) + _entry.name.size();
    }

  private:
    struct Level;

    static TreeWalkOptions placedAt(const WalkRest& rest, TreeWalkOptions options) noexcept;
    /// Bytes of the relative path of a directory whose path ends at `pathEnd`.
    [[nodiscard]] std::size_t relativeLength(std::size_t pathEnd) const noexcept {
        const std::size_t above = _options.pathLengthAbove;
        const std::size_t below = pathEnd - _baseLength;
        return above + below + (above > 0 && below > 0 ? 1 : 0);
    }
    [[nodiscard]] bool isCancelled() noexcept;
    bool readMore(Level& level);
    std::ptrdiff_t readBatch(Level& level, Descriptor directory);
    std::ptrdiff_t readBuffer(Level& level, Descriptor directory);
    [[nodiscard]] std::size_t middleOf(const Level& level) const;
    [[nodiscard]] WalkRest restAt(std::size_t index) const;
    void forgetBuffered();
    RawDirectoryEntry takeUnread(Level& level) noexcept;
    bool takeEntry(Level& level);
    bool leaveInnermost();
    bool ascend();
    void pop() noexcept;
    [[nodiscard]] std::size_t writeBehind(std::size_t end, std::string_view name);
    void addLevel(SharedDirectory directory, std::size_t pathEnd);

    const TreeWalkOptions _options;
    unsigned _attributeMask;
    int _error = 0;
    int _quickSteps = 0;
    bool _isLeaving = false;
    bool _enteredIsEntry = false;
    int _batches = 0;

    DirectoryStack _directories;
    std::vector<Level> _levels;
    std::size_t _depth = 0;
    /// Number of outermost levels of which only the entries read ahead are left: giveRest() gave up
    /// what follows.
    std::size_t _given = 0;
    std::unique_ptr<std::byte[]> _ownBuffer;
    std::byte* _buffer;
    std::vector<char> _path;
    /// Includes the separator after it.
    const std::size_t _baseLength;

    WalkEntry _entry;
    /// Level and path of the directory that holds the object.
    std::size_t _entryLevel = 0;
    std::size_t _parentPathEnd;
    LazyAttributes _attributes;
};

}  // namespace corvalen
