// SPDX-License-Identifier: MIT
// The walk through everything below a directory, which renames and symlink swaps by the owner of
// the tree cannot lead out of it. All walks of the system are this one: QRLDirectoryEnumerator adds
// the limits of searches, WalkAhead reads ahead in order, walkSubtrees() works out of order.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/cancellation.hpp"
#include "platform/directory_reader.hpp"
#include "platform/entry.hpp"

namespace corvalen {

/// An open directory, or none; closed with its last copy.
using SharedDirectory = std::shared_ptr<UniqueFd>;

[[nodiscard]] inline int descriptorOf(const SharedDirectory& directory) noexcept {
    return directory ? directory->get() : -1;
}

/// The open directories from the top of a walk to where it stands. Keeps at most `budget`
/// descriptors (at least two), the outermost and the innermost ones; those between are opened again
/// through the directory below them, and compared by their identity.
class DirectoryStack {
  public:
    static constexpr std::size_t kDefaultBudget = 64;

    explicit DirectoryStack(std::size_t budget = kDefaultBudget) noexcept;

    /// Null where it is closed. `level` counts from 0, the top.
    [[nodiscard]] const SharedDirectory& at(std::size_t level) const noexcept {
        return _levels[level].directory;
    }
    /// The innermost directory; the stack must not be empty.
    [[nodiscard]] int top() const noexcept { return descriptorOf(_levels.back().directory); }
    void push(UniqueFd directory);
    /// Makes sure that the directory above the innermost one is open. Returns 0 or an errno, ESTALE
    /// when the innermost one lies elsewhere now. `*reopened` is set when it had been closed.
    int openAbove(bool* reopened);
    void pop() noexcept { _levels.pop_back(); }

  private:
    struct Level {
        SharedDirectory directory;
        ObjectIdentity identity;  // known once the descriptor was closed
    };

    std::size_t _outer;
    std::size_t _inner;
    std::vector<Level> _levels;
};

/// The result of statx(2) for one object, which is called at the first use and at most once.
class LazyAttributes {
  public:
    /// The object is `name` in `parent`, links not followed, or the one open at `opened` unless
    /// that is -1. Null with errno when it cannot be examined.
    const struct statx* read(int parent, const char* name, int opened, unsigned mask) noexcept {
        if (!wereRead()) {
            mask |= STATX_TYPE;
            const bool isKnown = opened >= 0 ? examineOpen(opened, mask, &_attributes)
                                             : examineAt(parent, name, mask, &_attributes);
            _errno = isKnown ? 0 : errno;
        }
        if (_errno != 0) errno = _errno;
        return known();
    }
    /// What was read before; null when nothing was.
    [[nodiscard]] const struct statx* known() const noexcept {
        return _errno == 0 ? &_attributes : nullptr;
    }
    /// Whether statx(2) was called, also without success.
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
    /// Where reading goes on in a directory that had to be read again: behind the last entry, or at
    /// the start, because everything that was given is gone.
    enum class Resume : std::uint8_t { atPosition, fromStart };
    /// Large directories are faster in the order of their inodes.
    enum class Order : std::uint8_t { asListed, byInode };
    /// Whether a directory on which something is mounted can be entered. Else EXDEV.
    enum class Mounts : std::uint8_t { entered, refused };
    /// A fault ends the walk with its errno, or counts as the end of the directory.
    enum class Faults : std::uint8_t { end, pass };

    Resume resume = Resume::atPosition;
    Order order = Order::asListed;
    Mounts mounts = Mounts::entered;
    Faults unlisted = Faults::end;  // the rest of a directory cannot be read
    Faults moved = Faults::end;     // a directory on the way back lies elsewhere now: ESTALE
    /// Whether one directory at a time may take 6 MiB for the order of its inodes, else 1.5 MiB.
    bool largeBatch = false;
    bool givesLeft = false;  // whether next() also returns Step::left
    /// Steps without a system call between two looks at the cancellation. More than 1 is for
    /// callers that do little with an object.
    int quickSteps = 1;
    /// The fields of statx(2) that attributes() has to have.
    unsigned attributeMask = 0;
    std::size_t budget = DirectoryStack::kDefaultBudget;
    /// Memory for the entries that are read, kBufferSize bytes aligned to 8, for one walk after
    /// another. Null: the walk makes its own. Borrowed.
    std::byte* buffer = nullptr;
    static constexpr std::size_t kBufferSize = std::size_t{256} * 1024;
    /// Where the top lies in a larger walk: the levels above it and the bytes of its relative path
    /// there, which depth(), parentDepth() and parentPathLength() include.
    std::size_t levelsAbove = 0;
    std::size_t pathLengthAbove = 0;
    /// Looked at before each object: the walk ends with ECANCELED. May be null. Borrowed.
    Cancellation* cancellation = nullptr;
};

/// An object that a walk meets. The name is NUL-terminated.
struct WalkEntry {
    std::string_view name;
    EntryType type = EntryType::unknown;  // stays unknown only for an object that has vanished
};

/// Walks depth first, whatever the depth, and enters the directories that its caller wants.
/// Everything below the top is one component relative to the open directory that holds it, and no
/// link is followed. Holds one buffer of entries, the path of the directory where it stands, and a
/// small record a level. Not copied, not synchronised. Throws std::bad_alloc.
class TreeWalk {
  public:
    /// No system call takes a longer name. File systems with 255 characters of UTF-16 reach 765.
    static constexpr std::size_t kLongestName = 4095;

