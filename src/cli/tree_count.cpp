// SPDX-License-Identifier: MIT
#include "cli/tree_count.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "cli/text.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen::cli {
namespace {

/// Objects between two looks at the clock.
constexpr std::uint64_t kClockInterval = 64;

void addContents(UniqueFd directory, std::chrono::steady_clock::time_point end, TreeCount* count) {
    TreeWalk walk(std::move(directory), {.mounts = TreeWalkOptions::Mounts::refused});
    while (walk.next() == TreeWalk::Step::object) {
        ++count->objects;
        const bool isDirectory = walk.entry().type == EntryType::directory;
        if (isDirectory && walk.enter() != 0) count->isComplete = false;
        if (count->objects % kClockInterval != 0 || std::chrono::steady_clock::now() < end)
            continue;
        count->isComplete = false;
        return;
    }
    if (walk.error() != 0) count->isComplete = false;
}

}  // namespace

TreeCount countTree(const std::string& path, CountedTop top,
                    std::chrono::steady_clock::time_point end) {
    TreeCount count;
    const bool isIncluded = top == CountedTop::included;
    struct stat status {};
    if (::fstatat(AT_FDCWD, path.c_str(), &status, isIncluded ? AT_SYMLINK_NOFOLLOW : 0) != 0) {
        count.isComplete = errno == ENOENT || errno == ENOTDIR;
        return count;
    }
    count.objects = isIncluded ? 1 : 0;
    if (!S_ISDIR(status.st_mode)) return count;
    const int links = isIncluded ? O_NOFOLLOW : 0;
    UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | links));
    if (directory)
        addContents(std::move(directory), end, &count);
    else
        count = {0, false};
    return count;
}

std::string countText(const TreeCount& count) {
    if (count.isComplete) return objectCountText(count.objects);
    return count.objects == 0 ? std::string() : "at least " + objectCountText(count.objects);
}

}  // namespace corvalen::cli
