// SPDX-License-Identifier: MIT
// What has reached the disk when an operation replies. The program's own fsync(2) and syncfs(2)
// replace those of the library, record their calls, and fail on demand.
#include <sys/syscall.h>

#include <climits>

#include "fileops/operations_fixture.hpp"

namespace {

std::vector<std::string> synced;
/// Number of calls that succeed before one fails with EIO; -1: all succeed.
int failing = -1;

int sync(long number, int descriptor) {
    char path[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    (void)!::readlink(link.c_str(), path, sizeof path - 1);
    synced.push_back(std::string(path).substr(std::string(path).rfind('/') + 1));
    if (failing-- == 0) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(::syscall(number, descriptor));
}

}  // namespace

extern "C" {
int fsync(int descriptor) {
    return sync(SYS_fsync, descriptor);
}
int syncfs(int descriptor) noexcept {
    return sync(SYS_syncfs, descriptor);
}
}

namespace corvalen {
namespace {

class Synced : public testing::FileOperationsTest {
  protected:
    /// "2:Operation" lets the third call fail.
    std::string call(const std::string& operation, const Array& arguments) override {
        const bool fails = operation[1] == ':';
        failing = fails ? operation[0] - '0' : -1;
        synced.clear();
        std::string text = FileOperationsTest::call(operation.substr(fails ? 2 : 0), arguments);
        text += "; synced";
        for (const std::string& name : synced)
            text += name.starts_with(".corvalen-") ? " private" : " " + name;
        return text;
    }
};

TEST_F(Synced, IsEachNewObjectAndItsName) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    expectOperations("sync.txt");
}

}  // namespace
}  // namespace corvalen
