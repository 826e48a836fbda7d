// SPDX-License-Identifier: MIT
#include "platform/linux/files/file_system_user.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace corvalen {
namespace {

constexpr std::size_t kFirstRecordSize = 1024;
constexpr std::size_t kLargestRecordSize = std::size_t{1024} * 1024;
constexpr int kMostGroups = 65536;  // the kernel's limit (NGROUPS_MAX)

std::vector<gid_t> groupsOfUser(const char* name, gid_t group) {
    int count = 16;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (::getgrouplist(name, group, groups.data(), &count) < 0) {
        if (count > kMostGroups) count = kMostGroups;
        if (static_cast<std::size_t>(count) <= groups.size()) break;
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

/// Calls `look`, a re-entrant variant of getpwnam(3), with a buffer that grows as needed.
template <class Look>
std::optional<UserAccount> accountFound(Look look) {
    std::vector<char> buffer(kFirstRecordSize);
    struct passwd record {};
    struct passwd* found = nullptr;
    int error = 0;
    while ((error = look(&record, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < kLargestRecordSize) {
        buffer.resize(buffer.size() * 4);
    }
    if (error != 0 || found == nullptr) return std::nullopt;
    return UserAccount{found->pw_uid, found->pw_gid, groupsOfUser(found->pw_name, found->pw_gid),
                       found->pw_dir};
}

/// The system call affects one thread; the library function would change all threads.
bool setThreadGroups(const std::vector<gid_t>& groups) noexcept {
    return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

/// Return the value in force: both calls return the previous value whether or not they change it,
/// and -1 changes nothing.
uid_t fileSystemUser() noexcept {
    return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
}
gid_t fileSystemGroup() noexcept {
    return static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
}

}  // namespace

std::optional<UserAccount> userAccountNamed(const std::string& name) {
    return accountFound(
        [&name](struct passwd* record, char* buffer, std::size_t size, struct passwd** found) {
            return ::getpwnam_r(name.c_str(), record, buffer, size, found);
        });
}

std::optional<UserAccount> ownUserAccount() {
    return accountFound(
        [](struct passwd* record, char* buffer, std::size_t size, struct passwd** found) {
            return ::getpwuid_r(::geteuid(), record, buffer, size, found);
        });
}

ScopedFileSystemUser::ScopedFileSystemUser(const UserAccount& account)
    : _savedUser(fileSystemUser()), _savedGroup(fileSystemGroup()) {
    const int count = ::getgroups(0, nullptr);
    _savedGroups.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (count < 0 || ::getgroups(count, _savedGroups.data()) != count) {
        _savedGroups.clear();
        return;
    }
    if (!setThreadGroups(account.groups)) return;
    ::setfsgid(account.gid);
    ::setfsuid(account.uid);
    _complete = fileSystemGroup() == account.gid && fileSystemUser() == account.uid;
}

ScopedFileSystemUser::~ScopedFileSystemUser() {
    ::setfsuid(_savedUser);
    ::setfsgid(_savedGroup);
    setThreadGroups(_savedGroups);
}

}  // namespace corvalen
