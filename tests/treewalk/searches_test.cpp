// SPDX-License-Identifier: MIT
#include <ctime>

#include "foundation/path.hpp"
#include "treewalk/fixture.hpp"
#include "treewalk/known_owners.hpp"
#include "treewalk/storage_size.hpp"

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
    void orphan(std::initializer_list<const char*> names) {
        for (const char* name : names)
            ASSERT_EQ(::lchown(at(name).c_str(), kNobodyKnown, 0), 0) << name;
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
    file("file");
    link("dangling", "nowhere");
    const Array numbers{0, 0, 0};
    for (const std::string operation :
         {"SearchAgedfiles", "SearchFilenames", "SearchPatterns", "SearchFileorphans",
          "InspectStoragesize", "PropPermissions"}) {
        for (const auto& [path, expected] : {std::pair(std::string(), "posix 22"),
                                             {at("missing"), "posix 2"},
                                             {at("dangling"), "posix 2"},
                                             {at("file/below"), "posix 2"},
                                             {at("file"), "posix 20"},
                                             {at("file") + std::string(1, '\0'), "posix 2"}}) {
            Array arguments{path, 0, 0, 0};
            if (operation == "SearchFilenames") arguments = {path, "", "", 0};
            if (operation == "SearchPatterns") arguments = {path, "0", "0", "x"};
            EXPECT_EQ(call(operation, arguments), expected) << operation << path;
            EXPECT_TRUE(feedback.counts.empty());
        }
    }
}

TEST_F(Searches, FindWhatIsThereInEveryTree) {
    folder("basic");
    folder("basic/sub");
    file("basic/sub/text", "12345");
    file("basic/\xc3\x28.bin", "123");
    expectEverySearchToFind("basic", true, {"sub", "sub/text", "\xc3\x28.bin"});

    folder("links");
    folder("links/loop");
    link("links/loop/back", "..");
    link("links/gone", "nowhere");
    file("links/one", "1234567");
    ASSERT_EQ(::link(at("links/one").c_str(), at("links/loop/two").c_str()), 0);
    expectEverySearchToFind("links", false, {"loop", "loop/back", "loop/two", "gone", "one"});

    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    file("mnt/inside", "12");
    ASSERT_EQ(::rename(at("basic").c_str(), at("links/loop/basic").c_str()), 0);
    EXPECT_EQ(call("SearchAgedfiles", {_top, 0, true}), "none");
    EXPECT_EQ(found(_top).count("mnt"), 1U);
    EXPECT_EQ(found(_top).count("mnt/inside"), 0U);
    EXPECT_EQ(call("SearchPatterns", {_top, "0", "1", "ins"}), "none");
    EXPECT_EQ(found(_top), Names{"mnt/inside"});
    const std::uint64_t with = sizeBelow(_top);
    const auto folderWith = statusOf(at("mnt")).st_size;
    ASSERT_EQ(::unlink(at("mnt/inside").c_str()), 0);
    const auto shrunk = folderWith - statusOf(at("mnt")).st_size;
    EXPECT_EQ(with - sizeBelow(_top), 2U + static_cast<std::uint64_t>(shrunk));
}

TEST_F(Searches, SendBatchesOfTwenty) {
    folder("many");
    files("many/f", 45);
    const std::vector<double> noEstimate{0.0, 0.0, 1.0};
    for (const auto& [operation, arguments] :
         {std::pair<const char*, Array>("SearchAgedfiles", {at("many"), 0, 0}),
          {"SearchFilenames", {at("many"), "", "", 0}},
          {"SearchFileorphans", {at("many"), 0}}}) {
        for (int i = 0; i < 45; ++i)
            ASSERT_EQ(::chown(at("many/f" + std::to_string(i)).c_str(), kNobodyKnown, 0), 0);
        EXPECT_EQ(call(operation, arguments), "none");
        EXPECT_EQ(feedback.counts, (std::vector<int>{20, 20, 5})) << operation;
        EXPECT_EQ(feedback.fractions, noEstimate) << operation;
        EXPECT_EQ(feedback.found.size(), 45U);
    }
    for (int i = 20; i < 45; ++i)
        ::unlink(at("many/f" + std::to_string(i)).c_str());
    EXPECT_EQ(call("SearchAgedfiles", {at("many"), 0, 0}), "none");
    EXPECT_EQ(feedback.counts, (std::vector<int>{20, 0}));
    EXPECT_EQ(call("SearchAgedfiles", {at("many"), 1, 0}), "none");
    EXPECT_EQ(feedback.counts, std::vector<int>{0});
    EXPECT_EQ(feedback.fractions, std::vector<double>{1.0});
}

