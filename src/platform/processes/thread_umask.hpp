// SPDX-License-Identifier: MIT
// File creation masks of single threads.
#pragma once

#include <sys/types.h>

namespace corvalen {

/// Separates the calling thread's file creation mask and working directory from those of other
/// threads (unshare(2), CLONE_FS). Returns false if the kernel refuses.
bool separateFileCreationMask() noexcept;

/// Sets the file creation mask, and restores the old one at its end.
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
