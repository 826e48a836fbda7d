// SPDX-License-Identifier: MIT
#include "platform/file_manager_tree.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "platform/entry.hpp"

namespace corvalen {
namespace {

/// Large enough that sorting by inode pays in a folder of very many entries.
constexpr std::size_t kBufferSize = 2 << 20;
/// From so many entries in a batch on the order of the inodes beats that of the folder's hash.
constexpr std::size_t kSortedFrom = 10000;
/// So many bytes of names of subfolders may wait before they are entered.
constexpr std::size_t kPendingLimit = 256 << 10;
/// Visited objects are reported in groups: two threads share the count.
constexpr std::uint64_t kReportedAtOnce = 64;

using Record = struct dirent64;  // the layout of linux_dirent64 in getdents64(2)

bool isDotOrDotDot(const char* name) noexcept {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

/// For file systems whose listings do not tell the type.
unsigned char examineType(int parent, const char* name) noexcept {
    struct statx attributes {};
    if (::statx(parent, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &attributes) != 0)
        return DT_UNKNOWN;
    return static_cast<unsigned char>(IFTODT(attributes.stx_mode));
}

bool identify(int fd, struct statx* identity) noexcept {
    return ::statx(fd, "", AT_EMPTY_PATH, objectStatxMask(), identity) == 0;
}

}  // namespace

UniqueFd openFolder(int parent, const char* name, bool followLink) noexcept {
    const int linkFlag = followLink ? 0 : O_NOFOLLOW;
    return UniqueFd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | linkFlag));
}

int FolderStack::push(UniqueFd folder) {
    _folders.push_back({std::move(folder), {}});
    if (_folders.size() <= _budget) return 0;
    Folder& far = _folders[_folders.size() - 1 - _budget];
    if (!far.fd) return 0;
    if (!identify(far.fd.get(), &far.identity)) return errno;
    far.fd.reset();
    return 0;
}

int FolderStack::pop(bool* reopened) {
    *reopened = false;
    if (_folders.size() > 1 && !_folders[_folders.size() - 2].fd) {
        Folder& above = _folders[_folders.size() - 2];
        UniqueFd found = openFolder(top(), "..", false);
        if (!found) return errno;
        struct statx identity {};
        if (!identify(found.get(), &identity)) return errno;
        if (!isSameObject(identity, above.identity)) return ESTALE;
        above.fd = std::move(found);
        *reopened = true;
    }
    _folders.pop_back();
    return 0;
}

int TreeWalk::walk(UniqueFd top, TreeVisitor& visitor) {
    _folders.clear();
    _frames.clear();
    _names.clear();
    _failedPath.clear();
    if (!_buffer) _buffer.reset(new char[kBufferSize]);
    if (const int error = _folders.push(std::move(top)); error != 0) return error;
    _frames.push_back({0, 0, 0, false});
    int error = 0;
    while (error == 0 && !_frames.empty())
        error = step(visitor);
    reportVisited();
    _folders.clear();
    return error;
}

int TreeWalk::step(TreeVisitor& visitor) {
    const Frame& frame = _frames.back();
    if (_names.size() > frame.pendingStart) return descend(visitor);
    return frame.exhausted ? ascend(visitor) : readFolder(visitor);
}

int TreeWalk::readFolder(TreeVisitor& visitor) {
    Frame& frame = _frames.back();
    while (_names.size() - frame.pendingStart < kPendingLimit) {
        const ssize_t length = ::getdents64(_folders.top(), _buffer.get(), kBufferSize);
        if (length <= 0) {
            frame.exhausted = true;
            // ENOENT: the folder itself was removed meanwhile, so that nothing is left in it.
            if (length == 0 || errno == ENOENT) return 0;
            const int error = visitor.cannotList(errno);
            return error == 0 ? 0 : failAt(error, "");
        }
        if (const int error = visitBatch(static_cast<std::size_t>(length), visitor); error != 0)
            return error;
    }
    return 0;
}

