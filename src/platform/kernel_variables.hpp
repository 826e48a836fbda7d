// SPDX-License-Identifier: MIT
// Variables of the running kernel, by name.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace corvalen {

/// The kernel's variables. Holds nothing; any thread may call.
class KernelVariables {
  public:
    virtual ~KernelVariables() = default;

    /// Gives an integer variable a new value. 0, or the errno with which the kernel refused it:
    /// ENOENT for a name that no variable has, whatever is wrong with it.
    [[nodiscard]] virtual int setInteger(std::string_view name, std::int64_t value) = 0;
};

/// The variables below /proc/sys (proc(5)), in the spellings of sysctl(8): with dots, or with
/// slashes, between which a dot belongs to the name ("net/ipv4/conf/br.9/mtu"). The value is
/// written as decimal text in one write. Needs openat2(2): without it nothing is ever set.
[[nodiscard]] std::unique_ptr<KernelVariables> makeKernelVariables();

}  // namespace corvalen
