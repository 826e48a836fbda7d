// SPDX-License-Identifier: MIT
// Translation of texts that are their own keys.
#pragma once

#include <string>
#include <string_view>

namespace corvalen {

/// The translation of `text` in the table of this name, or `text` itself. A table is a text domain
/// of gettext(3), as it is for polkit, which shows the prompts: the process's locale decides, and
/// without a catalogue for it every text passes through.
[[nodiscard]] std::string localizedString(std::string_view text, std::string_view table);

}  // namespace corvalen
