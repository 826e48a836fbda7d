// SPDX-License-Identifier: MIT
// Paths, and the bundle at a path.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "foundation/bundle.hpp"
#include "foundation/path.hpp"
#include "support/golden.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;

TEST(Path, IsTakenApartAndPutTogether) {
    const auto parts = [](const std::string& path) {
        return std::string(lastPathComponent(path)) + "|" + deleteLastPathComponent(path) + "|" +
               std::string(pathExtension(path));
    };
    const auto append = [](const std::string& row) {
        const auto bar = row.find('|');
        return appendPathComponent(row.substr(0, bar), row.substr(bar + 1));
    };
    test::expectRows("paths.txt", {{"parts", parts}, {"append", append}});
    EXPECT_EQ(appendPathExtension("/a/b/", "txt"), "/a/b.txt");
}

TEST(Path, ResolvesLinksAsFarAsItExists) {
    const test::ScratchFolder folder;
    const std::string base = fs::canonical(folder.path());
    fs::create_directories(base + "/real/folder");
    fs::create_symlink("real/folder", base + "/link");
    fs::create_symlink("nowhere", base + "/dangling");
    fs::create_symlink("loop", base + "/loop");
    const std::pair<std::string, std::string> rows[] = {
        {base + "/link/../x", base + "/real/x"},
        {base + "/link/missing/b", base + "/real/folder/missing/b"},
        {base + "/./link//", base + "/real/folder"},
        {base + "/dangling", base + "/dangling"},
        {base + "/loop", base + "/loop"},
        {"no/such/thing", "no/such/thing"},
        {std::string("/a\0b", 4), std::string("/a\0b", 4)},
        {"", ""},
    };
    for (const auto& [path, resolved] : rows) {
        EXPECT_EQ(resolveSymlinksInPath(path), resolved);
    }
}

class BundleTest : public testing::Test {
  protected:
    void put(const std::string& name, std::string_view contents) const {
        test::putFile(_base + "/" + name, contents);
    }
    [[nodiscard]] std::string executableOf(const std::string& folder) const {
        const auto bundle = Bundle::bundleWithPath(_base + "/" + folder);
        return bundle ? bundle->executablePath().value_or("none") : "no bundle";
    }

    test::ScratchFolder _folder;
    std::string _base = _folder.path();
};

TEST_F(BundleTest, MainBundleReadsTheListsOfTheRunningProgram) {
    const Bundle& main = Bundle::mainBundle();
    EXPECT_EQ(*main.bundleIdentifier(), "net.corvalen.system.privilegedhelper-kvx");
    EXPECT_EQ(main.stringForInfoDictionaryKey("SMAuthorizedClients"), nullptr) << "an array";
    EXPECT_EQ(*main.executablePath(), fs::read_symlink("/proc/self/exe"));
    EXPECT_FALSE(embeddedPropertyList("/proc/self/exe", "__no_such_section"));
    EXPECT_FALSE(embeddedPropertyList("/proc/self/status", kInfoSection));
}

TEST_F(BundleTest, FindsTheExecutableOfAnApplication) {
    put("Full.app/Contents/Info.plist", "{ CFBundleExecutable = Tool; CFBundleIdentifier = a.b; }");
    put("Full.app/Contents/MacOS/Tool", "");
    put("Full.app/Contents/Linux/Tool", "");
    put("Linux.app/Contents/Info.plist", "{ CFBundleExecutable = Tool; }");
    put("Linux.app/Contents/Linux/Tool", "");
    put("Flat/Info.plist", "{ CFBundleExecutable = Tool; }");
    put("Flat/Tool", "");
    put("Named.app/Contents/MacOS/Named", "");
    put("Broken.app/Info.plist", "<plist><dict>");
    put("Broken.app/Broken", "");
    put("Out.app/Info.plist", "{ CFBundleExecutable = \"../Flat/Tool\"; }");
    put("Up.app/Info.plist", "{ CFBundleExecutable = \"..\"; }");
    const std::pair<std::string, std::string> rows[] = {
        {"Full.app", _base + "/Full.app/Contents/MacOS/Tool"},
        {"Linux.app", _base + "/Linux.app/Contents/Linux/Tool"},
        {"Flat", _base + "/Flat/Tool"},
        {"Named.app", _base + "/Named.app/Contents/MacOS/Named"},
        {"Broken.app", _base + "/Broken.app/Broken"},
        {"Out.app", "none"},
        {"Up.app", "none"},
        {"Flat/Tool", "no bundle"},
        {"Missing.app", "no bundle"},
    };
    for (const auto& [folder, executable] : rows) {
        EXPECT_EQ(executableOf(folder), executable) << folder;
    }
    EXPECT_EQ(*Bundle::bundleWithPath(_base + "/Full.app")->bundleIdentifier(), "a.b");
}

TEST_F(BundleTest, ListsThatAreNoFilesOrTooLargeCountAsNone) {
    const std::string list = "{ CFBundleExecutable = Tool; }";
    put("Large/Info.plist", list + std::string(kMaximumInformationListSize - list.size(), ' '));
    put("Large/Tool", "");
    EXPECT_EQ(executableOf("Large"), _base + "/Large/Tool");
    put("Large/Info.plist", list + std::string(kMaximumInformationListSize - list.size() + 1, ' '));
    EXPECT_EQ(executableOf("Large"), "none");
    fs::create_directory(_base + "/Fifo");
    ASSERT_EQ(::mkfifo((_base + "/Fifo/Info.plist").c_str(), 0666), 0);
    EXPECT_EQ(executableOf("Fifo"), "none");  // and does not wait for a writer
}

}  // namespace
}  // namespace corvalen
