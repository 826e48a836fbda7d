// SPDX-License-Identifier: MIT
#include "platform/file_flags.hpp"

#include <linux/capability.h>
#include <sys/syscall.h>

#include <cerrno>
#include <thread>

#include "support/missing_calls.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

struct statx attributesOf(const std::string& path) {
    struct statx attributes {};
    EXPECT_EQ(::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &attributes), 0);
    return attributes;
}

class FileFlagsTest : public testing::Scratch {
  protected:
    std::uint32_t read(const std::string& path) {
        std::uint32_t flags = 99;
        EXPECT_EQ(_flags->readFlags({AT_FDCWD, path.c_str()}, attributesOf(path), &flags), 0);
        return flags;
    }
    int set(const std::string& path, std::uint32_t flags, bool follow = false) {
        return _flags->setFlags({AT_FDCWD, path.c_str(), follow}, flags);
    }

    std::unique_ptr<FileFlags> _flags = makeFileFlags();
};

TEST_F(FileFlagsTest, ChangesOnlyTheTwoAttributesOfFilesAndFolders) {
    const std::string paths[] = {file("file"), folder("folder")};
    test::withAndWithout(test::kNewCalls, [&] {
        for (const std::string& path : paths) {
            ASSERT_TRUE(chattr("+d", path));
            for (const std::uint32_t flags :
                 {kUserImmutableFlag, kUserAppendFlag, kUserProtectionFlags, 0U}) {
                EXPECT_EQ(set(path, flags), 0);
                EXPECT_EQ(read(path), flags);
            }
            EXPECT_TRUE(testing::shell("lsattr -d '" + path + "' | cut -d' ' -f1 | grep -q d"));
        }
    });
}

TEST_F(FileFlagsTest, FollowsALinkOnlyWhenAskedAndOpensNothingSpecial) {
    const std::string target = file("target");
    const std::string path = link("link", "target");
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);  // opening it would wait for ever
    test::withAndWithout(test::kNewCalls, [&] {
        EXPECT_EQ(set(path, kUserImmutableFlag), ENOTSUP);
        EXPECT_EQ(read(target), 0U);
        EXPECT_EQ(set(path, kUserImmutableFlag, true), 0);
        EXPECT_EQ(read(target), kUserImmutableFlag);
        const UniqueFd anchor = openAnchor({AT_FDCWD, target.c_str()});
        EXPECT_EQ(_flags->setFlags({anchor.get()}, 0), 0);
        EXPECT_EQ(read(target), 0U);

        EXPECT_EQ(set(at("pipe"), kUserImmutableFlag), ENOTSUP);
        EXPECT_EQ(set(at("missing"), 0), ENOENT);
        const char* none = "/proc/version";  // its file system keeps no flags
        std::uint32_t flags = 0;
        EXPECT_EQ(_flags->readFlags({AT_FDCWD, none}, attributesOf(none), &flags), ENOTSUP);
        EXPECT_EQ(set(none, kUserImmutableFlag), ENOTSUP);
    });
}

TEST_F(FileFlagsTest, TakesEveryRefusalToTellForNoFlags) {
    const char* none = "/proc/version";
    for (const int error : {EINVAL, ENOTTY, EOPNOTSUPP}) {
        const auto asking = [&] {
            EXPECT_TRUE(test::loseCalls({468, 469, SYS_ioctl}, static_cast<unsigned>(error)));
            std::uint32_t flags = 0;
            EXPECT_EQ(_flags->readFlags({AT_FDCWD, none}, attributesOf(none), &flags), ENOTSUP);
            EXPECT_EQ(set(none, kUserImmutableFlag), ENOTSUP);
            ::_exit(HasFailure() ? 1 : 0);
        };
        EXPECT_EXIT(asking(), ::testing::ExitedWithCode(0), "") << error;
    }
}

TEST_F(FileFlagsTest, ShowsSystemFlagsToAProcessThatMayNotClearThem) {
    const std::string path = file("file");
    ASSERT_TRUE(chattr("+i", path));
    // A thread has capabilities of its own.
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct fewer[2] = {};
        ASSERT_EQ(::syscall(SYS_capget, &header, fewer), 0);
        fewer[0].effective &= ~(1U << CAP_LINUX_IMMUTABLE);
        fewer[0].permitted &= ~(1U << CAP_LINUX_IMMUTABLE);
        ASSERT_EQ(::syscall(SYS_capset, &header, fewer), 0);
        _flags = makeFileFlags();
        EXPECT_EQ(read(path), kSystemImmutableFlag);
        EXPECT_EQ(set(path, 0), EPERM);
    }).join();
}

}  // namespace
}  // namespace corvalen
