// SPDX-License-Identifier: MIT
#include "settings/property_list_text.hpp"

#include <cerrno>

#include "foundation/property_list.hpp"

namespace corvalen {

bool valueFromText(const std::string& text, const std::string& key, std::optional<Value>* value,
                   ErrorRef* error) {
    if (text.empty()) return true;
    ErrorRef reason;
    *value = propertyListFromData(text, &reason);
    if (*value && xmlPropertyList(Dictionary{{key, **value}}, &reason)) return true;
    return fail(error,
                makePosixError(EINVAL, Dictionary{{std::string(kUnderlyingErrorKey), reason}}));
}

}  // namespace corvalen
