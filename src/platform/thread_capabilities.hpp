// SPDX-License-Identifier: MIT
// What a thread of root may do at the moment (capabilities(7)).
#pragma once

#include <cstdint>

namespace corvalen {

/// Powers beyond those that user 0 has as the owner of his files, one bit each.
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

/// Takes all capabilities out of effect for the calling thread and those that it creates, and lets
/// ScopedCapabilities put them back. Before any other thread exists. False when the kernel refuses.
bool dropThreadCapabilities() noexcept;

/// Puts exactly these capabilities, as far as the process may have them, in effect for the calling
/// thread and the threads that it creates meanwhile; at its end none. Two system calls, none for an
/// empty set, and none in a process that has not dropped its capabilities. Scopes do not nest.
class ScopedCapabilities {
  public:
    explicit ScopedCapabilities(CapabilitySet capabilities) noexcept;
    ~ScopedCapabilities();
    ScopedCapabilities(const ScopedCapabilities&) = delete;
    ScopedCapabilities& operator=(const ScopedCapabilities&) = delete;

  private:
    bool _raised;
};

/// At its end puts the capabilities in effect that the thread had at its beginning: a change of the
/// file system user back to 0 brings all those for files into effect. Does nothing in a process
/// that has not dropped its capabilities.
class CapabilitiesKept {
  public:
    CapabilitiesKept() noexcept;
    ~CapabilitiesKept();
    CapabilitiesKept(const CapabilitiesKept&) = delete;
    CapabilitiesKept& operator=(const CapabilitiesKept&) = delete;

  private:
    std::uint64_t _effective;
};

}  // namespace corvalen
