// SPDX-License-Identifier: MIT
// Which way the flags take into the kernel.
#pragma once

namespace corvalen {

/// Makes every following call take the way of kernels without file_getattr(2), so that a newer
/// kernel can try it too.
void forceIoctlForFileFlags(bool force) noexcept;

}  // namespace corvalen
