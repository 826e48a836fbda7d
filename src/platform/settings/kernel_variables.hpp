// SPDX-License-Identifier: MIT
// Variables of the running kernel, by name.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace corvalen {

/// Stateless; any thread may call.
class KernelVariables {
  public:
    virtual ~KernelVariables() = default;

    /// Sets an integer variable. Returns 0 or the kernel's errno: ENOENT if no variable has this
    /// name, malformed names included.
    [[nodiscard]] virtual int setInteger(std::string_view name, std::int64_t value) = 0;
};

/// The variables below /proc/sys (proc(5)). Names are spelled as for sysctl(8): with dots, or with
/// slashes, between which a dot is part of the name ("net/ipv4/conf/br.9/mtu"). The value is
/// written as decimal text in one write. Every call fails without openat2(2).
[[nodiscard]] std::unique_ptr<KernelVariables> makeKernelVariables();

}  // namespace corvalen
