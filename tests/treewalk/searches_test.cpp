// SPDX-License-Identifier: MIT
#include <ctime>
#include <map>

#include "foundation/path.hpp"
#include "treewalk/fixture.hpp"
#include "treewalk/known_owners.hpp"

namespace corvalen {
namespace {

using testing::Names;
using testing::shell;
constexpr uid_t kNobodyKnown = 3999999;

class Searches : public testing::TreeWalkTest {
  protected:
    void files(const std::string& prefix, int count) {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(::mknod(at(prefix + std::to_string(i)).c_str(), S_IFREG | 0644, 0), 0);
    }
    void setAge(const std::string& name, long seconds) {
        const timespec then{::time(nullptr) - seconds, 0};
        const timespec times[2] = {then, then};
        ASSERT_EQ(::utimensat(AT_FDCWD, at(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    std::uint64_t sizeBelow(const std::string& path) {
        EXPECT_EQ(call("InspectStoragesize", {path}), "own 0");
        if (!answer || answer->userInfo() == nullptr) return 0;
        EXPECT_EQ(answer->userInfo()->size(), 1U);
        return answer->userInfo()->find("Size")->number()->unsignedIntegerValue();
    }
    /// Asks every search that finds all below `base`, by a link to it, and the size of just that.
    void expectEverySearchToFind(const std::string& real, bool stay, const Names& expected) {
        const std::string base = resolveSymlinksInPath(at(real));
        const std::string way = link("way to " + real, real);
        EXPECT_EQ(call("SearchAgedfiles", {way, 0, stay}), "none");
        EXPECT_EQ(found(base), expected);
        Array rules{way, stay ? "1" : "0"};
        std::uint64_t size = 0;
        for (const std::string& name : expected) {
            rules.emplace_back("0");
            rules.emplace_back(std::string(lastPathComponent(name)));
            size += static_cast<std::uint64_t>(statusOf(appendPathComponent(base, name)).st_size);
        }
        EXPECT_EQ(call("SearchPatterns", rules), "none");
        EXPECT_EQ(found(base), expected);
        if (!stay) {
            EXPECT_EQ(sizeBelow(way), size);
        }
        Names direct;
        for (const bool folders : {false, true}) {
            EXPECT_EQ(call("SearchFilenames", {way + "/", "", "", folders}), "none");
            direct.merge(found(base));
        }
        for (const std::string& name : direct)
            EXPECT_EQ(expected.count(name), 1U) << name;
    }
};

TEST_F(Searches, NameTheFolderThatCannotBeSearched) {
    grow({"file", "dangling > nowhere"});
    for (const std::string operation :
         {"SearchAgedfiles", "SearchFilenames", "SearchPatterns", "SearchFileorphans",
          "InspectStoragesize", "PropPermissions"}) {
        const std::map<std::string, std::string> errors{
            {"", "22"},          {at("missing"), "2"}, {at("dangling"), "2"},
            {at("file/x"), "2"}, {at("file"), "20"},   {at("file") + '\0', "2"}};
        for (const auto& [path, expected] : errors) {
            Array arguments{path, 0, 0, 0};
            if (operation == "SearchFilenames") arguments = {path, "", "", 0};
            if (operation == "SearchPatterns") arguments = {path, "0", "0", "x"};
            EXPECT_EQ(call(operation, arguments), "posix " + expected) << operation << path;
            EXPECT_EQ(sent(), "");
        }
    }
}

TEST_F(Searches, FindWhatIsThereInEveryTree) {
    grow({"basic/", "basic/sub/", "basic/sub/text=12345", "basic/\xc3\x28.bin=123"});
    expectEverySearchToFind("basic", true, {"sub", "sub/text", "\xc3\x28.bin"});

    grow({"links/", "links/loop/", "links/loop/back > ..", "links/gone > nowhere", "links/one=12"});
    ASSERT_EQ(::link(at("links/one").c_str(), at("links/loop/two").c_str()), 0);
    expectEverySearchToFind("links", false, {"loop", "loop/back", "loop/two", "gone", "one"});

    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    file("mnt/inside");
    EXPECT_EQ(call("SearchAgedfiles", {_top, 0, true}), "none");
    EXPECT_EQ(found(_top).count("mnt"), 1U);
    EXPECT_EQ(found(_top).count("mnt/inside"), 0U);
    EXPECT_EQ(call("SearchPatterns", {_top, "0", "1", "ins"}), "none");
    EXPECT_EQ(found(_top), Names{"mnt/inside"});
}

TEST_F(Searches, SendBatchesOfTwenty) {
    folder("many");
    files("many/f", 45);
    for (const auto& [operation, arguments] :
         {std::pair<const char*, Array>("SearchAgedfiles", {at("many"), 0, 0}),
          {"SearchFilenames", {at("many"), "", "", 0}},
          {"SearchFileorphans", {at("many"), 0}}}) {
        for (int i = 0; i < 45; ++i)
            ASSERT_EQ(::chown(at("many/f" + std::to_string(i)).c_str(), kNobodyKnown, 0), 0);
        EXPECT_EQ(call(operation, arguments), "none");
        EXPECT_EQ(sent(), "0:20 0:20 1:5") << operation;
        EXPECT_EQ(feedback.found.size(), 45U);
    }
    for (int i = 20; i < 45; ++i)
        ::unlink(at("many/f" + std::to_string(i)).c_str());
    EXPECT_EQ(call("SearchAgedfiles", {at("many"), 0, 0}), "none");
    EXPECT_EQ(sent(), "0:20 1:0");
    EXPECT_EQ(call("SearchAgedfiles", {at("many"), 1, 0}), "none");
    EXPECT_EQ(sent(), "1:0");
}

TEST_F(Searches, PatternsEstimateTheirProgress) {
    folder("empty");
    EXPECT_EQ(call("SearchPatterns", {at("empty"), "0", "0", "x"}), "posix 2");
    EXPECT_EQ(sent(), "0.01");
    folder("hundred");
    files("hundred/f", 100);
    EXPECT_EQ(call("SearchPatterns", {at("hundred"), "0", "1", "f"}), "none");
    EXPECT_EQ(sent(), "0.01 0.19:20 0.39:20 0.59:20 0.79:20 0.99:20 1:0");
    const Array arguments{at("hundred"), "0", "1", "f"};
    EXPECT_FALSE(operations.performOperationSearchPatternsWithArguments(arguments, nullptr));
}

TEST_F(Searches, PatternsMatchNamesExactly) {
    grow({"T.app/", "T.app/readme", "T.app/Readme", "T.app/readme.txt", "T.app/app", "T.app/.app",
          "T.app/x.APP", "T.app/a.b.app"});
    const std::string dotlessType = "\xc4\xb0";  // U+0130, whose low byte is that of "0"
    for (const auto& [rules, expected] : {
             std::pair<Array, Names>({"0", "readme"}, {"T.app/readme"}),
             {{dotlessType, "readme"}, {"T.app/readme"}},
             {{"1", "readme"}, {"T.app/readme", "T.app/readme.txt"}},
             {{"2", "app"}, {"T.app", "T.app/a.b.app"}},
             {{"2", "b.app"}, {}},
             {{"0", "app", "2", "txt", "1", "app"}, {"T.app/app", "T.app/readme.txt"}},
         }) {
        Array arguments{_top, "0"};
        arguments.insert(arguments.end(), rules.begin(), rules.end());
        EXPECT_EQ(call("SearchPatterns", arguments), "none");
        EXPECT_EQ(found(_top), expected);
    }
    for (const Array& faulty : {Array{},
                                {at("x"), "0", "0", "a", "1"},
                                {_top, "yes", "0", "a"},
                                {_top, "0", "3", "a"},
                                {_top, "0", "01", "a"},
                                {_top, "0", "", "a"},
                                {_top, "0", "1", ""},
                                {_top, "0", "0", "a", "/", "b"},
                                {_top, "0", "\xf0\x90\x80\xb0", "a"}}) {
        EXPECT_EQ(call("SearchPatterns", faulty), "posix 22");
        EXPECT_EQ(sent(), "");
    }
}

TEST_F(Searches, AgeIsMeasuredInWholeDays) {
    grow({"today", "younger", "older", "tomorrow", "old link > today"});
    setAge("younger", 2L * 86400 - 60);
    setAge("older", 2L * 86400 + 1);
    setAge("tomorrow", -86400);
    setAge("old link", 3L * 86400);
    for (const auto& [days, expected] :
         {std::pair<std::uint64_t, Names>(0, {"today", "younger", "older", "old link"}),
          {1, {"younger", "older", "old link"}},
          {2, {"older", "old link"}},
          {3, {"old link"}},
          {~std::uint64_t{0}, {}}}) {
        EXPECT_EQ(call("SearchAgedfiles", {_top, days, 0}), "none");
        EXPECT_EQ(found(_top), expected) << days;
    }
}

TEST_F(Searches, FilenamesLooksAtDirectObjectsAndThroughLinks) {
    grow({"folder.txt/", "folder.txt/inner.txt/", "a.txt", "a.TXT", "a.tar.txt.gz", "abc", "Abc",
          ".txt", "to folder > folder.txt", "to file.txt > a.txt", "dangling.txt > nowhere"});
    for (const auto& [prefix, extension, folders, expected] :
         {std::tuple<const char*, const char*, bool, Names>("", "txt", false,
                                                            {"a.txt", "to file.txt"}),
          {"", "txt", true, {"folder.txt"}},
          {"", "", true, {"folder.txt", "to folder"}},
          {"Ab", "", false, {"Abc"}},
          {"a", "", false, {"a.txt", "a.TXT", "a.tar.txt.gz", "abc"}},
          {"to", "txt", false, {"to file.txt"}}}) {
        EXPECT_EQ(call("SearchFilenames", {_top, prefix, extension, folders}), "none");
        EXPECT_EQ(found(_top), expected) << prefix << " " << extension;
    }
}

TEST_F(Searches, OrphansAreReportedOnceAndAlone) {
    grow({"known/", "empty/", "gone/", "gone/a/", "gone/a/b/", "mixed/", "mixed/in/",
          "mixed/in/deep/", "roots/", "known/orphan", "known/mine", "gone/a/x",
          "mixed/in/deep/mine", "mixed/in/orphan", "roots/file", "known/link > mine"});
    ASSERT_TRUE(shell("cd " + _top +
                      " && chown -hR 3999999 * && chown 0 known roots/file && "
                      "chown 1000 known/mine mixed/in/deep/mine"));
    EXPECT_EQ(call("SearchFileorphans", {_top, 0}), "none");
    EXPECT_EQ(found(_top),
              (Names{"empty", "gone", "known/orphan", "known/link", "mixed/in/orphan"}));
    // Without any account root is still known.
    users.ids.clear();
    EXPECT_EQ(call("SearchFileorphans", {_top, 0}), "none");
    EXPECT_EQ(found(_top),
              (Names{"empty", "gone", "known/orphan", "known/link", "known/mine", "mixed"}));

    const UserSet known({1000});
    EXPECT_TRUE(isFolderAtPath(at("gone"), known) && isFolderAtPath(at("empty"), known));
    for (const std::string& path : {at("known"), at("mixed"), at("known/mine"), at("x"), {}})
        EXPECT_FALSE(isFolderAtPath(path, known)) << path;
    EXPECT_FALSE(isFolderAtPath(at("empty"), UserSet({})));
}

TEST_F(Searches, TheUserDatabaseListsEveryAccount) {
    const auto listed = makeUserDatabase()->listedUserIDs();
    EXPECT_EQ(std::count(listed.begin(), listed.end(), 0U), 1);
    EXPECT_TRUE(shell("test $(getent passwd | wc -l) = " + std::to_string(listed.size())));
    EXPECT_EQ(makeUserDatabase()->listedUserIDs(), listed);
}

TEST_F(Searches, TheSizeHasNoLimitOfDepthOrBreadth) {
    EXPECT_EQ(sizeBelow(folder("empty")), 0U);
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    std::uint64_t expected = 0;
    for (int i = 0; i < 300; ++i) {
        const std::string name = folder("mnt/" + std::to_string(i));
        for (const char* text : {"", "1", "12"})
            std::ofstream(name + "/" + text + "f") << text;
        expected += 3 + static_cast<std::uint64_t>(statusOf(name).st_size);
    }
    EXPECT_EQ(sizeBelow(at("mnt")), expected);
    const auto leaf = static_cast<std::uint64_t>(statusOf(folder("mnt/deep")).st_size);
    chain(at("mnt/deep"), 3000);
    const auto level = static_cast<std::uint64_t>(statusOf(at("mnt/deep")).st_size);
    EXPECT_EQ(sizeBelow(at("mnt")), expected + 3000 * level + leaf);
}

}  // namespace
}  // namespace corvalen