int TreeWalk::visitBatch(std::size_t length, TreeVisitor& visitor) {
    _order.clear();
    for (std::size_t offset = 0; offset < length;) {
        const auto* record = reinterpret_cast<const Record*>(_buffer.get() + offset);
        _frames.back().position = record->d_off;
        if (!isDotOrDotDot(record->d_name)) _order.emplace_back(record->d_ino, offset);
        offset += record->d_reclen;
    }
    if (_order.size() >= kSortedFrom) std::sort(_order.begin(), _order.end());
    for (const auto& [inode, offset] : _order) {
        if (const int error = visitEntry(offset, visitor); error != 0) return error;
    }
    return 0;
}

int TreeWalk::visitEntry(std::size_t offset, TreeVisitor& visitor) {
    const auto* record = reinterpret_cast<const Record*>(_buffer.get() + offset);
    TreeEntry entry{_folders.top(), record->d_name, record->d_type};
    if (entry.type == DT_UNKNOWN) entry.type = examineType(entry.parent, entry.name);
    bool enter = entry.type == DT_DIR;
    const bool cancelled = _options.progress != nullptr && _options.progress->cancelled();
    const int error = cancelled ? ECANCELED : visitor.visit(entry, &enter);
    if (error != 0) return failAt(error, entry.name);
    if (++_visited == kReportedAtOnce) reportVisited();
    if (enter) _names.insert(_names.end(), entry.name, entry.name + std::strlen(entry.name) + 1);
    return 0;
}

int TreeWalk::descend(TreeVisitor& visitor) {
    std::size_t nameOffset = _names.size() - 1;
    while (nameOffset > _frames.back().pendingStart && _names[nameOffset - 1] != '\0')
        --nameOffset;
    const TreeEntry entry{_folders.top(), &_names[nameOffset], DT_DIR};
    UniqueFd folder = _options.mounts == TreeWalkOptions::Mounts::refused
                          ? openOnSameMount(entry.parent, entry.name)
                          : openFolder(entry.parent, entry.name, false);
    if (!folder) {
        const int error = visitor.cannotEnter(entry, errno);
        if (error != 0) return failAt(error, entry.name);
        _names.resize(nameOffset);
        return 0;
    }
    int error = _taker != nullptr ? _taker->offer(&folder) : 0;
    if (error == 0 && !folder) {
        _names.resize(nameOffset);
        return 0;
    }
    if (error == 0) error = visitor.enter(entry);
    if (error == 0) error = _folders.push(std::move(folder));
    if (error != 0) return failAt(error, entry.name);
    _frames.push_back({nameOffset, _names.size(), 0, false});
    return 0;
}

int TreeWalk::ascend(TreeVisitor& visitor) {
    const Frame left = _frames.back();
    if (_frames.size() == 1) {
        _frames.pop_back();
        return 0;
    }
    bool reopened = false;
    if (const int error = _folders.pop(&reopened); error != 0) return failAt(error, "");
    _frames.pop_back();
    const Frame& frame = _frames.back();
    if (reopened && !frame.exhausted && _options.resume == TreeWalkOptions::Resume::atPosition)
        (void)::lseek(_folders.top(), frame.position, SEEK_SET);
    const TreeEntry entry{_folders.top(), &_names[left.nameOffset], DT_DIR};
    if (const int error = visitor.leave(entry); error != 0) return failAt(error, entry.name);
    _names.resize(left.nameOffset);
    return 0;
}

void TreeWalk::reportVisited() noexcept {
    if (_options.progress != nullptr) _options.progress->add(_visited);
    _visited = 0;
}

int TreeWalk::failAt(int error, const char* name) {
    for (std::size_t i = 1; i < _frames.size(); ++i)
        _failedPath.append(&_names[_frames[i].nameOffset]).push_back('/');
    _failedPath.append(name);
    if (*name == '\0' && !_failedPath.empty()) _failedPath.pop_back();
    return error;
}

}  // namespace corvalen
