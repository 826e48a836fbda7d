// SPDX-License-Identifier: MIT
// The values that the stores of settings take, as text.
#pragma once

#include <optional>
#include <string>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"

namespace corvalen {

/// Parses a property list; std::nullopt for an empty text. False with an error for a text that
/// is not a property list, or a value that a store cannot hold under this key: nested too deeply,
/// too many values, characters that XML cannot have.
bool valueFromText(const std::string& text, const std::string& key, std::optional<Value>* value,
                   ErrorRef* error);

}  // namespace corvalen
