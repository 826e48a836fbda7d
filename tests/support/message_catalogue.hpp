// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace corvalen::test {

/// A compiled catalogue (the GNU .mo format); the keys in order.
inline std::string catalogueOf(const std::vector<std::pair<std::string, std::string>>& texts) {
    constexpr std::uint32_t kHeader = 28;
    const auto count = static_cast<std::uint32_t>(texts.size());
    std::vector<std::uint32_t> words = {0x950412de, 0, count, kHeader, kHeader + 8 * count, 0, 0};
    std::string strings;
    const auto add = [&](const std::string& text) {
        words.push_back(static_cast<std::uint32_t>(text.size()));
        words.push_back(kHeader + 16 * count + static_cast<std::uint32_t>(strings.size()));
        strings.append(text).push_back('\0');
    };
    for (const auto& text : texts)
        add(text.first);
    for (const auto& text : texts)
        add(text.second);
    return std::string(reinterpret_cast<const char*>(words.data()), 4 * words.size()) + strings;
}

}  // namespace corvalen::test
