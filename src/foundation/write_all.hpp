// SPDX-License-Identifier: MIT
// Writing a whole buffer to a descriptor.
#pragma once

#include <string_view>

namespace corvalen {

/// Writes all of `bytes`; blocks where the descriptor blocks. Returns 0, or the errno of the
/// write(2) that failed, in which case a part may have been written.
[[nodiscard]] int writeAll(int fd, std::string_view bytes) noexcept;

}  // namespace corvalen
