// SPDX-License-Identifier: MIT
#include "operations/localization.hpp"

#include <libintl.h>

namespace corvalen {

std::string localizedString(std::string_view text, std::string_view table) {
    std::string key(text);
    // gettext(3) returns the catalogue's header for the empty key.
    if (key.empty() || key.find('\0') != std::string::npos) return key;
    return ::dgettext(std::string(table).c_str(), key.c_str());
}

}  // namespace corvalen
