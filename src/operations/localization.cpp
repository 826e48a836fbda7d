// SPDX-License-Identifier: MIT
#include "operations/localization.hpp"

#include <libintl.h>

namespace corvalen {

std::string localizedString(std::string_view text, std::string_view table) {
    std::string key(text);
    // The empty key stands for the catalogue's own header.
    if (key.empty() || key.find('\0') != std::string::npos) return key;
    return ::dgettext(std::string(table).c_str(), key.c_str());
}

}  // namespace corvalen