    enum class Step : std::uint8_t {
        object,  ///< entry() is the next object, a directory before its contents
        left,    ///< entry() is the entered directory whose contents have all been given
        end,     ///< the walk is over, see error()
    };

    /// Walks what lies below `top`; nothing when it is not open. `base` is the path of the top,
    /// with which path() begins.
    explicit TreeWalk(UniqueFd top, const TreeWalkOptions& options = {},
                      std::string_view base = {});
    ~TreeWalk();

    Step next();
    /// 0, or the errno with which the walk ended; path() then names the directory concerned.
    [[nodiscard]] int error() const noexcept { return _error; }

    void setAttributeMask(unsigned mask) noexcept { _attributeMask = mask; }

    // Of the object that next() gave, valid until the next step:
    [[nodiscard]] const WalkEntry& entry() const noexcept { return _entry; }
    [[nodiscard]] ObjectAddress address() const noexcept {
        return {descriptorOf(parentDirectory()), _entry.name.data()};
    }
    /// Its own attributes (a link's, not its target's); null with errno.
    const struct statx* attributes() noexcept;
    /// Those that were read already, also by the walk itself; else null.
    const struct statx* knownAttributes() const noexcept { return _attributes.known(); }
    /// The open directory that holds the object (at first the top), and the object itself when it
    /// is a directory that was entered or left; else null. Stay open as long as they are shared.
    [[nodiscard]] const SharedDirectory& parentDirectory() const noexcept;
    [[nodiscard]] const SharedDirectory& enteredDirectory() const noexcept;
    /// Paths in a buffer of the walk; path() begins with the base.
    std::string_view path();
    std::string_view relativePath() { return path().substr(_baseLength); }

    /// Opens the object as a directory (empty with errno), and steps into an open one, so that the
    /// next object is the first inside. ENOTDIR and ELOOP when it is no directory any more.
    [[nodiscard]] UniqueFd open() const noexcept;
    void push(UniqueFd directory);
    int enter();
    /// Steps into another directory in the place of the object, whose name, with the separator
    /// before it, adds only `addedLength` bytes to the path. The way back is ".." or ".".
    void pushInstead(UniqueFd directory, std::size_t addedLength);
    /// Leaves the innermost directory, whatever is unread in it.
    void skip();

    /// Number of open levels, 1 at the top; and of those down to the directory that holds the
    /// object.
    [[nodiscard]] std::size_t depth() const noexcept { return _options.levelsAbove + _depth; }
    [[nodiscard]] std::size_t parentDepth() const noexcept {
        return _options.levelsAbove + _entryLevel + 1;
    }
    /// Bytes of the relative path of the directory that holds the object, and of the object's own.
    [[nodiscard]] std::size_t parentPathLength() const noexcept {
        const std::size_t above = _options.pathLengthAbove;
        const std::size_t below = _parentPathEnd - _baseLength;
        return above + below + (above > 0 && below > 0 ? 1 : 0);
    }
    [[nodiscard]] std::size_t pathLength() const noexcept {
        const std::size_t parent = parentPathLength();
        return parent + (parent > 0 ? 1 : 0) + _entry.name.size();
    }

  private:
    struct SortedBatch;
    struct Level;

    [[nodiscard]] bool isCancelled() noexcept;
    bool readMore(Level& level);
    std::ptrdiff_t readBatch(Level& level, int directory);
    std::ptrdiff_t readBuffer(Level& level, int directory);
    void forgetBuffered() noexcept;
    bool takeEntry(Level& level);
    bool leaveInnermost();
    bool ascend();
    void pop() noexcept;
    [[nodiscard]] std::size_t writeBehind(std::size_t end, std::string_view name);
    void addLevel(UniqueFd directory, std::size_t pathEnd);

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
    std::unique_ptr<std::byte[]> _ownBuffer;
    std::byte* _buffer;
    std::vector<char> _path;
    /// The separator behind it included.
    const std::size_t _baseLength;

    WalkEntry _entry;
    /// Level and path of the directory that holds the object.
    std::size_t _entryLevel = 0;
    std::size_t _parentPathEnd;
    LazyAttributes _attributes;
};

}  // namespace corvalen
