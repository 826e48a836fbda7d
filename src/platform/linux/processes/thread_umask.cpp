// SPDX-License-Identifier: MIT
#include "platform/processes/thread_umask.hpp"

#include <sched.h>
#include <sys/stat.h>

namespace corvalen {

bool separateFileCreationMask() noexcept {
    return ::unshare(CLONE_FS) == 0;
}

ScopedUmask::ScopedUmask(mode_t mask) noexcept : _saved(::umask(mask)) {}

ScopedUmask::~ScopedUmask() {
    ::umask(_saved);
}

}  // namespace corvalen
