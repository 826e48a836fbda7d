// SPDX-License-Identifier: MIT
// File flags with system bits, which a kernel in normal operation would not clear.
#pragma once

#include <atomic>
#include <functional>
#include <set>
#include <utility>

#include "platform/files/file_attributes.hpp"

namespace corvalen::test {

/// The kernel's flags, with a system flag on chosen inodes, and failures on demand.
class FlagsWithSystemBits : public FileFlags {
  public:
    Result<std::uint32_t> readFlags(const ObjectAddress& object,
                                    const struct statx& attributes) override {
        if (const auto action = std::exchange(onNextRead, nullptr)) action();
        Result<std::uint32_t> flags = _kernel->readFlags(object, attributes);
        if (flags && systemLocked.count(attributes.stx_ino) != 0) *flags |= kSystemImmutableFlag;
        return flags;
    }
    Result<> setFlags(const ObjectAddress& object, std::uint32_t flags) override {
        ++changes;
        if (failure != 0) return corvalen::failure(failure);
        return _kernel->setFlags(object, flags);
    }

    std::function<void()> onNextRead;
    std::set<std::uint64_t> systemLocked;
    int failure = 0;
    std::atomic<int> changes{0};

  private:
    std::unique_ptr<FileFlags> _kernel = makeFileFlags();
};

}  // namespace corvalen::test
