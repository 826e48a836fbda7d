// SPDX-License-Identifier: MIT
// Translation of texts that are their own keys.
#pragma once

#include <string>
#include <string_view>

namespace corvalen {

/// Returns the translation of `text` in `table`, or `text` itself. A table is a text domain of
/// gettext(3), as in polkit, which shows the prompts. The process's locale selects the catalogue.
[[nodiscard]] std::string localizedString(std::string_view text, std::string_view table);

}  // namespace corvalen
