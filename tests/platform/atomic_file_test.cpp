// SPDX-License-Identifier: MIT
#include "platform/atomic_file.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "settings/scratch_folder.hpp"

namespace corvalen {
namespace {

UniqueFd openFolder(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

TEST(AtomicFile, KeepsModeAndOwnerOfWhatItReplaces) {
    const ScratchFolder scratch;
    const UniqueFd folder = openFolder(scratch.path());
    const mode_t mask = ::umask(077);
    EXPECT_EQ(replaceFile(folder.get(), "new", "1", 0644), 0);
    EXPECT_EQ(attributesOf(scratch / "new").st_mode, S_IFREG | 0644U);
    writeText(scratch / "old", "before");
    ASSERT_EQ(::chown((scratch / "old").c_str(), 61001, 61002), 0);
    ::chmod((scratch / "old").c_str(), 04751);
    const ino_t inode = attributesOf(scratch / "old").st_ino;
    EXPECT_EQ(replaceFile(folder.get(), "old", "after", 0600), 0);
    ::umask(mask);
    const struct stat old = attributesOf(scratch / "old");
    EXPECT_EQ(readText(scratch / "old"), "after");
    EXPECT_EQ(old.st_mode, S_IFREG | 0751U) << "set-id bits do not survive";
    EXPECT_EQ(old.st_uid, 61001U);
    EXPECT_EQ(old.st_gid, 61002U);
    EXPECT_NE(old.st_ino, inode);

    std::filesystem::create_symlink("old", scratch / "link");
    EXPECT_EQ(replaceFile(folder.get(), "link", "x", 0600), ELOOP);
    std::string contents;
    EXPECT_EQ(readFile(folder.get(), "link", 99, &contents), ELOOP);
    EXPECT_EQ(readFile(folder.get(), "old", 4, &contents), EFBIG);
    EXPECT_EQ(readFile(folder.get(), "old", 5, &contents), 0);
    EXPECT_EQ(contents, "after");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch.path()), {}), 3);
}

TEST(AtomicFile, AFullDiskLeavesTheOldFileAlone) {
    const ScratchFolder scratch;
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("small", scratch.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no private mount namespace";
    }
    const UniqueFd folder = openFolder(scratch.path());
    ASSERT_EQ(replaceFile(folder.get(), "file", "old", 0600), 0);
    EXPECT_EQ(replaceFile(folder.get(), "file", std::string(100'000, 'x'), 0600), ENOSPC);
    EXPECT_EQ(readText(scratch / "file"), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch.path()), {}), 1);
    ::umount2(scratch.path().c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace corvalen
