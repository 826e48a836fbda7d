// SPDX-License-Identifier: MIT
// Flags, access control lists and Finder information of objects.
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <cerrno>
#include <thread>

#include "platform/files/extended_acl.hpp"
#include "platform/files/file_flags.hpp"
#include "platform/files/finder_info.hpp"
#include "support/acl_bytes.hpp"
#include "support/missing_calls.hpp"
#include "support/results.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

using Entries = std::vector<test::AclEntry>;

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
        const char* none = "/proc/version";  // its file system keeps no flags
        EXPECT_EQ(test::errnoOf(readOf(none)), ENOTSUP);
        EXPECT_EQ(set(none, kUserImmutableFlag), ENOTSUP);
    });
}

TEST_F(FileFlagsTest, TakesEveryRefusalToTellForNoFlags) {
    const char* none = "/proc/version";
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

ExternalAcl externalForm(const Entries& entries, char version = 2) {
    const std::string bytes = test::aclBytes(entries, version);
    return {bytes.begin(), bytes.end()};
}

bool isValid(const ExternalAcl& bytes) {
    return isValidExternalAcl({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

const ExternalAcl kList =
    externalForm({{1, 6}, {2, 7, 1000}, {2, 4, 1001}, {4, 4}, {8, 5, 50}, {16, 7}, {32, 0}});

TEST(ExternalAcl, IsCheckedEntryByEntry) {
    const std::tuple<const char*, Entries, bool> cases[] = {
        {"only the mode", {{1, 6}, {4, 4}, {32, 0}}, true},
        {"a mask without named entries", {{1, 6}, {4, 4}, {16, 4}, {32, 0}}, true},
        {"no mask", {{1, 6}, {2, 7, 5}, {4, 4}, {32, 0}}, false},
        {"two masks", {{1, 6}, {4, 4}, {16, 4}, {16, 4}, {32, 0}}, false},
        {"no owner", {{4, 4}, {32, 0}}, false},
        {"the wrong order", {{1, 6}, {32, 0}, {4, 4}}, false},
        {"the same user twice", {{1, 6}, {2, 7, 5}, {2, 7, 5}, {4, 4}, {16, 7}, {32, 0}}, false},
        {"descending users", {{1, 6}, {2, 7, 6}, {2, 7, 5}, {4, 4}, {16, 7}, {32, 0}}, false},
        {"a user without id", {{1, 6}, {2, 7}, {4, 4}, {16, 7}, {32, 0}}, false},
        {"a fourth permission bit", {{1, 8}, {4, 4}, {32, 0}}, false},
        {"an unknown tag", {{1, 6}, {3, 6}, {4, 4}, {32, 0}}, false},
        {"nothing", {}, false},
    };
    for (const auto& [what, entries, valid] : cases)
        EXPECT_EQ(isValid(externalForm(entries)), valid) << what;
    EXPECT_FALSE(isValid(externalForm({{1, 6}, {4, 4}, {32, 0}}, 3)));
    for (const int change : {-8, -1, 1, 7}) {
        ExternalAcl bytes = kList;
        bytes.resize(bytes.size() + static_cast<std::size_t>(change));
        EXPECT_FALSE(isValid(bytes)) << change;
    }
    Entries many = {{1, 6}};
    while (many.size() < kMaximumAclEntries - 3)
        many.push_back({2, 7, static_cast<std::uint32_t>(many.size())});
    many.insert(many.end(), {{4, 4}, {16, 7}, {32, 0}});
    EXPECT_TRUE(isValid(externalForm(many)));
    many.insert(many.begin() + 1, {2, 7, 0});
    EXPECT_FALSE(isValid(externalForm(many)));
}

class ObjectAttributes : public testing::Scratch {
  protected:
    std::unique_ptr<ExtendedAcl> _acl = makeExtendedAcl();
};

TEST_F(ObjectAttributes, AListIsWrittenReadAndRemoved) {
    const std::string path = file("file");
    const ObjectAddress object{kWorkingDirectory, path.c_str()};
    test::withAndWithout(test::kNewCalls, [&] {
        EXPECT_TRUE(failedWith(_acl->writeList(object, AclKind::access, {2, 0, 0, 0}), EINVAL));
        const Result<> written = _acl->writeList(object, AclKind::access, kList);
        if (failedWith(written, EOPNOTSUPP)) GTEST_SKIP() << "no access control lists here";
        ASSERT_TRUE(written);
        EXPECT_EQ(_acl->readList(object, AclKind::access), kList);
        EXPECT_TRUE(testing::shell("getfacl -cn '" + path + "' | grep -qx user:1000:rwx"));
        EXPECT_EQ(modeOf(path), 0670U);

        EXPECT_TRUE(_acl->setInheritedMark(object, true));
        EXPECT_EQ(_acl->readInheritedMark(object), true);

        EXPECT_TRUE(_acl->removeList(object, AclKind::access));
        EXPECT_TRUE(_acl->removeList(object, AclKind::access));
        EXPECT_EQ(_acl->readList(object, AclKind::access), ExternalAcl());
        EXPECT_EQ(modeOf(path), 0670U);
    });
}

TEST_F(ObjectAttributes, LinksAreFollowedOnlyWhenAsked) {
    const std::string target = file("target");
    link("link", "target");
    const UniqueFd parent(::open(_top.c_str(), O_PATH | O_CLOEXEC));
    test::withAndWithout(test::kNewCalls, [&] {
        EXPECT_TRUE(
            failedWith(_acl->writeList({parent, "link"}, AclKind::access, kList), EOPNOTSUPP));
        EXPECT_TRUE(failedWith(setFinderCodes({parent, "link"}, 1, 2), EPERM));
        EXPECT_TRUE(_acl->removeList({parent, "link", true}, AclKind::access));
        EXPECT_EQ(::chmod(target.c_str(), 0644), 0);
        EXPECT_TRUE(_acl->writeList({parent, "link", true}, AclKind::access, kList));
        EXPECT_EQ(modeOf(target), 0670U);
    });
}

TEST_F(ObjectAttributes, FinderInformationKeepsItsLayout) {
    const std::string path = file("file");
    const ObjectAddress object{kWorkingDirectory, path.c_str()};
    test::withAndWithout(test::kNewCalls, [&] {
        std::string bytes(kFinderInfoLength, '\0');
        bytes[9] = '\x01';
        bytes[31] = '\x7f';
        ASSERT_EQ(::setxattr(path.c_str(), kFinderInfoAttribute, bytes.data(), bytes.size(), 0), 0);
        EXPECT_TRUE(setFinderCodes(object, 0x54455854, 0x74747874));
        EXPECT_TRUE(setFinderInvisible(object, true));
        const std::string expected = "TEXTttxt\x40" + bytes.substr(9);
        ASSERT_EQ(::getxattr(path.c_str(), kFinderInfoAttribute, bytes.data(), bytes.size()), 32);
        EXPECT_EQ(bytes, expected);
    });
}

}  // namespace
}  // namespace corvalen
