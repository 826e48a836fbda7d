// SPDX-License-Identifier: MIT
// Closes sockets of strangers without waiting for what lies unread in them.
#pragma once

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Closes a local socket on another thread, soon. For threads that serve more than one client: the
/// last close of a socket also closes the descriptors in its queue, and may wait for hours for one
/// that lingers (socket(7), SO_LINGER). The closing thread does not wait either. Any thread.
void closeElsewhere(UniqueFd socket) noexcept;

}  // namespace corvalen
