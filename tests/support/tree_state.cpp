// SPDX-License-Identifier: MIT
#include "support/tree_state.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "corvalen/descriptor.hpp"
#include "support/acl_bytes.hpp"
#include "support/packed.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::test {
namespace {

constexpr time_t kOldDate = 1000;
constexpr std::pair<const char*, const char*> kLists[] = {{"acl", "system.posix_acl_access"},
                                                          {"default", "system.posix_acl_default"}};

constexpr std::pair<const char*, unsigned> kFlags[] = {{"locked", FS_IMMUTABLE_FL},
                                                       {"append", FS_APPEND_FL}};

void setFlags(const std::string& path, unsigned added) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    unsigned flags = 0;
    if (!file || ::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) return;
    flags = (flags & ~static_cast<unsigned>(FS_IMMUTABLE_FL | FS_APPEND_FL)) | added;
    (void)::ioctl(file.get(), FS_IOC_SETFLAGS, &flags);
}

void create(const std::string& path, const std::string& word) {
    switch (word[0]) {
        case 'd':
            (void)::mkdir(path.c_str(), 0700);
            break;
        case 'p':
        case 'c':
        case 'w':
            (void)::mknod(path.c_str(), word[0] == 'p' ? S_IFIFO : S_IFCHR,
                          word[0] == 'c' ? makedev(1, 3) : 0);
            break;
        case '>':
            (void)!::symlink(word.c_str() + 1, path.c_str());
            return;
        default:
            std::ofstream(path).close();
    }
    (void)::chmod(path.c_str(), static_cast<mode_t>(std::stoul(word.substr(1), nullptr, 8)));
}

void apply(const std::string& path, const std::string& word) {
    const std::size_t equals = word.find('=');
    if (equals == 0) std::ofstream(path, std::ios::binary) << word.substr(1);
    if (word[0] >= '0' && word[0] <= '9') {
        struct stat status {};
        (void)::lstat(path.c_str(), &status);
        (void)!::lchown(path.c_str(), static_cast<uid_t>(std::stoul(word)),
                        static_cast<gid_t>(std::stoul(word.substr(word.find(':') + 1))));
        // The new owner cost it its set-ID bits.
        if (!S_ISLNK(status.st_mode)) (void)::chmod(path.c_str(), status.st_mode & 07777U);
    }
    if (equals == 0 || equals == std::string::npos) return;
    std::string name = word.substr(0, equals), value = word.substr(equals + 1);
    for (const auto& [shorthand, attribute] : kLists) {
        if (name != shorthand) continue;
        name = attribute;
        value = aclOf(value);
    }
    (void)::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0);
}

/// The paths that "x{1-20}" stands for: x1 to x20.
std::vector<std::string> pathsOf(const std::string& path) {
    const std::size_t begin = path.find('{');
    if (begin == std::string::npos) return {path};
    const std::size_t end = path.find('}', begin);
    const int last = std::stoi(path.substr(path.find('-', begin) + 1));
    std::vector<std::string> paths;
    for (int number = std::stoi(path.substr(begin + 1)); number <= last; ++number)
        paths.push_back(path.substr(0, begin) + std::to_string(number) + path.substr(end + 1));
    return paths;
}

/// The words of each object.
std::vector<std::vector<std::string>> objectsOf(const std::string& notation) {
    std::vector<std::vector<std::string>> objects;
    std::istringstream parts(notation);
    for (std::string part; std::getline(parts >> std::ws, part, ';');) {
        std::istringstream text(part);
        std::vector<std::string> words;
        for (std::string word; text >> word;)
            words.push_back(unpacked(word));
        for (const std::string& path : pathsOf(words.at(0))) {
            words[0] = path;
            objects.push_back(words);
        }
    }
    return objects;
}

