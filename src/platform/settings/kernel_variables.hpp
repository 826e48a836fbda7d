// SPDX-License-Identifier: MIT
// Variables of the running kernel, by name.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "foundation/result.hpp"

namespace corvalen {

/// Stateless; any thread may call.
class KernelVariables {
  public:
    virtual ~KernelVariables() = default;

    /// Sets an integer variable. ENOENT if no variable has this name, malformed names included.
    [[nodiscard]] virtual Result<> setInteger(std::string_view name, std::int64_t value) = 0;
};

/// The variables below /proc/sys (proc(5)). Names are spelled as for sysctl(8): with dots, or with
/// slashes, between which a dot is part of the name ("net/ipv4/conf/br.9/mtu"). The value is
/// written as decimal text in one write. Every call fails without openat2(2).
[[nodiscard]] std::unique_ptr<KernelVariables> makeKernelVariables();

}  // namespace corvalen
