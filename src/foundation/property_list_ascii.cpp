// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cctype>
#include <utility>
#include <vector>

#include "foundation/encoding.hpp"
#include "foundation/property_list.hpp"

namespace corvalen {

namespace {

bool isPlainCharacter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '/' || c == ':' || c == '.' || c == '-';
}

int hexDigit(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// A recursive descent parser with bounded depth. After the first complaint every method fails.
class AsciiReader {
  public:
    explicit AsciiReader(std::string_view text) : _text(text) {}

    std::optional<Value> read() {
        if (!isUtf8()) return std::nullopt;
        if (_text.substr(0, 3) == "\xEF\xBB\xBF") _at = 3;
        const std::size_t start = _at;
        std::optional<Value> value = readValue();
        if (!value || !skipBlanks()) return std::nullopt;
        if (atEnd()) return value;
        if (value->string() == nullptr) return complain("text after the value");
        _at = start;  // the string is the first key of a string table
        return readEntries(Ending::endOfText);
    }

    [[nodiscard]] PropertyListFault fault() const {
        const std::string_view before = _text.substr(0, std::min(_faultAt, _text.size()));
        const auto lines = std::count(before.begin(), before.end(), '\n');
        const std::size_t lastBreak = before.rfind('\n');
        const std::size_t lineStart = lastBreak == std::string_view::npos ? 0 : lastBreak + 1;
        return {_words, static_cast<std::size_t>(lines) + 1, before.size() - lineStart + 1};
    }

  private:
    enum class Ending : std::uint8_t { brace, endOfText };

    std::nullopt_t complain(const char* message) { return complainAt(_at, message); }
    std::nullopt_t complainAt(std::size_t at, const char* message) {
        if (_words == nullptr) {
            _words = message;
            _faultAt = at;
        }
        return std::nullopt;
    }

    [[nodiscard]] bool atEnd() const noexcept { return _at == _text.size(); }
    [[nodiscard]] bool startsWith(std::string_view token) const noexcept {
        return _text.substr(_at, token.size()) == token;
    }
    bool take(char c) noexcept {
        if (atEnd() || _text[_at] != c) return false;
        ++_at;
        return true;
    }

    bool isUtf8() {
        for (std::size_t at = 0; at < _text.size();) {
            const std::size_t length = utf8CharacterAt(_text, at).length;
            if (length == 0) {
                complainAt(at, "not UTF-8");
                return false;
            }
            at += length;
        }
        return true;
    }

    /// Skips white space and comments. Returns false for an unterminated comment.
    bool skipBlanks() {
        while (!atEnd()) {
            if (std::isspace(static_cast<unsigned char>(_text[_at])) != 0) {
                ++_at;
            } else if (startsWith("//")) {
                _at = std::min(_text.find_first_of("\r\n", _at), _text.size());
            } else if (startsWith("/*")) {
                const std::size_t end = _text.find("*/", _at + 2);
                if (end == std::string_view::npos) {
                    complain("comment without end");
                    return false;
                }
                _at = end + 2;
            } else {
                return true;
            }
        }
        return true;
    }

    std::optional<Value> readValue() {
        if (!skipBlanks()) return std::nullopt;
        if (atEnd()) return complain("value expected");
        if (++_nodes > kMaximumPropertyListNodes) return complain("too many values");
        switch (_text[_at]) {
            case '{':
                return readContainer(&AsciiReader::readDictionary);
            case '(':
                return readContainer(&AsciiReader::readArray);
            case '<':
                return readData();
            default:
                if (std::optional<std::string> text = readString()) return Value(std::move(*text));
                return std::nullopt;
        }
    }

    std::optional<Value> readContainer(std::optional<Value> (AsciiReader::*contents)()) {
        if (_depth == kMaximumPropertyListDepth) return complain("nested too deeply");
        ++_depth;
        ++_at;
        std::optional<Value> value = (this->*contents)();
        --_depth;
        return value;
    }

    std::optional<Value> readDictionary() { return readEntries(Ending::brace); }

    std::optional<Value> readEntries(Ending ending) {
        std::vector<Dictionary::Entry> entries;
        while (skipBlanks()) {
            const bool ended = ending == Ending::brace ? take('}') : atEnd();
            if (ended) return Value(Dictionary::fromEntries(std::move(entries)));
            if (atEnd()) return complain("'}' expected");
            std::optional<std::string> key = readString();
            if (!key || !skipBlanks()) break;
            std::optional<Value> value = take('=') ? readValue() : keyAsValue(*key);
            if (!value || !skipBlanks()) break;
            if (!take(';')) return complain("';' expected");
            entries.push_back({std::move(*key), std::move(*value)});
        }
        return std::nullopt;
    }

    /// A key without a value is its own value.
    std::optional<Value> keyAsValue(const std::string& key) {
        if (++_nodes > kMaximumPropertyListNodes) return complain("too many values");
        return Value(key);
    }

    std::optional<Value> readArray() {
        Array items;
        while (skipBlanks()) {
            if (take(')')) return Value(std::move(items));
            std::optional<Value> item = readValue();
            if (!item || !skipBlanks()) break;
            items.push_back(std::move(*item));
            if (take(',')) continue;
            if (!take(')')) return complain("',' or ')' expected");
            return Value(std::move(items));
        }
        return std::nullopt;
    }

    std::optional<Value> readData() {
        ++_at;
        Data data;
        int high = -1;
        while (!atEnd() && _text[_at] != '>') {
            const char c = _text[_at];
            const int digit = hexDigit(c);
            if (digit < 0 && std::isspace(static_cast<unsigned char>(c)) == 0) {
                return complain("hexadecimal digit expected");
            }
            if (digit >= 0 && high >= 0) {
                data.bytes.push_back(static_cast<std::uint8_t>(high * 16 + digit));
                high = -1;
            } else if (digit >= 0) {
                high = digit;
            }
            ++_at;
        }
        if (high >= 0) return complain("odd number of hexadecimal digits");
        if (!take('>')) return complain("'>' expected");
        return Value(std::move(data));
    }

    std::optional<std::string> readString() {
        if (_text[_at] == '"' || _text[_at] == '\'') return readQuotedString(_text[_at]);
        const std::size_t start = _at;
        while (!atEnd() && isPlainCharacter(_text[_at]))
            ++_at;
        if (_at == start) return complain("unexpected character");
        return std::string(_text.substr(start, _at - start));
    }

    std::optional<std::string> readQuotedString(char quote) {
        const std::size_t start = _at++;
        std::string text;
        while (!atEnd()) {
            const std::size_t next = _text.find_first_of(quote == '"' ? "\"\\" : "'\\", _at);
            text.append(_text.substr(_at, next - _at));
            _at = std::min(next, _text.size());
            if (take(quote)) return text;
            if (take('\\') && !readEscape(text)) return std::nullopt;
        }
        return complainAt(start, "string without end");
    }

    bool readEscape(std::string& text) {
        static constexpr std::string_view letters = "abfnrtv";
        static constexpr std::string_view meanings = "\a\b\f\n\r\t\v";
        if (atEnd()) return true;  // readQuotedString reports the missing end
        const char c = _text[_at];
        if (c == 'U') return readUnicodeEscape(text);
        if (c >= '0' && c <= '7') return readOctalEscape(text);
        const std::size_t letter = letters.find(c);
        text.push_back(letter == std::string_view::npos ? c : meanings[letter]);
        ++_at;
        return true;
    }

    bool readOctalEscape(std::string& text) {
        const std::size_t start = _at;
        unsigned value = 0;
        for (int i = 0; i < 3 && !atEnd() && _text[_at] >= '0' && _text[_at] <= '7'; ++i) {
            value = value * 8 + static_cast<unsigned>(_text[_at++] - '0');
        }
        // Values above ASCII belong to an unknown legacy character set.
        if (value > 0x7F) {
            complainAt(start, "octal escape above \\177");
            return false;
        }
        text.push_back(static_cast<char>(value));
        return true;
    }

    /// Reads "U" and four hexadecimal digits, a UTF-16 unit. A surrogate pair takes two escapes.
    bool readUnicodeEscape(std::string& text) {
        const std::size_t start = _at;
        std::optional<char32_t> unit = utf16Unit();
        if (unit && *unit >= 0xD800 && *unit <= 0xDBFF && take('\\')) {
            const std::optional<char32_t> low = utf16Unit();
            const bool pair = low && *low >= 0xDC00 && *low <= 0xDFFF;
            unit = pair ? std::optional(0x10000 + ((*unit - 0xD800) << 10U) + (*low - 0xDC00))
                        : std::nullopt;
        }
        if (!unit || (*unit >= 0xD800 && *unit <= 0xDFFF)) {
            complainAt(start, "bad Unicode escape");
            return false;
        }
        appendUtf8(text, *unit);
        return true;
    }

    std::optional<char32_t> utf16Unit() {
        if (!take('U') || _text.size() - _at < 4) return std::nullopt;
        char32_t unit = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = hexDigit(_text[_at++]);
            if (digit < 0) return std::nullopt;
            unit = unit * 16 + static_cast<char32_t>(digit);
        }
        return unit;
    }

    std::string_view _text;
    std::size_t _at = 0;
    std::size_t _depth = 0;
    std::size_t _nodes = 0;
    const char* _words = nullptr;
    std::size_t _faultAt = 0;
};

}  // namespace

PropertyListResult readAsciiPropertyList(std::string_view bytes) {
    AsciiReader reader(bytes);
    std::optional<Value> value = reader.read();
    if (!value) return failure(reader.fault());
    return *std::move(value);
}

}  // namespace corvalen
