// SPDX-License-Identifier: MIT
// File flags with system bits, which a kernel in normal operation would not clear.
#pragma once

#include <atomic>
#include <set>

#include "platform/files/file_flags.hpp"

namespace corvalen::test {

/// The kernel's flags, with a system flag on chosen inodes, and failures on demand.
class FlagsWithSystemBits : public FileFlags {
  public:
    int readFlags(const ObjectAddress& object, const struct statx& attributes,
                  std::uint32_t* flags) override {
        const int error = _kernel->readFlags(object, attributes, flags);
        if (error == 0 && systemLocked.count(attributes.stx_ino) != 0)
            *flags |= kSystemImmutableFlag;
        return error;
    }
    int setFlags(const ObjectAddress& object, std::uint32_t flags) override {
        ++changes;
        return failure != 0 ? failure : _kernel->setFlags(object, flags);
    }

    std::set<std::uint64_t> systemLocked;
    int failure = 0;
    std::atomic<int> changes{0};

  private:
    std::unique_ptr<FileFlags> _kernel = makeFileFlags();
};

}  // namespace corvalen::test
