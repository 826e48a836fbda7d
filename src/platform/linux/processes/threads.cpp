// SPDX-License-Identifier: MIT
#include <linux/capability.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

#include "platform/authorization/identity.hpp"
#include "platform/processes/threads.hpp"

namespace corvalen {

namespace {

/// Bit masks by the kernel's capability numbers.
struct KernelCapabilities {
    std::uint64_t effective = 0;
    std::uint64_t permitted = 0;
    std::uint64_t inheritable = 0;
};

// Constant once other threads exist: read without a lock.
bool dropped = false;
KernelCapabilities ofProcess;

constexpr std::uint64_t bit(int number) noexcept {
    return std::uint64_t{1} << static_cast<unsigned>(number);
}

struct Meaning {
    CapabilitySet capability;
    std::uint64_t kernelMask;
};

constexpr std::array<Meaning, 16> kMeanings = {{
    {capability::kReadAnything, bit(CAP_DAC_READ_SEARCH)},
    {capability::kChangeAnything, bit(CAP_DAC_OVERRIDE)},
    {capability::kActAsOwner, bit(CAP_FOWNER)},
    {capability::kGiveAway, bit(CAP_CHOWN)},
    {capability::kKeepSpecialBits, bit(CAP_FSETID)},
    {capability::kUnlock, bit(CAP_LINUX_IMMUTABLE)},
    {capability::kAdminister, bit(CAP_SYS_ADMIN)},
    {capability::kSetFilePrivileges, bit(CAP_SETFCAP)},
    {capability::kMakeDevices, bit(CAP_MKNOD)},
    {capability::kEndProcesses, bit(CAP_KILL)},
    {capability::kBecomeUser, bit(CAP_SETUID) | bit(CAP_SETGID)},
    {capability::kCommandDrives, bit(CAP_SYS_RAWIO)},
    {capability::kConfigureNetwork, bit(CAP_NET_ADMIN)},
    {capability::kSetLimits, bit(CAP_SYS_RESOURCE)},
    {capability::kSeeProcesses, bit(CAP_SYS_PTRACE)},
    {capability::kWriteAudit, bit(CAP_AUDIT_WRITE)},
}};

std::uint64_t kernelMask(CapabilitySet capabilities) noexcept {
    std::uint64_t mask = 0;
    for (const Meaning& each : kMeanings) {
        if ((capabilities & each.capability) != 0) mask |= each.kernelMask;
    }
    return mask;
}

constexpr unsigned kHalf = 32;
using KernelData = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

bool readCapabilities(KernelCapabilities& capabilities) noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    KernelData data{};
    if (::syscall(SYS_capget, &header, data.data()) != 0) return false;
    const auto join = [](std::uint32_t low, std::uint32_t high) {
        return std::uint64_t{high} << kHalf | low;
    };
    capabilities = {join(data[0].effective, data[1].effective),
                    join(data[0].permitted, data[1].permitted),
                    join(data[0].inheritable, data[1].inheritable)};
    return true;
}

/// Sets the effective set of the calling thread. libcap would do the same for one more dependency.
bool setEffective(std::uint64_t effective) noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    KernelData data{};
    for (unsigned half = 0; half < data.size(); ++half) {
        const unsigned shift = half * kHalf;
        data[half] = {static_cast<std::uint32_t>(effective >> shift),
                      static_cast<std::uint32_t>(ofProcess.permitted >> shift),
                      static_cast<std::uint32_t>(ofProcess.inheritable >> shift)};
    }
    return ::syscall(SYS_capset, &header, data.data()) == 0;
}

}  // namespace

bool dropThreadCapabilities() noexcept {
    dropped = readCapabilities(ofProcess) && setEffective(0);
    return dropped;
}

void dropInheritedCapabilities() noexcept {
    if (dropped) (void)setEffective(0);
}

ScopedCapabilities::ScopedCapabilities(CapabilitySet capabilities) noexcept
    : _raised(dropped && capabilities != 0 &&
              setEffective(kernelMask(capabilities) & ofProcess.permitted)) {}

ScopedCapabilities::~ScopedCapabilities() {
    if (_raised) (void)setEffective(0);
}

CapabilitiesKept::CapabilitiesKept() noexcept : _effective(0) {
    KernelCapabilities now;
    if (dropped && readCapabilities(now)) _effective = now.effective;
}

CapabilitiesKept::~CapabilitiesKept() {
    if (dropped) (void)setEffective(_effective);
}

namespace {

/// The system call affects one thread; the library function would change all threads.
bool setThreadGroups(const std::vector<gid_t>& groups) noexcept {
#ifdef SYS_setgroups32
    constexpr long kSetGroups = SYS_setgroups32;  // there SYS_setgroups has identifiers of 16 bits
#else
    constexpr long kSetGroups = SYS_setgroups;
#endif
    return ::syscall(kSetGroups, groups.size(), groups.data()) == 0;
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
