// SPDX-License-Identifier: MIT
#include <filesystem>

#include "treewalk/fixture.hpp"

namespace corvalen {
namespace {

using testing::Names;

class DirectoryEnumerator : public testing::TreeWalkTest {
  protected:
    static long openDescriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }
    static std::string times(std::string_view text, int count) {
        std::string result;
        for (int i = 0; i < count; ++i)
            result += text;
        return result;
    }
};

TEST_F(DirectoryEnumerator, GivesFoldersBeforeTheirContentsAndFollowsNoLink) {
    grow({"a/", "a/b/", "a/b/\xff\x01 odd", "empty/", "a/up > ..", "dangling > nowhere"});
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    const Names expected{"a", "a/b", "a/b/\xff\x01 odd", "a/up", "dangling", "empty", "pipe"};
    EXPECT_EQ(walked(_top), expected);
    EXPECT_EQ(walked(_top + "/"), expected);
    EXPECT_EQ(walked(at("empty")), Names{});

    const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(_top);
    std::set<std::string> seen;
    while (const auto object = walk->nextObject()) {
        seen.insert(*object);
        const std::size_t slash = object->rfind('/');
        EXPECT_TRUE(slash == std::string::npos || seen.contains(object->substr(0, slash)));
    }
    EXPECT_FALSE(walk->nextObject().has_value());
    EXPECT_TRUE(walk->allObjects().empty());
}

TEST_F(DirectoryEnumerator, RefusesWhatIsNoFolder) {
    for (const std::string& path : {file("file"), at("missing"), std::string()}) {
        EXPECT_EQ(walked(path), Names{});
        EXPECT_EQ(logged("QRLDirectoryEnumerator: attempt to initialize with invalid path '" +
                         path + "'\n"),
                  path.empty() ? 0U : 1U);
    }
}

TEST_F(DirectoryEnumerator, OpensFiveHundredLevelsWithFewDescriptors) {
    chain(folder("deep"), 600);
    const long before = openDescriptors();
    long most = 0;
    Names names;
    {
        ::testing::internal::CaptureStderr();
        const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(at("deep"));
        while (const auto object = walk->nextObject()) {
            names.insert(*object);
            if (object->size() % 100 == 1) most = std::max(most, openDescriptors());
        }
        messages = ::testing::internal::GetCapturedStderr();
    }
    EXPECT_EQ(names.size(), 1000U);
    for (int level = 0; level < 500; ++level) {
        ASSERT_EQ(names.count(times("d/", level) + "f"), 1U) << level;
        ASSERT_EQ(names.count(times("d/", level) + "d"), 1U) << level;
    }
    EXPECT_EQ(logged("QRLDirectoryEnumerator: maximum number of nested directories "
                     "reached. Skipping...\n"),
              1U);
    EXPECT_GT(most, before + 60);
    EXPECT_LE(most, before + 68);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DirectoryEnumerator, EntersRelativePathsOf1024BytesAndNoLonger) {
    std::string base = folder("long");
    for (const std::size_t length : {255U, 254U, 254U, 254U}) {
        base.append("/").append(length, 'a');
        ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    }
    const std::string entered = base.substr(at("long/").size()) + "/abc";
    ASSERT_EQ(entered.size(), 1024U);
    for (const char* name : {"/abc", "/abc/x", "/abcd", "/abcd/y"})
        ASSERT_EQ(::mkdir((base + name).c_str(), 0755), 0);
    const Names names = walked(at("long"));
    EXPECT_EQ(names.size(), 7U);
    EXPECT_EQ(names.count(entered + "/x"), 1U);
    EXPECT_EQ(names.count(entered + "d"), 1U);
    // Also "x" would lead to a path that is too long.
    EXPECT_EQ(logged("Enumerator: maximum path length reached. Skipping...\n"), 2U);
}

TEST_F(DirectoryEnumerator, ANameOf256BytesWithItsSeparatorReadsItsParentAgain) {
    const std::string wide(255, 'w');
    grow({"a/", "a/" + wide + "/", "a/" + wide + "/never", "a/f"});
    const Names names = walked(_top);
    EXPECT_EQ(names.count("a/" + wide), 499U);
    EXPECT_EQ(names.count("a/f"), 499U);
    EXPECT_EQ(names.size(), 999U);
    EXPECT_EQ(logged("nested directories"), 1U);
    // At the base there is no separator, so that 255 bytes are all counted.
    EXPECT_EQ(walked(at("a")), (Names{wide, wide + "/never", "f"}));
}

TEST_F(DirectoryEnumerator, SkippingClosesTheInnermostLevel) {
    grow({"d/", "e/", "files/", "d/x", "e/y", "files/1", "files/2", "files/3"});
    auto walk = QRLDirectoryEnumerator::enumeratorAtPath(_top);
    Names names;
    while (const auto object = walk->nextObject()) {
        names.insert(*object);
        walk->skipDescendents();
    }
    EXPECT_EQ(names, (Names{"d", "e", "files"}));
    walk = QRLDirectoryEnumerator::enumeratorAtPath(at("files"));
    EXPECT_TRUE(walk->nextObject().has_value());
    walk->skipDescendents();
    EXPECT_EQ(walk->nextObject(), std::nullopt);
}

TEST_F(DirectoryEnumerator, NeverEntersTheVolumeTreeUnlessItStays) {
    grow({".volumes/", ".volumes/inside"});
    const auto namesBelow = [this](const char* path, bool stay) {
        UniqueFd base(::open(_top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const auto all = QRLDirectoryEnumerator(std::move(base), path, stay).allObjects();
        return Names(all.begin(), all.end());
    };
    const Names all{".volumes", ".volumes/inside"};
    EXPECT_EQ(namesBelow("/", false), Names{".volumes"});
    EXPECT_EQ(namesBelow("/.vol/1", false), Names{".volumes"});
    EXPECT_EQ(namesBelow("/", true), all);
    EXPECT_EQ(namesBelow("/x", false), all);
}

TEST_F(DirectoryEnumerator, GivesUnreadableFoldersWithoutTheirContents) {
    ::chmod(_top.c_str(), 0755);
    folder("closed", 0700);
    file("closed/x");
    ASSERT_EQ(::seteuid(65534), 0);
    const Names names = walked(_top);
    const Names below = walked(at("closed"));
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(names, Names{"closed"});
    EXPECT_EQ(below, Names{});
}

TEST_F(DirectoryEnumerator, ReadsAgainWhatItsBufferCouldNotHold) {
    // Twelve levels with more unread names each than the buffer holds in all.
    const std::string filler(180, 'n');
    std::string name = "w";
    for (int level = 0; level < 12; ++level, name += "/s") {
        folder(name);
        for (int i = 0; i < 400; ++i)
            ASSERT_EQ(::mknod(at(name).append("/").append(std::to_string(i)).append(filler).c_str(),
                              S_IFREG, 0),
                      0);
    }
    const Names names = walked(at("w"));
    EXPECT_EQ(names.size(), 12U * 400 + 11);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
}

TEST_F(DirectoryEnumerator, AFolderMovedAwayLeadsNowhereElse) {
    chain(folder("deep"), 120);
    folder("decoy");
    const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(at("deep"));
    Names names;
    while (const auto object = walk->nextObject()) {
        names.insert(*object);
        if (object->size() != 2 * 119 + 1 || !object->ends_with("d")) continue;
        const std::string moved = at("deep/").append(times("d/", 49)).append("d");
        ASSERT_EQ(::rename(moved.c_str(), at("decoy/d").c_str()), 0);
        file("decoy/stolen");
    }
    EXPECT_TRUE(std::none_of(names.begin(), names.end(),
                             [](const auto& name) { return name.ends_with("stolen"); }));
    for (int level = 0; level < 32; ++level)
        EXPECT_EQ(names.count(times("d/", level) + "f"), 1U) << level;
}

}  // namespace
}  // namespace corvalen
