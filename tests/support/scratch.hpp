// SPDX-License-Identifier: MIT
// A folder of one's own for a test, and shorthands for what tests ask of a file system.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "corvalen/error.hpp"
#include "support/own_mounts.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::testing {

/// Runs a shell command in silence; true when it succeeded.
inline bool shell(const std::string& command) {
    return std::system(("( " + command + " ) >/dev/null 2>&1").c_str()) == 0;
}

class Scratch : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    }
    void TearDown() override {
        if (_mounted) shell("umount -R '" + at("mnt") + "'");
        shell("find '" + _top + "' -type f,d -exec chattr -ia {} +");
    }

    [[nodiscard]] std::string at(const std::string& name) const { return _top + "/" + name; }
    std::string folder(const std::string& name, mode_t mode = 0755) {
        EXPECT_EQ(::mkdir(at(name).c_str(), mode), 0) << name;
        return at(name);
    }
    std::string file(const std::string& name, const std::string& text = "") {
        std::ofstream(at(name)) << text;
        return at(name);
    }
    std::string link(const std::string& name, const std::string& target) {
        EXPECT_EQ(::symlink(target.c_str(), at(name).c_str()), 0) << name;
        return at(name);
    }
    /// Runs shell commands in the folder of the test.
    [[nodiscard]] bool inside(const std::string& commands) const {
        return shell("cd '" + _top + "' && umask 022 && " + commands);
    }
    /// A tmpfs at "mnt", seen by this process only. False where the machine forbids mounting.
    bool mountTmpfs(const char* options) {
        folder("mnt");
        _mounted = test::enterOwnMounts({}) &&
                   ::mount("tmpfs", at("mnt").c_str(), "tmpfs", 0, options) == 0;
        return _mounted;
    }

    static bool exists(const std::string& path) {
        struct stat status {};
        return ::lstat(path.c_str(), &status) == 0;
    }
    static struct stat statusOf(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        return status;
    }
    static std::string textOf(const std::string& path) { return test::textOf(path); }
    static unsigned modeOf(const std::string& path) { return statusOf(path).st_mode & 07777U; }
    /// Owner, group and permissions of the object itself.
    [[nodiscard]] std::string described(const std::string& name) const {
        return describedAt(at(name));
    }
    static std::string describedAt(const std::string& path) {
        const struct stat status = statusOf(path);
        std::ostringstream text;
        text << status.st_uid << ":" << status.st_gid << " " << std::oct << modeOf(path);
        return text.str();
    }
    static bool chattr(const std::string& change, const std::string& path) {
        return shell("chattr " + change + " '" + path + "'");
    }
    static bool isImmutable(const std::string& path) {
        struct statx attributes {};
        ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, 0, &attributes);
        return (attributes.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    }

  private:
    test::ScratchFolder _folder;
    bool _mounted = false;

  protected:
    const std::string _top = _folder.path();
};

/// "domain code", with the code of the error underneath and the last part of the path when it has
/// them; "none" for no error.
inline std::string summary(const ErrorRef& error) {
    if (!error) return "none";
    const std::string& domain = error->domain();
    std::string text = domain == kPosixErrorDomain   ? "posix"
                       : domain == kCocoaErrorDomain ? "cocoa"
                                                     : "own";
    text += " " + std::to_string(error->code());
    if (const ErrorRef under = error->underlyingError()) text += " <" + summary(under) + ">";
    if (const std::string* path = error->filePath())
        text += " " + path->substr(path->rfind('/') + 1);
    return text;
}

}  // namespace corvalen::testing
