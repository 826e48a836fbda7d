// SPDX-License-Identifier: MIT
#include "cli/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iterator>
#include <utility>

#include "corvalen/error.hpp"
#include "foundation/encoding.hpp"

namespace corvalen::cli {
namespace {

/// A character, or a byte that begins none (length 0).
struct Piece {
    Utf8Character character;
    std::string_view bytes;
};

Piece takePiece(std::string_view& text) noexcept {
    const Utf8Character character = utf8CharacterAt(text, 0);
    const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.length, 1));
    text.remove_prefix(bytes.size());
    return {character, bytes};
}

bool isUtf8(std::string_view text) noexcept {
    while (!text.empty())
        if (takePiece(text).character.length == 0) return false;
    return true;
}

void appendJsonEscaped(std::string& out, const Piece& piece) {
    const char32_t c = piece.character.codePoint;
    if (piece.character.length == 0)
        out += "\xEF\xBF\xBD";
    else if (c == U'"' || c == U'\\')
        out.append("\\").append(piece.bytes);
    else if (c == U'\n')
        out += "\\n";
    else if (isControlOrInvisible(c))
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
    else
        out += piece.bytes;
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
        // An object, since an array has no place for "nameBase64".
        const std::string* text = element.string();
        out += text != nullptr && !isUtf8(*text) ? jsonObject(Dictionary{{"text", *text}})
                                                 : jsonValue(element);
    }
    return out + "]";
}

/// Returns the number of bytes at the end that begin an incomplete character.
std::size_t lengthOfCutCharacter(std::string_view text) noexcept {
    constexpr std::size_t kLongestCharacter = 4;
    for (std::size_t length = 1; length < kLongestCharacter && length <= text.size(); ++length) {
        const auto byte = static_cast<unsigned char>(text[text.size() - length]);
        if ((byte & 0xC0U) == 0x80U) continue;
        const std::size_t wanted = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return wanted > length ? length : 0;
    }
    return 0;
}

}  // namespace

std::string escapedForTerminal(std::string_view text, std::string_view allowed) {
    std::string out;
    while (!text.empty()) {
        const Piece piece = takePiece(text);
        const bool isSafe =
            piece.character.length > 0 && (!isControlOrInvisible(piece.character.codePoint) ||
                                           allowed.find(piece.bytes) != std::string_view::npos);
        if (isSafe) {
            out += piece.bytes;
            continue;
        }
        for (const char byte : piece.bytes)
            fmt::format_to(std::back_inserter(out), "\\x{:02X}", static_cast<unsigned char>(byte));
    }
    return out;
}

std::string TerminalFilter::pass(std::string_view bytes) {
    _held += bytes;
    // Hold the beginning of a cut character until the rest arrives.
    const std::size_t whole = _held.size() - lengthOfCutCharacter(_held);
    std::string shown = escapedForTerminal(std::string_view(_held).substr(0, whole), kShown);
    _held.erase(0, whole);
    return shown;
}

std::string TerminalFilter::finish() {
    return escapedForTerminal(std::exchange(_held, {}), kShown);
}

std::string humanSize(std::uint64_t bytes) {
    if (bytes < 1024) return fmt::format("{}", bytes);
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    static constexpr std::string_view units = "KMGTPE";
    // 1023.5 rounds to 1024.
    for (value /= 1024; value >= 1023.5 && unit + 1 < units.size(); value /= 1024)
        ++unit;
    return fmt::format("{:.{}f}{}", value, value < 9.95 ? 1 : 0, units[unit]);
}

std::string objectCountText(std::uint64_t count) {
    std::string text = std::to_string(count);
    for (std::size_t end = text.size(); end > 3; end -= 3)
        text.insert(end - 3, 1, ',');
    return text + (count == 1 ? " object" : " objects");
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
    while (!text.empty())
        appendJsonEscaped(out, takePiece(text));
    return out + "\"";
}

void appendJsonText(std::string& out, std::string_view name, std::string_view text) {
    out += jsonString(name) + ":" + jsonString(text);
    if (!isUtf8(text))
        out += fmt::format(",{}:\"{}\"", jsonString(std::string(name) + "Base64"),
                           base64FromBytes(text));
}

std::string jsonValue(const Value& value) {
    if (const auto* text = value.string()) return jsonString(*text);
    if (const auto* number = value.number()) return jsonNumber(*number);
    if (const auto* data = value.data())
        return fmt::format("\"{}\"", base64FromBytes(data->view()));
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
