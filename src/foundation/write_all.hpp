// SPDX-License-Identifier: MIT
// Writes a whole buffer to a descriptor.
#pragma once

#include <string_view>

namespace corvalen {

/// Writes all of `bytes`; blocks if the descriptor does. Returns 0, or the errno value of the
/// failed write(2), which may leave a part written.
[[nodiscard]] int writeAll(int fd, std::string_view bytes) noexcept;

}  // namespace corvalen
