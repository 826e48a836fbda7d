// SPDX-License-Identifier: MIT
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include "platform/file_manager_tree.hpp"

namespace corvalen {
namespace {

/// So many folders one thread walks faster than a second one starts.
constexpr int kFoldersBeforeHelp = 32;

/// Two walkers that hand each other a folder whenever the other has nothing to do.
class SharedWalk : public SubtreeTaker, public TreeVisitor {
  public:
    SharedWalk(TreeVisitor& visitor, const TreeWalkOptions& options) noexcept
        : _visitor(visitor), _options(options) {}

    int run(UniqueFd top) {
        work(std::move(top));
        if (_helper.joinable()) _helper.join();
        return _error;
    }

    int visit(const TreeEntry& entry, bool* descend) override {
        if (const int error = _error.load(std::memory_order_relaxed); error != 0) return error;
        return noteFailure(_visitor.visit(entry, descend));
    }
    int cannotEnter(const TreeEntry& entry, int error) override {
        return noteFailure(_visitor.cannotEnter(entry, error));
    }
    int cannotList(int error) override { return noteFailure(_visitor.cannotList(error)); }

    int offer(UniqueFd* folder) override {
        if (_foldersAlone < kFoldersBeforeHelp) {
            if (++_foldersAlone == kFoldersBeforeHelp) startHelper();
            return 0;
        }
        if (!_wanted.load(std::memory_order_relaxed)) return 0;
        const std::lock_guard lock(_mutex);
        if (!_wanted.load(std::memory_order_relaxed)) return 0;
        _offered = std::move(*folder);
        _wanted = false;
        _changed.notify_one();
        return 0;
    }

  private:
    void startHelper() noexcept {
        try {
            _workers = 2;
            _helper = std::thread([this] { work(UniqueFd()); });
        } catch (const std::exception&) {
            _workers = 1;  // then one thread does it all
        }
    }

    /// Walks what it is given and then whatever the other walker hands over, until both have
    /// nothing left.
    void work(UniqueFd folder) {
        TreeWalk walk(_options);
        walk.setSubtreeTaker(this);
        do {
            if (folder) noteFailure(walkOne(walk, std::move(folder)));
        } while (waitForFolder(&folder));
    }

    /// An exception must not leave: the other thread runs, and waits for this one.
    int walkOne(TreeWalk& walk, UniqueFd folder) noexcept {
        try {
            return walk.walk(std::move(folder), *this);
        } catch (const std::bad_alloc&) {
            return ENOMEM;
        } catch (const std::exception&) {
            return EIO;
        }
    }

    bool waitForFolder(UniqueFd* folder) {
        std::unique_lock lock(_mutex);
        // The last one at work knows that nobody is left who could offer anything.
        if (++_idle == _workers) {
            _finished = true;
            _wanted = false;
            _changed.notify_all();
            return false;
        }
        _wanted = true;
        _changed.wait(lock, [this] { return _finished || _offered; });
        if (!_offered) return false;
        *folder = std::move(_offered);
        --_idle;
        return true;
    }

    int noteFailure(int error) noexcept {
        int none = 0;
        if (error != 0) (void)_error.compare_exchange_strong(none, error);
        return error;
    }

    TreeVisitor& _visitor;
    const TreeWalkOptions _options;
    std::atomic<int> _error{0};
    std::atomic<bool> _wanted{false};
    int _foldersAlone = 0;  // touched by the second thread only once it stands still
    std::mutex _mutex;
    std::condition_variable _changed;
    // Under the mutex, _workers before the second thread begins.
    UniqueFd _offered;
    int _workers = 1;
    int _idle = 0;
    bool _finished = false;
    std::thread _helper;
};

}  // namespace

int walkWithHelper(UniqueFd top, TreeVisitor& visitor, const TreeWalkOptions& options) {
    return SharedWalk(visitor, options).run(std::move(top));
}

}  // namespace corvalen
