// SPDX-License-Identifier: MIT
#include "foundation/path.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

TEST(Path, IsTakenApart) {
    const struct {
        std::string_view path, last, parent, extension;
    } rows[] = {
        {"", "", "", ""},
        {"/", "/", "/", ""},
        {"///", "/", "/", ""},
        {"a", "a", "", ""},
        {"/a.b.c", "a.b.c", "/", "c"},
        {"/a//b.txt///", "b.txt", "/a", "txt"},
        {"a/.profile", ".profile", "a", ""},
        {"/x.y/end.", "end.", "/x.y", ""},
        {"//a", "a", "/", ""},
        {"/\xFF.\xFE", "\xFF.\xFE", "/", "\xFE"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(lastPathComponent(row.path), row.last);
        EXPECT_EQ(deleteLastPathComponent(row.path), row.parent);
        EXPECT_EQ(pathExtension(row.path), row.extension);
    }
}

TEST(Path, IsPutTogether) {
    const struct {
        std::string_view base, component, whole;
    } rows[] = {
        {"/a", "b", "/a/b"}, {"/a///", "//b//", "/a/b"}, {"/", "b", "/b"}, {"", "/b", "/b"},
        {"", "b", "b"},      {"/a/", "", "/a"},          {"/", "", "/"},   {"a", "b/c", "a/b/c"}};
    for (const auto& row : rows) {
        EXPECT_EQ(appendPathComponent(row.base, row.component), row.whole) << row.base;
    }
    EXPECT_EQ(appendPathExtension("/a/b/", "txt"), "/a/b.txt");
}

TEST(Path, ResolvesLinksAsFarAsItExists) {
    namespace fs = std::filesystem;
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

}  // namespace
}  // namespace corvalen
