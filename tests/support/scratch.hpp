// SPDX-License-Identifier: MIT
// A private directory for a test, and shorthands for file system calls.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "corvalen/error.hpp"
#include "foundation/result.hpp"
#include "support/own_mounts.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::test {

/// Returns the errno of a failure, 0 of a success.
template <class T, class E>
int errnoOf(const Result<T, E>& result) noexcept {
    return result ? 0 : result.error().number;
}

}  // namespace corvalen::test

namespace corvalen::testing {

using test::shell;

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
    /// Mounts a private tmpfs at "mnt". Returns false without permission.
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

/// The error in words: the path where it differs from that of the error around it, what happened,
/// and what caused it, such as "hosts: protected: no permission: EPERM"; "none" for no error.
inline std::string summary(const ErrorRef& error, std::string_view pathAround = {}) {
    static const std::map<std::int64_t, const char*> kFileErrors = {
        {4, "no such file"}, {512, "not written"}, {513, "no permission"},    {516, "exists"},
        {640, "no space"},   {642, "read-only"},   {3840, "no property list"}};
    static const std::map<std::int64_t, const char*> kOwnErrors = {{0, "answer"},
                                                                   {1, "missing component"},
                                                                   {2, "unsafe permissions"},
                                                                   {3, "utility failed"},
                                                                   {4, "not created"},
                                                                   {5, "backup blocked"},
                                                                   {6, "whiteout"},
                                                                   {7, "flags unchanged"},
                                                                   {8, "single user mode"},
                                                                   {9, "power unread"},
                                                                   {10, "power unchanged"},
                                                                   {11, "variable kept"},
                                                                   {12, "preference kept"},
                                                                   {13, "settings kept"},
                                                                   {14, "list unchanged"},
                                                                   {15, "attributes unread"},
                                                                   {16, "owner unchanged"},
                                                                   {17, "mode unchanged"},
                                                                   {18, "protected"}};
    if (!error) return "none";
    const std::int64_t code = error->code();
    const std::string* path = error->filePath();
    std::string text;
    if (path != nullptr && *path != pathAround) {
        const std::string name = path->substr(path->rfind('/') + 1);
        text = (name.empty() ? "/" : name) + ": ";
    }
    text += error->domain() == kPosixErrorDomain   ? ::strerrorname_np(errnoFromPosixCode(code))
            : error->domain() == kCocoaErrorDomain ? kFileErrors.at(code)
                                                   : kOwnErrors.at(code);
    if (const ErrorRef under = error->underlyingError())
        text += ": " + summary(under, path != nullptr ? *path : std::string_view());
    return text;
}

}  // namespace corvalen::testing
