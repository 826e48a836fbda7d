// SPDX-License-Identifier: MIT
// File access with the rights of a user.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/processes/thread_capabilities.hpp"

namespace corvalen {

/// A user's record in the user database (getpwnam(3)).
struct UserAccount {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups;
    std::string homeFolder;
};

/// Both return std::nullopt if there is no such user or the database cannot be read. Any thread may
/// call.
[[nodiscard]] std::optional<UserAccount> userAccountNamed(const std::string& name);
/// The account of this process's effective user.
[[nodiscard]] std::optional<UserAccount> ownUserAccount();

/// Gives the calling thread, and no other, the user's rights to files for its lifetime:
/// supplementary groups, and user and group for file access (setfsuid(2), which also clears the
/// file capabilities). All other identities stay, so the user can neither signal nor trace the
/// thread.
class ScopedFileSystemUser {
  public:
    explicit ScopedFileSystemUser(const UserAccount& account);
    ~ScopedFileSystemUser();
    ScopedFileSystemUser(const ScopedFileSystemUser&) = delete;
    ScopedFileSystemUser& operator=(const ScopedFileSystemUser&) = delete;

    /// False if the change is incomplete; then the caller must access no file.
    explicit operator bool() const noexcept { return _complete; }

  private:
    /// Destroyed last: returning to user 0 raises capabilities.
    CapabilitiesKept _capabilities;
    std::vector<gid_t> _savedGroups;
    uid_t _savedUser;
    gid_t _savedGroup;
    bool _complete = false;
};

}  // namespace corvalen
