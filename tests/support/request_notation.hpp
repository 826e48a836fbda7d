// SPDX-License-Identifier: MIT
// Requests as rows of golden files have them.
#pragma once

#include <sstream>
#include <string>
#include <utility>

#include "corvalen/value.hpp"

namespace corvalen::test {

/// A string, or "#number", "!data", "?" for true, "~" for nil, "(" for an empty array.
inline Value valueOf(const std::string& text) {
    if (text == "?") return true;
    if (text == "~") return {};
    if (text == "(") return Array();
    if (text.starts_with('#')) return std::uint64_t{std::stoul(text.substr(1))};
    if (text.starts_with('!')) return Data::copy(text.substr(1));
    return text;
}

/// Code and arguments of "code|argument|argument".
inline std::pair<std::uint64_t, Array> requestOf(const std::string& notation) {
    std::istringstream words(notation);
    std::string word;
    std::getline(words, word, '|');
    const std::uint64_t code = std::stoul(word);
    Array arguments;
    while (std::getline(words, word, '|'))
        arguments.push_back(valueOf(word));
    return {code, arguments};
}

}  // namespace corvalen::test
