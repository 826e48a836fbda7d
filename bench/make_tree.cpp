// SPDX-License-Identifier: MIT
// make_tree FOLDER COUNT: fills a new directory with COUNT objects for the benchmarks of the walks.
//
// One object in eight is a directory, the others are files of 0 to 299 bytes. Names have 8 to 23
// bytes and an extension. Directories hold 16 objects or none, a few hold a thousand. One object in
// a hundred is named "*.hit", is 400 days old and has an unknown owner. The same COUNT makes the
// same tree.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <random>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace {

constexpr std::uint64_t kFolderEvery = 8;
constexpr std::uint64_t kHitEvery = 100;
constexpr std::uint64_t kCrowdedEvery = 500;
constexpr std::uint64_t kCrowd = 1000;
constexpr std::uint64_t kUsualContents = 16;
constexpr std::uint64_t kLargestFile = 300;
constexpr uid_t kUnknownUser = 3999999;
constexpr time_t kAge = 400L * 86400;

class TreeMaker {
  public:
    explicit TreeMaker(std::string base) { _folders.push_back(std::move(base)); }

    bool make(std::uint64_t count) {
        if (::mkdir(_folders.front().c_str(), 0755) != 0) return false;
        for (std::uint64_t index = 1; index <= count; ++index) {
            if (!makeObject(_folders.front() + "/" + name(index), index)) return false;
            if (++_contents >= _room) moveOn();
        }
        return true;
    }

  private:
    std::string name(std::uint64_t index) {
        const std::string number = std::to_string(index);
        std::string result(8 + _random() % 16, 'n');
        result.replace(0, number.size(), number);
        return index % kHitEvery == 0 ? result + ".hit" : result + ".txt";
    }

    bool makeObject(const std::string& path, std::uint64_t index) {
        const bool isHit = index % kHitEvery == 0;
        if (index % kFolderEvery == 1) {
            if (::mkdir(path.c_str(), 0755) != 0) return false;
            _folders.push_back(path);
        } else {
            const corvalen::UniqueFd file(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644));
            const std::string content(_random() % kLargestFile, 'x');
            if (!file || ::write(file.get(), content.data(), content.size()) < 0) return false;
        }
        if (!isHit) return true;
        const timespec old{::time(nullptr) - kAge, 0};
        const timespec times[2] = {old, old};
        return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 &&
               ::lchown(path.c_str(), kUnknownUser, kUnknownUser) == 0;
    }

    void moveOn() {
        if (_folders.size() < 2) return;
        _folders.pop_front();
        _contents = 0;
        _room = ++_filled % kCrowdedEvery == 0 ? kCrowd : kUsualContents;
    }

    std::deque<std::string> _folders;
    std::minstd_rand _random{7};
    std::uint64_t _contents = 0;
    std::uint64_t _room = kUsualContents;
    std::uint64_t _filled = 0;
};

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t count = 0;
    const std::string_view text = argc == 3 ? argv[2] : "";
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), count);
    if (count == 0 || parsed.ptr != text.data() + text.size()) {
        std::fputs("usage: make_tree FOLDER COUNT\n", stderr);
        return 2;
    }
    if (TreeMaker(argv[1]).make(count)) return 0;
    std::perror("make_tree");
    return 1;
}
