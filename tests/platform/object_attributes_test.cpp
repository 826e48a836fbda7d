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
#include "support/scratch.hpp"

namespace corvalen {
namespace {

using FileFlagsTest = testing::Scratch;

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
        const auto flags = makeFileFlags();
        const ObjectAddress object{kWorkingDirectory, path.c_str()};
        EXPECT_EQ(flags->readFlags(object, {}).value(), kSystemImmutableFlag);
        EXPECT_EQ(test::errnoOf(flags->setFlags(object, 0)), EPERM);
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
