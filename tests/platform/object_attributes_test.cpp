// SPDX-License-Identifier: MIT
// Flags of objects, and the form of access control lists.
#include <linux/capability.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdio>
#include <thread>

#include "platform/files/extended_acl.hpp"
#include "platform/files/file_attributes.hpp"
#include "support/golden.hpp"
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
    std::uint32_t read(const std::string& path) { return readOf(path).value(); }
    Result<std::uint32_t> readOf(const std::string& path) {
        return _flags->readFlags({kWorkingDirectory, path.c_str()}, attributesOf(path));
    }
    int set(const std::string& path, std::uint32_t flags, bool follow = false) {
        return test::errnoOf(_flags->setFlags({kWorkingDirectory, path.c_str(), follow}, flags));
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
        const Result<UniqueFd> anchor = openAnchor({kWorkingDirectory, target.c_str()});
        EXPECT_TRUE(_flags->setFlags({anchor.value()}, 0));
        EXPECT_EQ(read(target), 0U);

        EXPECT_EQ(set(at("pipe"), kUserImmutableFlag), ENOTSUP);
        EXPECT_EQ(set(at("missing"), 0), ENOENT);
    });
}

TEST_F(FileFlagsTest, TreatsEachErrorOfMissingSupportAsNoFlags) {
    const char* none = "/proc/version";  // its file system keeps no flags
    for (const int error : {EINVAL, ENOTTY, EOPNOTSUPP}) {
        const auto asking = [&] {
            EXPECT_TRUE(test::loseCalls({468, 469, SYS_ioctl}, static_cast<unsigned>(error)));
            EXPECT_EQ(test::errnoOf(readOf(none)), ENOTSUP);
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

bool isValid(const ExternalAcl& bytes) {
    return isValidExternalAcl({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

TEST(ExternalAcl, IsCheckedEntryByEntry) {
    // "tag:permissions:id ..." in hexadecimal, after the version.
    const auto check = [](const std::string& row) {
        std::vector<AclEntry> entries;
        std::istringstream words(row);
        unsigned version = 0;
        words >> std::hex >> version;
        for (std::string word; words >> word;) {
            AclEntry& entry = entries.emplace_back();
            (void)std::sscanf(word.c_str(), "%x:%x:%x", &entry.tag, &entry.permissions, &entry.id);
        }
        ExternalAcl list = externalAclOf(entries);
        list[0] = static_cast<std::uint8_t>(version);
        return isValid(list) ? "valid" : "refused";
    };
    test::expectRows("access_lists.txt", {{"list", check}});
    const std::vector<AclEntry> whole = {{1, 6}, {2, 7, 5}, {4, 4}, {8, 5, 5}, {16, 7}, {32, 0}};
    for (const int change : {-8, -1, 1, 7}) {
        ExternalAcl bytes = externalAclOf(whole);
        bytes.resize(bytes.size() + static_cast<std::size_t>(change));
        EXPECT_FALSE(isValid(bytes)) << change;
    }
    std::vector<AclEntry> many = {{1, 6}};
    while (many.size() < kMaximumAclEntries - 3)
        many.push_back({2, 7, static_cast<std::uint32_t>(many.size())});
    many.insert(many.end(), {{4, 4}, {16, 7}, {32, 0}});
    EXPECT_TRUE(isValid(externalAclOf(many)));
    many.insert(many.begin() + 1, {2, 7, 0});
    EXPECT_FALSE(isValid(externalAclOf(many)));
}

}  // namespace
}  // namespace corvalen
