// SPDX-License-Identifier: MIT
// Rules of this machine's polkit that can depend on the purpose of a request.
#pragma once

#include "platform/authorization/authorization.hpp"

namespace corvalen {

/// Reads the rule files of polkit(8). Returns false only if none contains the quoted name of a
/// detail or a way to read details without their names. Unreadable files and directories may
/// contain both. Any thread may call that holds no ScopedCapabilities.
[[nodiscard]] bool mayPolkitRulesLookAt(const PurposeDetails& details);

}  // namespace corvalen
