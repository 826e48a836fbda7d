// SPDX-License-Identifier: MIT
#include "operations/localization.hpp"

namespace corvalen {
namespace {

LocalizationSource& installedSource() {
    static LocalizationSource source;
    return source;
}

}  // namespace

void setLocalizationSource(LocalizationSource source) {
    installedSource() = std::move(source);
}

std::string localizedString(std::string_view text, std::string_view table) {
    if (const auto& source = installedSource()) {
        if (auto translation = source(text, table)) return std::move(*translation);
    }
    return std::string(text);
}

}  // namespace corvalen