std::string attributesOf(const std::string& path) {
    char names[512];
    const ssize_t length = ::llistxattr(path.c_str(), names, sizeof names);
    std::vector<std::string> all;
    for (const char* name = names; name < names + std::max<ssize_t>(length, 0);
         name += std::strlen(name) + 1) {
        char value[256];
        const ssize_t size = ::lgetxattr(path.c_str(), name, value, sizeof value);
        const std::string bytes(value, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        std::string text = std::string(name) + "=" + bytes;
        for (const auto& [shorthand, attribute] : kLists)
            if (std::string_view(name) == attribute)
                text = std::string(shorthand) + "=" + aclText(bytes);
        all.push_back(text);
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
    if (S_ISLNK(status.stx_mode))
        text << ">" << std::filesystem::read_symlink(path).string();
    else
        text << "?pc?d?b?f?l?s"[(status.stx_mode & S_IFMT) >> 12U] << std::oct
             << (status.stx_mode & 07777U) << std::dec;
    text << " " << status.stx_uid << ":" << status.stx_gid;
    if (S_ISCHR(status.stx_mode))
        text << " device=" << status.stx_rdev_major << "," << status.stx_rdev_minor;
    if (S_ISREG(status.stx_mode)) text << " =" << textOf(path);
    text << attributesOf(path);
    if (S_ISREG(status.stx_mode) && status.stx_nlink > 1) text << " links=" << status.stx_nlink;
    if (!S_ISDIR(status.stx_mode) && status.stx_mtime.tv_sec != kOldDate) text << " new";
    const auto flag = [&status](std::uint64_t bit, const char* word) {
        return (status.stx_attributes & bit) != 0 ? word : "";
    };
    return {text.str(), std::string(flag(STATX_ATTR_IMMUTABLE, " locked")) +
                            flag(STATX_ATTR_APPEND, " append")};
}

}  // namespace

void makeTree(const std::string& top, const std::string& objects) {
    const auto all = objectsOf(objects);
    for (const auto& words : all) {
        const std::string path = top + "/" + words[0];
        const bool isNew = !std::filesystem::exists(std::filesystem::symlink_status(path));
        if (isNew) create(path, words.at(1));
        for (std::size_t i = isNew ? 2 : 1; i < words.size(); ++i)
            apply(path, words[i]);
    }
    const timespec times[2] = {{kOldDate, 0}, {kOldDate, 0}};
    for (const auto& words : all)
        (void)::utimensat(AT_FDCWD, (top + "/" + words[0]).c_str(), times, AT_SYMLINK_NOFOLLOW);
    for (const auto& words : all) {
        unsigned flags = 0;
        for (const auto& [word, flag] : kFlags)
            flags |= std::find(words.begin() + 1, words.end(), word) != words.end() ? flag : 0;
        if (flags != 0) setFlags(top + "/" + words[0], flags);
    }
}

void clearTree(const std::string& top) {
    setFlags(top, 0);
    for (const auto& [path, state] : stateOf(top))
        if (!state.flags.empty()) setFlags(std::string(top).append("/").append(path), 0);
    std::error_code isMountPoint;
    for (const auto& entry : std::filesystem::directory_iterator(top))
        std::filesystem::remove_all(entry.path(), isMountPoint);
}

TreeState stateOf(const std::string& top) {
    TreeState state;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top))
        state[entry.path().string().substr(top.size() + 1)] = stateOfObject(entry.path().string());
    return state;
}

std::string changes(const TreeState& before, const TreeState& after) {
    std::map<std::string, std::string> lines;
    for (const auto& [path, object] : before)
        if (!after.contains(path)) lines[path] = "- " + path + "\n";
    for (const auto& [path, object] : after) {
        const auto old = before.find(path);
        if (old != before.end() && old->second == object) continue;
        lines[path] =
            (old == before.end() ? "+ " : "~ ") + path + " " + object.text + object.flags + "\n";
    }
    std::string text;
    for (const auto& [path, line] : lines)
        text += line;
    return text;
}

}  // namespace corvalen::test
