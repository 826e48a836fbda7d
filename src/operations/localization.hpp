// SPDX-License-Identifier: MIT
// Translation of texts that are their own keys.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace corvalen {

/// Gives the translation of `text` in the table of this name, or nothing.
using LocalizationSource =
    std::function<std::optional<std::string>(std::string_view text, std::string_view table)>;

/// Where translations come from: without a source (the beginning) every text passes through.
/// Set once at start, before other threads look anything up.
void setLocalizationSource(LocalizationSource source);

/// The translation of `text`, or `text` itself.
[[nodiscard]] std::string localizedString(std::string_view text, std::string_view table);

}  // namespace corvalen
