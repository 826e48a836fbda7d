// SPDX-License-Identifier: MIT
#include "faults/tree_state.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "corvalen/descriptor.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::test {
namespace {

constexpr time_t kOldDate = 1000;
constexpr char kList[] =
    "\2\0\0\0\1\0\6\0\xff\xff\xff\xff\2\0\6\0\x07\0\0\0\4\0\4\0\xff\xff\xff\xff"
    "\x10\0\6\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff";

void lock(const std::string& path, bool locked) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    unsigned flags = 0;
    if (!file || ::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) return;
    flags &= ~static_cast<unsigned>(FS_IMMUTABLE_FL | FS_APPEND_FL);
    if (locked) flags |= FS_IMMUTABLE_FL;
    (void)::ioctl(file.get(), FS_IOC_SETFLAGS, &flags);
}

void make(const std::string& path, const Made& object) {
    switch (object.kind) {
        case 'd':
            (void)::mkdir(path.c_str(), 0755);
            break;
        case 'f':
            std::ofstream(path, std::ios::binary) << object.text;
            break;
        case 'l':
            (void)!::symlink(object.text.c_str(), path.c_str());
            break;
        case 'x':
            (void)::setxattr(path.c_str(), "user.note", "n", 1, 0);
            break;
        case 'a':
            (void)::setxattr(path.c_str(), "system.posix_acl_access", kList, sizeof kList - 1, 0);
            break;
        case 'i':
            lock(path, true);
            break;
        case 'o':
            (void)!::chown(path.c_str(), 3, 4);
            break;
        case 'u':
            (void)!::chown(path.c_str(), 61001, 61001);
            break;
        default:
            (void)!::chown(path.c_str(), 1, 2);
            (void)::chmod(path.c_str(), 04755);
    }
}

std::string attributesOf(const std::string& path) {
    char names[512];
    const ssize_t length = ::llistxattr(path.c_str(), names, sizeof names);
    std::vector<std::string> all;
    for (const char* name = names; name < names + std::max<ssize_t>(length, 0);
         name += std::strlen(name) + 1) {
        char value[256];
        const ssize_t size = ::lgetxattr(path.c_str(), name, value, sizeof value);
        all.push_back(std::string(name) + "=" +
                      std::string(value, static_cast<std::size_t>(std::max<ssize_t>(size, 0))));
    }
    std::sort(all.begin(), all.end());
    std::string text;
    for (const std::string& one : all)
        text += " " + one;
    return text;
}

ObjectState stateOfObject(const std::string& path) {
    struct statx status {};
    (void)::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status);
    std::ostringstream text;
    text << std::oct << status.stx_mode << std::dec << " " << status.stx_uid << ":"
         << status.stx_gid << attributesOf(path);
    if (S_ISREG(status.stx_mode)) text << " " << status.stx_nlink << " '" << textOf(path) << "'";
    if (S_ISLNK(status.stx_mode)) text << " -> " << std::filesystem::read_symlink(path).string();
    if (!S_ISDIR(status.stx_mode) && status.stx_mtime.tv_sec != kOldDate) text << " new";
    return {text.str(), (status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0};
}

}  // namespace

void makeTree(const std::string& top, const std::vector<Made>& objects) {
    for (const Made& object : objects)
        if (object.kind != 'i') make(top + "/" + object.path, object);
    const timespec times[2] = {{kOldDate, 0}, {kOldDate, 0}};
    for (const Made& object : objects)
        (void)::utimensat(AT_FDCWD, (top + "/" + object.path).c_str(), times, AT_SYMLINK_NOFOLLOW);
    for (const Made& object : objects)
        if (object.kind == 'i') make(top + "/" + object.path, object);
}

void clearTree(const std::string& top) {
    for (const auto& [path, state] : stateOf(top))
        if (state.locked) lock(top + "/" + path, false);
    for (const auto& entry : std::filesystem::directory_iterator(top))
        std::filesystem::remove_all(entry.path());
}

TreeState stateOf(const std::string& top) {
    TreeState state;
    const auto end = std::filesystem::recursive_directory_iterator();
    for (auto entry = std::filesystem::recursive_directory_iterator(top); entry != end; ++entry)
        state[entry->path().string().substr(top.size() + 1)] =
            stateOfObject(entry->path().string());
    return state;
}

}  // namespace corvalen::test
