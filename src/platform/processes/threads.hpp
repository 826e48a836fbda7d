// SPDX-License-Identifier: MIT
// What a single thread has of its own: the effective capabilities, and the user with whose rights
// it accesses files.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace corvalen {

struct UserAccount;

/// A set of capabilities, one bit each. User 0 needs none to use its own files.
using CapabilitySet = std::uint64_t;

namespace capability {
inline constexpr CapabilitySet kReadAnything = 1U << 0U;       // CAP_DAC_READ_SEARCH
inline constexpr CapabilitySet kChangeAnything = 1U << 1U;     // CAP_DAC_OVERRIDE
inline constexpr CapabilitySet kActAsOwner = 1U << 2U;         // CAP_FOWNER
inline constexpr CapabilitySet kGiveAway = 1U << 3U;           // CAP_CHOWN
inline constexpr CapabilitySet kKeepSpecialBits = 1U << 4U;    // CAP_FSETID
inline constexpr CapabilitySet kUnlock = 1U << 5U;             // CAP_LINUX_IMMUTABLE
inline constexpr CapabilitySet kAdminister = 1U << 6U;         // CAP_SYS_ADMIN
inline constexpr CapabilitySet kSetFilePrivileges = 1U << 7U;  // CAP_SETFCAP
inline constexpr CapabilitySet kMakeDevices = 1U << 8U;        // CAP_MKNOD
inline constexpr CapabilitySet kEndProcesses = 1U << 9U;       // CAP_KILL
inline constexpr CapabilitySet kBecomeUser = 1U << 10U;        // CAP_SETUID, CAP_SETGID
inline constexpr CapabilitySet kCommandDrives = 1U << 11U;     // CAP_SYS_RAWIO
inline constexpr CapabilitySet kConfigureNetwork = 1U << 12U;  // CAP_NET_ADMIN
inline constexpr CapabilitySet kSetLimits = 1U << 13U;         // CAP_SYS_RESOURCE
inline constexpr CapabilitySet kSeeProcesses = 1U << 14U;      // CAP_SYS_PTRACE
inline constexpr CapabilitySet kWriteAudit = 1U << 15U;        // CAP_AUDIT_WRITE
}  // namespace capability

/// Clears the effective capabilities of the calling thread and of threads that it creates;
/// ScopedCapabilities raises them again. Call before any other thread exists. Returns false if the
/// kernel refuses.
bool dropThreadCapabilities() noexcept;

/// Clears the calling thread's effective capabilities, for a thread that outlives the scope that it
/// was created in. Does nothing in a process that has not dropped its capabilities.
void dropInheritedCapabilities() noexcept;

/// Makes exactly these capabilities, as far as the process is permitted, effective for the calling
/// thread, and clears them at its end. Threads created meanwhile inherit them. Two system calls;
/// none for an empty set or in a process that has not dropped its capabilities. Scopes do not nest.
class ScopedCapabilities {
  public:
    explicit ScopedCapabilities(CapabilitySet capabilities) noexcept;
    ~ScopedCapabilities();
    ScopedCapabilities(const ScopedCapabilities&) = delete;
    ScopedCapabilities& operator=(const ScopedCapabilities&) = delete;

  private:
    bool _raised;
};

/// Restores the thread's effective capabilities at its end: switching the file system user back to
/// 0 raises all file capabilities. Does nothing in a process that has not dropped its capabilities.
class CapabilitiesKept {
  public:
    CapabilitiesKept() noexcept;
    ~CapabilitiesKept();
    CapabilitiesKept(const CapabilitiesKept&) = delete;
    CapabilitiesKept& operator=(const CapabilitiesKept&) = delete;

  private:
    std::uint64_t _effective;
};

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
