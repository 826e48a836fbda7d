// SPDX-License-Identifier: MIT
// Whether the rules of this machine's polkit can depend on what a right is asked for.
#pragma once

#include "platform/authorization.hpp"

namespace corvalen {

/// Reads the rule files of polkit(8). False only when none contains, as a quoted text, the name of
/// one of the details, or a way to get at details without their names. A file or folder that cannot
/// be read may contain both. Any thread may call that has no ScopedCapabilities.
[[nodiscard]] bool mayPolkitRulesLookAt(const PurposeDetails& details);

}  // namespace corvalen
