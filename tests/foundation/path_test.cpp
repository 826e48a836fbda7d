// SPDX-License-Identifier: MIT
// Paths, and the bundle at a path.
#include <gtest/gtest.h>

#include <filesystem>

#include "foundation/bundle.hpp"
#include "foundation/path.hpp"
#include "support/golden.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;

/// Rows may name files in a folder of the test, "@", which rows of commands make.
TEST(Path, IsSplitJoinedAndResolvedAndLeadsToBundles) {
    const test::ScratchFolder folder;
    const std::string base = fs::canonical(folder.path()).string() + "/";
    const auto within = [&base](const std::string& text) {
        return test::replaced(text, "@", base);
    };
    const auto shown = [&base](const std::string& text) { return test::replaced(text, base, "@"); };
    const auto parts = [](const std::string& path) {
        return std::string(lastPathComponent(path)) + "|" + deleteLastPathComponent(path) + "|" +
               std::string(pathExtension(path));
    };
    const auto append = [](const std::string& row) {
        const auto bar = row.find('|');
        return appendPathComponent(row.substr(0, bar), row.substr(bar + 1));
    };
    const auto commands = [&base](const std::string& row) {
        return test::shell("cd " + base + " && " + row) ? "" : "failed";
    };
    const auto resolve = [&](const std::string& path) {
        return shown(resolveSymlinksInPath(within(path)));
    };
    const auto bundle = [&](const std::string& path) {
        const auto found = Bundle::bundleWithPath(within(path));
        if (!found) return std::string("no bundle");
        const std::string* identifier = found->bundleIdentifier();
        return shown(found->executablePath().value_or("none")) +
               (identifier != nullptr ? ", " + *identifier : "");
    };
    test::expectRows("paths.txt", {{"parts", parts},
                                   {"append", append},
                                   {"commands", commands},
                                   {"resolve", resolve},
                                   {"bundle", bundle}});
    EXPECT_EQ(appendPathExtension("/a/b/", "txt"), "/a/b.txt");
}

TEST(Bundle, OfTheProgramHasTheListsThatItContains) {
    const Bundle& main = Bundle::mainBundle();
    EXPECT_EQ(*main.bundleIdentifier(), "net.corvalen.system.privilegedhelper-kvx");
    EXPECT_EQ(main.stringForInfoDictionaryKey("SMAuthorizedClients"), nullptr) << "an array";
    EXPECT_EQ(*main.executablePath(), fs::read_symlink("/proc/self/exe"));
    EXPECT_FALSE(embeddedPropertyList("/proc/self/exe", "__no_such_section"));
    EXPECT_FALSE(embeddedPropertyList("/proc/self/status", kInfoSection));
}

}  // namespace
}  // namespace corvalen
