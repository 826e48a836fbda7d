// SPDX-License-Identifier: MIT
#include "cli/text.hpp"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

#include "foundation/error.hpp"

namespace corvalen::cli {
namespace {

unsigned byteAt(std::string_view text, std::size_t index) noexcept {
    return static_cast<unsigned char>(text[index]);
}

bool isContinuation(std::string_view text, std::size_t index, unsigned lowest,
                    unsigned highest) noexcept {
    return index < text.size() && byteAt(text, index) >= lowest && byteAt(text, index) <= highest;
}

/// C0, DEL, C1, and the characters that turn the direction in which a terminal writes.
bool isUnsafeCharacter(std::string_view character) noexcept {
    const unsigned first = byteAt(character, 0);
    if (character.size() == 1) return first < 0x20 || first == 0x7F;
    if (character.size() == 2) return first == 0xC2 && byteAt(character, 1) < 0xA0;
    if (character.size() != 3 || first != 0xE2) return false;
    const unsigned middle = byteAt(character, 1);
    const unsigned last = byteAt(character, 2);
    return (middle == 0x80 && ((last >= 0xAA && last <= 0xAE) || last == 0x8E || last == 0x8F)) ||
           (middle == 0x81 && last >= 0xA6 && last <= 0xA9);
}

void appendJsonEscaped(std::string& out, std::string_view character) {
    const unsigned first = byteAt(character, 0);
    if (character == "\"" || character == "\\")
        out.append("\\").append(character);
    else if (character == "\n")
        out += "\\n";
    else if (character.size() == 1 && (first < 0x20 || first == 0x7F))
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", first);
    else if (character.size() == 2 && isUnsafeCharacter(character))
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", byteAt(character, 1));
    else
        out += character;
}

std::string jsonError(const Error& error) {
    std::string out = "{";
    appendJsonText(out, "domain", error.domain());
    out += fmt::format(",\"code\":{}", error.code());
    if (error.userInfo() != nullptr) out += ",\"userInfo\":" + jsonObject(*error.userInfo());
    return out + "}";
}

std::string jsonArray(const Array& array) {
    std::string out = "[";
    for (const Value& element : array) {
        if (out.size() > 1) out += ',';
        // Without a name there is no place beside it for the exact bytes.
        const std::string* text = element.string();
        out += text != nullptr && !isUtf8(*text) ? jsonObject(Dictionary{{"text", *text}})
                                                 : jsonValue(element);
    }
    return out + "]";
}

}  // namespace

std::size_t utf8CharacterLength(std::string_view text) noexcept {
    if (text.empty()) return 0;
    const unsigned first = byteAt(text, 0);
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first <= 0xDF) return isContinuation(text, 1, 0x80, 0xBF) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const unsigned lowest = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned highest = first == 0xED ? 0x9F : 0xBF;
        return isContinuation(text, 1, lowest, highest) && isContinuation(text, 2, 0x80, 0xBF) ? 3
                                                                                               : 0;
    }
    if (first < 0xF0 || first > 0xF4) return 0;
    const unsigned lowest = first == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = first == 0xF4 ? 0x8F : 0xBF;
    return isContinuation(text, 1, lowest, highest) && isContinuation(text, 2, 0x80, 0xBF) &&
                   isContinuation(text, 3, 0x80, 0xBF)
               ? 4
               : 0;
}

bool isUtf8(std::string_view text) noexcept {
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string escapedForTerminal(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isUnsafeCharacter(character))
            for (std::size_t i = 0; i < character.size(); ++i)
                fmt::format_to(std::back_inserter(out), "\\x{:02X}", byteAt(character, i));
        else
            out += character;
        text.remove_prefix(character.size());
    }
    return out;
}

std::string base64(std::string_view bytes) {
    static constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        unsigned group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = (group << 8U) | (k < count ? byteAt(bytes, i + k) : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= count ? digits[(group >> (18 - 6 * k)) & 0x3FU] : '=';
    }
    return out;
}

std::string humanSize(std::uint64_t bytes) {
    if (bytes < 1024) return fmt::format("{}", bytes);
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    static constexpr std::string_view units = "KMGTPE";
    // 1023.5 and more would be shown as 1024.
    for (value /= 1024; value >= 1023.5 && unit + 1 < units.size(); value /= 1024)
        ++unit;
    return fmt::format("{:.{}f}{}", value, value < 9.95 ? 1 : 0, units[unit]);
}

std::string localMinute(const Date& date) {
    const std::time_t seconds = date.seconds;
    std::tm parts{};
    if (::localtime_r(&seconds, &parts) == nullptr) return "?";
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}", parts.tm_year + 1900LL, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min);
}

std::string utcTimestamp(const Date& date) {
    const std::time_t seconds = date.seconds;
    std::tm parts{};
    if (::gmtime_r(&seconds, &parts) == nullptr) return {};
    std::string text =
        fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", parts.tm_year + 1900LL, parts.tm_mon + 1,
                    parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    if (date.nanoseconds != 0) text += fmt::format(".{:09}", date.nanoseconds);
    return text + "Z";
}

std::string jsonNumber(const Number& number) {
    if (number.kind() == Number::Kind::boolean) return number.boolValue() ? "true" : "false";
    if (!number.isInteger() && !std::isfinite(number.doubleValue())) return "null";
    return number.stringValue();
}

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        if (length == 0)
            out += "\xEF\xBF\xBD";
        else
            appendJsonEscaped(out, text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out + "\"";
}

void appendJsonText(std::string& out, std::string_view name, std::string_view text) {
    out += jsonString(name) + ":" + jsonString(text);
    if (!isUtf8(text))
        out += fmt::format(",{}:\"{}\"", jsonString(std::string(name) + "Base64"), base64(text));
}

std::string jsonValue(const Value& value) {
    if (const auto* text = value.string()) return jsonString(*text);
    if (const auto* number = value.number()) return jsonNumber(*number);
    if (const auto* data = value.data()) return fmt::format("\"{}\"", base64(data->view()));
    if (const auto* date = value.date()) return fmt::format("\"{}\"", utcTimestamp(*date));
    if (const auto* array = value.array()) return jsonArray(*array);
    if (const auto* dictionary = value.dictionary()) return jsonObject(*dictionary);
    if (const auto error = value.error()) return jsonError(*error);
    return "null";
}

std::string jsonObject(const Dictionary& dictionary) {
    std::string out = "{";
    for (const auto& entry : dictionary) {
        if (out.size() > 1) out += ',';
        if (entry.value.string() != nullptr)
            appendJsonText(out, entry.key, *entry.value.string());
        else
            out += jsonString(entry.key) + ":" + jsonValue(entry.value);
    }
    return out + "}";
}

}  // namespace corvalen::cli
