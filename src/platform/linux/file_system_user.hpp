// SPDX-License-Identifier: MIT
// Acting on files with the rights of a user.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/thread_capabilities.hpp"

namespace corvalen {

/// What the user database (getpwnam(3)) says of a user.
struct UserAccount {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups;
    std::string homeFolder;
};

[[nodiscard]] std::optional<UserAccount> userAccountNamed(const std::string& name);
/// The account of the user this process runs as.
[[nodiscard]] std::optional<UserAccount> ownUserAccount();

/// Gives the calling thread, and no other, the user's rights to files for its lifetime: user and
/// group for file access (setfsuid(2), which takes the file capabilities away too) and groups.
/// Every other identity stays, so that the user can neither signal nor trace the thread.
class ScopedFileSystemUser {
  public:
    explicit ScopedFileSystemUser(const UserAccount& account);
    ~ScopedFileSystemUser();
    ScopedFileSystemUser(const ScopedFileSystemUser&) = delete;
    ScopedFileSystemUser& operator=(const ScopedFileSystemUser&) = delete;

    /// False when the rights could not be changed completely: then nothing must be touched.
    explicit operator bool() const noexcept { return _complete; }

  private:
    /// Ends last: going back to user 0 brings capabilities into effect.
    CapabilitiesKept _capabilities;
    std::vector<gid_t> _savedGroups;
    uid_t _savedUser;
    gid_t _savedGroup;
    bool _complete = false;
};

}  // namespace corvalen