TEST_F(Searches, PatternsEstimateTheirProgress) {
    folder("empty");
    EXPECT_EQ(call("SearchPatterns", {at("empty"), "0", "0", "x"}), "posix 2");
    EXPECT_EQ(feedback.counts, std::vector<int>{-1});
    folder("hundred");
    files("hundred/f", 100);
    EXPECT_EQ(call("SearchPatterns", {at("hundred"), "0", "1", "f"}), "none");
    EXPECT_EQ(feedback.counts, (std::vector<int>{-1, 20, 20, 20, 20, 20, 0}));
    EXPECT_EQ(feedback.fractions, (std::vector<double>{0.01, 0.19, 0.39, 0.59, 0.79, 0.99, 1.0}));
    EXPECT_EQ(operations.performOperationSearchPatternsWithArguments({at("hundred"), "0", "1", "f"},
                                                                     nullptr),
              nullptr);
}

TEST_F(Searches, PatternsMatchNamesExactly) {
    folder("Tool.app");
    for (const char* name : {"Tool.app/readme", "Tool.app/Readme", "Tool.app/readme.txt",
                             "Tool.app/app", "Tool.app/.app", "Tool.app/x.APP", "Tool.app/a.b.app"})
        file(name);
    const std::string dotlessType = "\xc4\xb0";  // U+0130, whose low byte is that of "0"
    for (const auto& [rules, expected] : {
             std::pair<Array, Names>({"0", "readme"}, {"Tool.app/readme"}),
             {{dotlessType, "readme"}, {"Tool.app/readme"}},
             {{"1", "readme"}, {"Tool.app/readme", "Tool.app/readme.txt"}},
             {{"2", "app"}, {"Tool.app", "Tool.app/a.b.app"}},
             {{"2", "b.app"}, {}},
             {{"0", "app", "2", "txt", "1", "app"}, {"Tool.app/app", "Tool.app/readme.txt"}},
         }) {
        Array arguments{_top, "0"};
        arguments.insert(arguments.end(), rules.begin(), rules.end());
        EXPECT_EQ(call("SearchPatterns", arguments), "none");
        EXPECT_EQ(found(_top), expected);
    }
    for (const Array& faulty : {Array{},
                                {at("x")},
                                {at("x"), "0", "0"},
                                {at("x"), "0", "0", "a", "1"},
                                {_top, "yes", "0", "a"},
                                {_top, "0", "3", "a"},
                                {_top, "0", "01", "a"},
                                {_top, "0", "", "a"},
                                {_top, "0", "1", ""},
                                {_top, "0", "0", "a", "/", "b"},
                                {_top, "0", "\xf0\x90\x80\xb0", "a"}}) {
        EXPECT_EQ(call("SearchPatterns", faulty), "posix 22");
        EXPECT_TRUE(feedback.counts.empty());
    }
}

TEST_F(Searches, AgeIsMeasuredInWholeDays) {
    for (const char* name : {"today", "younger", "older", "tomorrow"})
        file(name);
    link("old link", "today");
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
    for (const char* name : {"folder.txt", "folder.txt/inner.txt"})
        folder(name);
    for (const char* name : {"a.txt", "a.TXT", "a.tar.txt.gz", "abc", "Abc", ".txt"})
        file(name);
    link("to folder", "folder.txt");
    link("to file.txt", "a.txt");
    link("dangling.txt", "nowhere");
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
    for (const char* name : {"known", "empty", "gone", "gone/a", "gone/a/b", "mixed", "mixed/in",
                             "mixed/in/deep", "roots"})
        folder(name);
    for (const char* name : {"known/orphan", "known/mine", "gone/a/x", "mixed/in/deep/mine",
                             "mixed/in/orphan", "roots/file"})
        file(name);
    link("known/link", "mine");
    orphan({"empty", "gone", "gone/a", "gone/a/b", "gone/a/x", "known/orphan", "known/link",
            "mixed", "mixed/in", "mixed/in/deep", "mixed/in/orphan", "roots"});
    ASSERT_EQ(::chown(at("known/mine").c_str(), 1000, 0), 0);
    ASSERT_EQ(::chown(at("mixed/in/deep/mine").c_str(), 1000, 0), 0);
    EXPECT_EQ(call("SearchFileorphans", {_top, 0}), "none");
    EXPECT_EQ(found(_top),
              (Names{"empty", "gone", "known/orphan", "known/link", "mixed/in/orphan"}));
    // Without any account root is still known.
    users.ids.clear();
    EXPECT_EQ(call("SearchFileorphans", {_top, 0}), "none");
    EXPECT_EQ(found(_top),
              (Names{"empty", "gone", "known/orphan", "known/link", "known/mine", "mixed"}));

    const UserSet known({1000});
    for (const auto& [path, expected] : {std::pair(at("gone"), true),
                                         {at("empty"), true},
                                         {at("known"), false},
                                         {at("mixed"), false},
                                         {at("known/mine"), false},
                                         {at("missing"), false},
                                         {"", false}})
        EXPECT_EQ(isFolderAtPath(path, known), expected) << path;
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
