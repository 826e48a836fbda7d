// SPDX-License-Identifier: MIT
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace corvalen::test {

/// In golden files, as in the corpora of the fuzzers, %XX stands for a byte.
inline std::string unpacked(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isByte = text[i] == '%';
        bytes +=
            isByte ? static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)) : text[i];
        i += isByte ? 2 : 0;
    }
    return bytes;
}
/// Keeps the characters of `plain`, and printable ASCII except "%".
inline std::string packed(const std::string& bytes, const std::string& plain = {}) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if ((byte >= ' ' && byte <= '~' && byte != '%') || plain.find(byte) != plain.npos)
            text += byte;
        else
            text.append({'%', kDigits[value >> 4U], kDigits[value & 15U]});
    }
    return text;
}

/// Splits at the separator; an empty field at the end is left out.
inline std::vector<std::string> fieldsOf(const std::string& row, char separator = '|') {
    std::vector<std::string> fields;
    std::istringstream text(row);
    for (std::string field; std::getline(text, field, separator);)
        fields.push_back(field);
    return fields;
}

inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != text.npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

}  // namespace corvalen::test
