// SPDX-License-Identifier: MIT
// Requests as rows of golden files have them.
#pragma once

#include <map>
#include <regex>
#include <string>
#include <utility>

#include "corvalen/value.hpp"
#include "support/acl_bytes.hpp"
#include "support/packed.hpp"

namespace corvalen::test {

/// A string, or "#number", "!data", "?" for true, "-" for false, "~" for nil, "(" for an empty
/// array, "acl=..." for the data of access lists in the short text form, separated by "/".
inline Value valueOf(const std::string& text) {
    if (text == "?" || text == "-") return text == "?";
    if (text == "~") return {};
    if (text == "(") return Array();
    if (text.starts_with("#-")) return std::int64_t{std::stoll(text.substr(1))};
    if (text.starts_with('#')) return std::uint64_t{std::stoull(text.substr(1))};
    if (text.starts_with('!')) return Data::copy(text.substr(1));
    if (!text.starts_with("acl=")) return text;
    std::string bytes;
    for (const std::string& list : fieldsOf(text.substr(4), '/'))
        bytes += aclOf(list);
    return Data::copy(bytes);
}

/// Moves the words "name=number" before a request to `settings`.
inline void takeSettings(std::string& line, std::map<std::string, int>& settings) {
    static const std::regex kWord("^([a-z]+)=(-?[0-9]+) ");
    for (std::smatch word; std::regex_search(line, word, kWord); line = word.suffix().str())
        settings[word[1]] = std::stoi(word[2]);
}

/// Operation and arguments of "operation|argument|argument".
inline std::pair<std::string, Array> callOf(const std::string& notation) {
    const std::vector<std::string> words = fieldsOf(notation);
    Array arguments;
    for (std::size_t i = 1; i < words.size(); ++i)
        arguments.push_back(valueOf(words[i]));
    return {words.at(0), arguments};
}
/// The same for an operation named by its code.
inline std::pair<std::uint64_t, Array> requestOf(const std::string& notation) {
    const auto [operation, arguments] = callOf(notation);
    return {std::stoull(operation), arguments};
}

}  // namespace corvalen::test
