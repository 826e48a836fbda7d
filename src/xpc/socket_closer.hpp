// SPDX-License-Identifier: MIT
// Closes sockets of untrusted peers without blocking on their unread contents.
#pragma once

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Closes a local socket on another thread, soon. For threads that serve several clients: the last
/// close of a socket also closes the descriptors in its queue, and one of them may linger for hours
/// (socket(7), SO_LINGER). The closing thread does not linger either. Any thread.
void closeElsewhere(UniqueFd socket) noexcept;

}  // namespace corvalen
