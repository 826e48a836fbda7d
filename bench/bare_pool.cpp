// SPDX-License-Identifier: MIT
// The lower bound of a walk by several threads. A pool lists every directory below a folder, one
// thread per directory, and examines every object if told to. It has no limits, no order, no
// protection against changes and an unbounded queue.
//
// Usage: bare_pool FOLDER THREADS names|statx
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/files/directory_reader.hpp"

namespace {

using namespace corvalen;

constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

class BarePool {
  public:
    BarePool(const char* folder, bool examines) : _examines(examines) {
        _directories.push_back(openDirectoryAt(kWorkingDirectory, folder).value());
    }

    void work() {
        const auto buffer = std::make_unique<std::byte[]>(kBufferSize);
        std::unique_lock lock(_mutex);
        for (;;) {
            ++_idle;
            if (_idle == _threads) _changed.notify_all();
            _changed.wait(lock, [this] { return !_directories.empty() || _idle == _threads; });
            if (_directories.empty()) return;
            --_idle;
            UniqueFd directory = std::move(_directories.back());
            _directories.pop_back();
            lock.unlock();
            list(directory, {buffer.get(), kBufferSize});
            lock.lock();
        }
    }

    std::uint64_t run(int threads) {
        _threads = threads;
        std::vector<std::thread> pool;
        pool.reserve(static_cast<std::size_t>(threads));
        for (int i = 0; i < threads; ++i)
            pool.emplace_back([this] { work(); });
        for (std::thread& thread : pool)
            thread.join();
        return _objects;
    }

  private:
    void list(Descriptor directory, std::span<std::byte> buffer) {
        std::uint64_t objects = 0;
        std::vector<UniqueFd> found;
        for (std::ptrdiff_t read; (read = readDirectoryEntries(directory, buffer)) > 0;) {
            const std::span<std::byte> entries = buffer.first(static_cast<std::size_t>(read));
            for (std::size_t at = 0; at < entries.size();) {
                const RawDirectoryEntry entry = directoryEntryAt(entries.subspan(at));
                at += entry.length;
                if (entry.name == "." || entry.name == "..") continue;
                ++objects;
                struct statx attributes {};
                if (_examines)
                    (void)examineAt(directory, entry.name.data(), STATX_BASIC_STATS, &attributes);
                if (entry.type != EntryType::directory) continue;
                if (Result<UniqueFd> inner = openDirectoryAt(directory, entry.name.data()))
                    found.push_back(*std::move(inner));
            }
        }
        const std::lock_guard lock(_mutex);
        _objects += objects;
        for (UniqueFd& next : found)
            _directories.push_back(std::move(next));
        _changed.notify_all();
    }

    const bool _examines;
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<UniqueFd> _directories;
    std::uint64_t _objects = 0;
    int _threads = 0;
    int _idle = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const int threads = argc == 4 ? std::atoi(argv[2]) : 0;
    const std::string_view what = argc == 4 ? argv[3] : "";
    if (threads <= 0 || (what != "names" && what != "statx")) {
        std::fputs("usage: bare_pool FOLDER THREADS names|statx\n", stderr);
        return 2;
    }
    // The queue holds a descriptor for each directory found.
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
    const std::uint64_t objects = BarePool(argv[1], what == "statx").run(threads);
    std::printf("%llu objects\n", static_cast<unsigned long long>(objects));
    return objects > 0 ? 0 : 1;
}
