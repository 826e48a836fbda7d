// SPDX-License-Identifier: MIT
// The daemon's own operations, on real objects.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>

#include "helper_fixture.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::test {
namespace {

using std::filesystem::exists;
using namespace ::testing;

class MaintenanceTest : public HelperTest {
  protected:
    MaintenanceTest() { makeHelper(catalogue); }

    [[nodiscard]] std::string file(const std::string& name) const {
        EXPECT_TRUE(std::ofstream(scratch.path(name)));
        return scratch.path(name);
    }
    std::int64_t remove(const std::string& path) {
        ErrorRef error;
        const bool removed = helper->enforceRemovalOfFileSystemObjectAtPath(path, &error);
        EXPECT_EQ(removed, error == nullptr);
        return error ? error->code() : 0;
    }

    ScratchFolder scratch;
};

TEST_F(MaintenanceTest, EachKindOfObjectIsRemovedOrRefused) {
    const std::string target = file("target"), folder = scratch.path("folder");
    std::filesystem::create_directories(folder + "/full/x");
    std::filesystem::create_directory(folder + "/empty");
    std::filesystem::create_symlink(target, scratch.path("link"));
    std::filesystem::create_symlink(folder, scratch.path("folderlink"));
    ASSERT_EQ(::mkfifo(scratch.path("fifo").c_str(), 0600), 0);
    const std::pair<std::string, std::int64_t> cases[] = {
        {"", 22},
        {target + std::string("\0x", 2), 22},
        {scratch.path("link"), 0},  // the link, not its target
        {scratch.path("folderlink/"), 20},
        {scratch.path("folderlink"), 0},
        {scratch.path("fifo"), 0},
        {target + "/", 20},
        {folder + "/full", 66},
        {folder + "/empty///", 0},
        {scratch.path(std::string(256, 'n')), 63},
        {"/", 16},
    };
    for (const auto& [path, code] : cases)
        EXPECT_EQ(remove(path), code) << path;
    EXPECT_TRUE(exists(target));
    if (::mknod(scratch.path("whiteout").c_str(), S_IFCHR | 0600, ::makedev(0, 0)) != 0)
        GTEST_SKIP() << "whiteouts cannot be made here";
    EXPECT_EQ(remove(scratch.path("whiteout")), 5);
    EXPECT_TRUE(exists(scratch.path("whiteout")));
}

TEST_F(MaintenanceTest, UserFlagsAreTakenOffAndSystemFlagsStay) {
    const std::string locked = file("locked");
    const ObjectAddress address{AT_FDCWD, locked.c_str()};
    if (flags.setFlags(address, kUserImmutableFlag) != 0) GTEST_SKIP() << "no file flags here";
    struct stat attributes {};
    ASSERT_EQ(::stat(locked.c_str(), &attributes), 0);
    flags.systemLocked = {attributes.st_ino};
    EXPECT_EQ(remove(locked), 5);
    flags.systemLocked = {};
    flags.failure = EPERM;
    EXPECT_EQ(remove(locked), 5);
    flags.failure = 0;
    EXPECT_EQ(remove(locked), 0);
    EXPECT_FALSE(exists(locked));
}

TEST_F(MaintenanceTest, UninstallingRemovesEveryRightAndReportsOnlyAMissingReference) {
    ::testing::internal::CaptureStderr();  // the fake refuses, which is only told to the console
    EXPECT_EQ(helper->prepareUninstall(), nullptr);
    ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(events.take(), SizeIs(29 + 1));  // the rights, and the reference freed
    authorization.referenceStatus = kAuthorizationInternal;
    EXPECT_EQ(*helper->prepareUninstall(), *makeOSStatusError(-60008));
    EXPECT_THAT(events.take(), IsEmpty());
}

}  // namespace
}  // namespace corvalen::test
