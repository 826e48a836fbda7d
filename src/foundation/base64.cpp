// SPDX-License-Identifier: MIT
#include "foundation/base64.hpp"

#include <algorithm>
#include <array>
#include <cstdint>

namespace corvalen {

namespace {

constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::optional<Data> dataFromBase64(std::string_view text) {
    static constexpr auto values = [] {
        std::array<std::int8_t, 256> table{};
        table.fill(-1);
        for (std::size_t i = 0; i < kDigits.size(); ++i) {
            table[static_cast<unsigned char>(kDigits[i])] = static_cast<std::int8_t>(i);
        }
        return table;
    }();
    Data data;
    data.bytes.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    std::size_t digits = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
        const auto value = values[static_cast<unsigned char>(c)];
        if (c == '=') {
            ++padding;
        } else if (value < 0 || padding != 0) {
            return std::nullopt;
        } else {
            bits = (bits << 6U) | static_cast<std::uint32_t>(value);
            if (++digits % 4 != 1) {
                const unsigned spare = (digits % 4 == 2) ? 4U : (digits % 4 == 3) ? 2U : 0U;
                data.bytes.push_back(static_cast<std::uint8_t>(bits >> spare));
            }
        }
    }
    const bool whole = (digits + padding) % 4 == 0 && padding <= 2;
    return whole ? std::optional(std::move(data)) : std::nullopt;
}

std::string base64FromBytes(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            const auto byte = i < count ? static_cast<std::uint8_t>(bytes[at + i]) : 0U;
            bits = (bits << 8U) | byte;
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text.push_back(i <= count ? kDigits[(bits >> (18U - 6U * i)) & 0x3FU] : '=');
        }
    }
    return text;
}

}  // namespace corvalen
