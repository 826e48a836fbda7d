// SPDX-License-Identifier: MIT
// The utilities of the operating system that the daemon runs.
#pragma once

#include <array>
#include <string_view>

namespace corvalen {

/// Their paths; clients name them by the last component.
inline constexpr std::array<std::string_view, 16> kPermittedUtilities = {
    "/usr/bin/dscacheutil",
    "/usr/sbin/discoveryutil",
    "/bin/chmod",
    "/usr/sbin/chown",
    "/usr/bin/update_dyld_shared_cache",
    "/usr/bin/ditto",
    "/usr/sbin/periodic",
    "/usr/sbin/diskutil",
    "/usr/bin/mdutil",
    "/usr/bin/lipo",
    "/usr/bin/atsutil",
    "/bin/launchctl",
    "/usr/sbin/cupsctl",
    "/usr/bin/tmutil",
    "/usr/sbin/dot_clean",
    "/usr/libexec/xpchelper",
};

/// Taken from the client application, never from the system.
inline constexpr std::string_view kUtilityOfApplication = "lipo";

}  // namespace corvalen
