// SPDX-License-Identifier: MIT
// A file creation mask of one's own.
#pragma once

#include <sys/types.h>

namespace corvalen {

/// Gives the calling thread a file creation mask and working directory of its own
/// (unshare(2), CLONE_FS). False when the kernel refuses.
bool separateFileCreationMask() noexcept;

/// Sets the file creation mask for its lifetime and puts the old one back.
class ScopedUmask {
  public:
    explicit ScopedUmask(mode_t mask) noexcept;
    ~ScopedUmask();
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

  private:
    mode_t _saved;
};

}  // namespace corvalen
