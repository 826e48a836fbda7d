// SPDX-License-Identifier: MIT
#include "platform/extended_acl.hpp"

#include <sys/xattr.h>

#include <cerrno>

#include "platform/finder_info.hpp"
#include "support/missing_calls.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

constexpr std::uint32_t kNoId = 0xFFFFFFFF;

struct Entry {
    unsigned tag;
    unsigned permissions;
    std::uint32_t id = kNoId;
};

ExternalAcl externalForm(const std::vector<Entry>& entries, std::uint8_t version = 2) {
    ExternalAcl bytes = {version, 0, 0, 0};
    const auto put = [&bytes](std::uint32_t number, int length) {
        for (int i = 0; i < length; ++i)
            bytes.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
    };
    for (const Entry& entry : entries) {
        put(entry.tag, 2);
        put(entry.permissions, 2);
        put(entry.id, 4);
    }
    return bytes;
}

bool isValid(const ExternalAcl& bytes) {
    return isValidExternalAcl({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

const ExternalAcl kList =
    externalForm({{1, 6}, {2, 7, 1000}, {2, 4, 1001}, {4, 4}, {8, 5, 50}, {16, 7}, {32, 0}});

TEST(ExternalAcl, IsCheckedEntryByEntry) {
    const std::tuple<const char*, std::vector<Entry>, bool> cases[] = {
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
    std::vector<Entry> many = {{1, 6}};
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
    const ObjectAddress object{AT_FDCWD, path.c_str()};
    test::withAndWithout(test::kNewCalls, [&] {
        ExternalAcl read = {1};
        EXPECT_EQ(_acl->writeList(object, AclKind::access, {2, 0, 0, 0}), EINVAL);
        const int error = _acl->writeList(object, AclKind::access, kList);
        if (error == EOPNOTSUPP) GTEST_SKIP() << "no access control lists here";
        ASSERT_EQ(error, 0);
        EXPECT_EQ(_acl->readList(object, AclKind::access, &read), 0);
        EXPECT_EQ(read, kList);
        EXPECT_TRUE(testing::shell("getfacl -cn '" + path + "' | grep -qx user:1000:rwx"));
        EXPECT_EQ(modeOf(path), 0670U);

        bool inherited = false;
        EXPECT_EQ(_acl->setInheritedMark(object, true), 0);
        EXPECT_EQ(_acl->readInheritedMark(object, &inherited), 0);
        EXPECT_TRUE(inherited);

        EXPECT_EQ(_acl->removeList(object, AclKind::access), 0);
        EXPECT_EQ(_acl->removeList(object, AclKind::access), 0);
        EXPECT_EQ(_acl->readList(object, AclKind::access, &read), 0);
        EXPECT_TRUE(read.empty());
        EXPECT_EQ(modeOf(path), 0670U);
    });
}

TEST_F(ObjectAttributes, LinksAreFollowedOnlyWhenAsked) {
    const std::string target = file("target");
    link("link", "target");
    const UniqueFd parent(::open(_top.c_str(), O_PATH | O_CLOEXEC));
    test::withAndWithout(test::kNewCalls, [&] {
        EXPECT_EQ(_acl->writeList({parent.get(), "link"}, AclKind::access, kList), EOPNOTSUPP);
        EXPECT_EQ(setFinderCodes({parent.get(), "link"}, 1, 2), EPERM);
        EXPECT_EQ(_acl->removeList({parent.get(), "link", true}, AclKind::access), 0);
        EXPECT_EQ(::chmod(target.c_str(), 0644), 0);
        EXPECT_EQ(_acl->writeList({parent.get(), "link", true}, AclKind::access, kList), 0);
        EXPECT_EQ(modeOf(target), 0670U);
    });
}

TEST_F(ObjectAttributes, FinderInformationKeepsItsLayout) {
    const std::string path = file("file");
    const ObjectAddress object{AT_FDCWD, path.c_str()};
    test::withAndWithout(test::kNewCalls, [&] {
        std::string bytes(kFinderInfoLength, '\0');
        bytes[9] = '\x01';
        bytes[31] = '\x7f';
        ASSERT_EQ(::setxattr(path.c_str(), kFinderInfoAttribute, bytes.data(), bytes.size(), 0), 0);
        EXPECT_EQ(setFinderCodes(object, 0x54455854, 0x74747874), 0);
        EXPECT_EQ(setFinderInvisible(object, true), 0);
        const std::string expected = "TEXTttxt\x40" + bytes.substr(9);
        ASSERT_EQ(::getxattr(path.c_str(), kFinderInfoAttribute, bytes.data(), bytes.size()), 32);
        EXPECT_EQ(bytes, expected);
    });
}

}  // namespace
}  // namespace corvalen
