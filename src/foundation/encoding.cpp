// SPDX-License-Identifier: MIT
#include "foundation/encoding.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>

namespace corvalen {
namespace {

struct Lead {
    std::size_t length;
    char32_t bits;
    char32_t smallest;  // smaller code points are overlong
};

struct CharacterRange {
    char32_t first;
    char32_t last;
};

constexpr CharacterRange kControlOrInvisible[] = {
    {0x0000, 0x001F},  // C0
    {0x007F, 0x009F},  // DEL and C1
    {0x061C, 0x061C},  // Arabic letter mark
    {0x200E, 0x200F},  // left-to-right and right-to-left mark
    {0x2028, 0x202E},  // line and paragraph separator, embeddings and overrides
    {0x2066, 0x206F},  // isolates, and deprecated format characters
    {0xFEFF, 0xFEFF},  // byte order mark
    {0xFFF9, 0xFFFB},  // annotations
};

Lead leadOf(unsigned char byte) noexcept {
    if (byte < 0x80) return {1, byte, 0};
    if (byte >= 0xC2 && byte <= 0xDF) return {2, byte & 0x1FU, 0x80};
    if (byte >= 0xE0 && byte <= 0xEF) return {3, byte & 0x0FU, 0x800};
    if (byte >= 0xF0 && byte <= 0xF4) return {4, byte & 0x07U, 0x10000};
    return {0, 0, 0};
}

constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

Utf8Character utf8CharacterAt(std::string_view text, std::size_t offset) noexcept {
    const Lead lead = leadOf(static_cast<unsigned char>(text[offset]));
    if (lead.length > text.size() - offset) return {};
    char32_t codePoint = lead.bits;
    for (std::size_t i = 1; i < lead.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[offset + i]);
        if ((byte & 0xC0U) != 0x80U) return {};
        codePoint = (codePoint << 6U) | (byte & 0x3FU);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < lead.smallest || surrogate || codePoint > 0x10FFFF) return {};
    return {codePoint, lead.length};
}

bool isControlOrInvisible(char32_t codePoint) noexcept {
    return std::any_of(std::begin(kControlOrInvisible), std::end(kControlOrInvisible),
                       [codePoint](const CharacterRange& range) {
                           return codePoint >= range.first && codePoint <= range.last;
                       });
}

void appendUtf8(std::string& text, char32_t codePoint) {
    const auto tail = [&](unsigned shift) {
        text.push_back(static_cast<char>(0x80U | ((codePoint >> shift) & 0x3FU)));
    };
    if (codePoint < 0x80) {
        text.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        text.push_back(static_cast<char>(0xC0U | (codePoint >> 6U)));
        tail(0);
    } else if (codePoint < 0x10000) {
        text.push_back(static_cast<char>(0xE0U | (codePoint >> 12U)));
        tail(6);
        tail(0);
    } else {
        text.push_back(static_cast<char>(0xF0U | (codePoint >> 18U)));
        tail(12);
        tail(6);
        tail(0);
    }
}

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
