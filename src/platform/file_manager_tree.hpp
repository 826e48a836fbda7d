// SPDX-License-Identifier: MIT
// A walk through everything below a folder that nobody who owns the tree can lead out of it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/cancellation.hpp"

namespace corvalen {

/// One object that a walk meets, named relative to its open folder. Borrowed, valid in the call.
struct TreeEntry {
    int parent;
    const char* name;
    unsigned char type;  // DT_* of readdir(3); DT_UNKNOWN only for an object that has vanished
};

/// What a walk does. Each function gives 0 to go on or an errno that ends the walk.
class TreeVisitor {
  public:
    virtual ~TreeVisitor() = default;
    /// Every object, a folder before its contents. `*descend` comes as true for a folder and says
    /// at return whether the walk shall enter.
    virtual int visit(const TreeEntry& entry, bool* descend) = 0;
    /// A folder that is being entered.
    virtual int enter(const TreeEntry& /*entry*/) { return 0; }
    /// A folder whose contents have all been visited.
    virtual int leave(const TreeEntry& /*entry*/) { return 0; }
    /// A folder that cannot be opened (ENOTDIR and ELOOP: it is no folder any more).
    virtual int cannotEnter(const TreeEntry& /*entry*/, int /*error*/) { return 0; }
    /// The rest of the current folder cannot be listed.
    virtual int cannotList(int /*error*/) { return 0; }
};

/// The open folders from the top of a walk to where it stands. Holds at most `budget` descriptors
/// (two at least); the others are opened again over ".." and compared with isSameObject().
class FolderStack {
  public:
    static constexpr std::size_t kDefaultBudget = 32;

    explicit FolderStack(std::size_t budget = kDefaultBudget) : _budget(budget < 2 ? 2 : budget) {}

    /// The innermost folder; the stack must not be empty.
    [[nodiscard]] int top() const noexcept { return _folders.back().fd.get(); }
    [[nodiscard]] std::size_t depth() const noexcept { return _folders.size(); }
    int push(UniqueFd folder);
    /// Drops the innermost folder. ESTALE when it lies in another folder now than the one it was
    /// entered from. `*reopened`: the position in the folder that is now the innermost is lost.
    int pop(bool* reopened);
    void clear() noexcept { _folders.clear(); }

  private:
    struct Folder {
        UniqueFd fd;
        struct statx identity;  // known once the descriptor was closed
    };

    std::size_t _budget;
    std::vector<Folder> _folders;
};

/// Takes over whole subtrees from a walk.
class SubtreeTaker {
  public:
    virtual ~SubtreeTaker() = default;
    /// Takes the folder, which is empty then, or leaves it. An errno ends the walk.
    virtual int offer(UniqueFd* folder) = 0;
};

/// How the walks of one request learn that they should end, and where they count what they did.
/// Shared by the threads of one walk; borrows the cancellation.
class TreeProgress {
  public:
    enum class Counting : std::uint8_t { objects, nothing };

    explicit TreeProgress(Cancellation& cancellation, Counting counting = Counting::objects)
        : _cancellation(cancellation),
          _counting(counting),
          _total(counting == Counting::objects ? cancellation.objectCount() : 0) {}

    [[nodiscard]] bool cancelled() noexcept { return _cancellation.requested(); }
    void add(std::uint64_t objects) noexcept {
        if (_counting == Counting::nothing) return;
        const std::uint64_t before = _total.fetch_add(objects, std::memory_order_relaxed);
        _cancellation.setObjectCount(before + objects);
    }

  private:
    Cancellation& _cancellation;
    Counting _counting;
    std::atomic<std::uint64_t> _total;
};

struct TreeWalkOptions {
    /// Where to go on in a folder that had to be closed: at the place where it was left, or at the
    /// start, because what was visited is gone.
    enum class Resume : std::uint8_t { atPosition, fromStart };
    /// Whether a folder on which something is mounted is entered. Else cannotEnter() gets EXDEV.
    enum class Mounts : std::uint8_t { entered, refused };

    Resume resume = Resume::atPosition;
    Mounts mounts = Mounts::entered;
    /// Asked before each object: the walk ends with ECANCELED. Null: nothing ends it. Borrowed.
    TreeProgress* progress = nullptr;
    std::size_t budget = FolderStack::kDefaultBudget;
};

/// Walks depth first, with an explicit stack, whatever the depth. Holds the names of the
/// subfolders it has yet to enter and one buffer of entries; nothing per object. Large folders are
/// visited in the order of their inodes. Not synchronised; may be used again after a walk.
class TreeWalk {
  public:
    explicit TreeWalk(const TreeWalkOptions& options = {})
        : _options(options), _folders(options.budget) {}

    /// Visits everything below the open folder `top`, not `top` itself. 0, or the errno with which
    /// the visitor or the walk ended.
    int walk(UniqueFd top, TreeVisitor& visitor);
    /// Offers every folder, before it is entered, to `taker`; the visitor is not told to enter or
    /// leave one that is taken.
    void setSubtreeTaker(SubtreeTaker* taker) noexcept { _taker = taker; }
    /// After a failure: the path, relative to the top, of the object at which the walk ended;
    /// empty for the top itself.
    [[nodiscard]] const std::string& failedPath() const noexcept { return _failedPath; }

  private:
    struct Frame {
        std::size_t nameOffset;    // its own name in _names
        std::size_t pendingStart;  // where the names of its subfolders begin
        off_t position;
        bool exhausted;
    };

    int step(TreeVisitor& visitor);
    int readFolder(TreeVisitor& visitor);
    int visitBatch(std::size_t length, TreeVisitor& visitor);
    int visitEntry(std::size_t offset, TreeVisitor& visitor);
    int descend(TreeVisitor& visitor);
    int ascend(TreeVisitor& visitor);
    int failAt(int error, const char* name);
    void reportVisited() noexcept;

    TreeWalkOptions _options;
    FolderStack _folders;
    std::uint64_t _visited = 0;  // not yet reported
    SubtreeTaker* _taker = nullptr;
    std::vector<Frame> _frames;
    std::vector<char> _names;  // of the open folders and of those still to be entered
    std::unique_ptr<char[]> _buffer;
    std::vector<std::pair<std::uint64_t, std::size_t>> _order;  // inode and offset in the buffer
    std::string _failedPath;
};

/// Walks with a second thread, which begins when the tree turns out to be large. The visitor is
/// called by both at once and only to visit: each folder still before its contents, the order is
/// otherwise open. After the first failure the other thread ends before its next object.
int walkWithHelper(UniqueFd top, TreeVisitor& visitor, const TreeWalkOptions& options = {});

/// Opens a folder for a walk; a link in the last component is followed only when wanted.
[[nodiscard]] UniqueFd openFolder(int parent, const char* name, bool followLink) noexcept;

}  // namespace corvalen
