// SPDX-License-Identifier: MIT
#include "operations/operation_arguments.hpp"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace corvalen {
namespace {

const Value& argumentAt(const Array& arguments, std::size_t index) noexcept {
    static const Value none;
    return index < arguments.size() ? arguments[index] : none;
}

constexpr std::size_t kCharactersPerByte = 3;  // "%" and two digits

bool isWhitespace(char character) noexcept {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

int hexDigitValue(char character) noexcept {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    return -1;
}

/// Length in UTF-16 units; it determines the maximum number of bytes.
std::size_t lengthInCharacters(std::string_view text) noexcept {
    std::size_t length = 0;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if ((byte & 0xc0) != 0x80) length += byte >= 0xf0 ? 2 : 1;
    }
    return length;
}

/// Reads a text item by item; skips the white space before each.
class Scanner {
  public:
    explicit Scanner(std::string_view text) noexcept : _rest(text) {}

    bool isAtEnd() noexcept {
        skipWhitespace();
        return _rest.empty();
    }
    bool scanCharacter(char wanted) noexcept {
        skipWhitespace();
        if (_rest.empty() || _rest.front() != wanted) return false;
        _rest.remove_prefix(1);
        return true;
    }
    /// Reads any number of digits; clamps the value to 256.
    std::optional<unsigned> scanHexadecimal() noexcept {
        skipWhitespace();
        std::optional<unsigned> value;
        while (!_rest.empty()) {
            const int digit = hexDigitValue(_rest.front());
            if (digit < 0) break;
            value = std::min(value.value_or(0) * 16 + static_cast<unsigned>(digit), 0x100U);
            _rest.remove_prefix(1);
        }
        return value;
    }

  private:
    void skipWhitespace() noexcept {
        while (!_rest.empty() && isWhitespace(_rest.front()))
            _rest.remove_prefix(1);
    }

    std::string_view _rest;
};

std::optional<Value> booleanFromText(const std::string& text) {
    if (text == "true") return Value(true);
    if (text == "false") return Value(false);
    return std::nullopt;
}

std::optional<Value> dataFromText(const std::string& text) {
    const std::size_t room = lengthInCharacters(text) / kCharactersPerByte;
    if (room == 0) return std::nullopt;
    Data data;
    data.bytes.reserve(room);
    Scanner scanner(text);
    // Kept: text after the maximum number of bytes is ignored.
    while (data.bytes.size() < room && !scanner.isAtEnd()) {
        if (!scanner.scanCharacter('%')) return std::nullopt;
        const auto byte = scanner.scanHexadecimal();
        if (!byte || *byte > 0xff) return std::nullopt;
        data.bytes.push_back(static_cast<std::uint8_t>(*byte));
    }
    return Value(std::move(data));
}

}  // namespace

const std::string& stringArgument(const Array& arguments, std::size_t index) noexcept {
    static const std::string none;
    const std::string* text = argumentAt(arguments, index).string();
    return text != nullptr ? *text : none;
}

Number numberArgument(const Array& arguments, std::size_t index) noexcept {
    const Number* number = argumentAt(arguments, index).number();
    return number != nullptr ? *number : Number::fromSigned(0);
}

const Data* dataArgument(const Array& arguments, std::size_t index) noexcept {
    return argumentAt(arguments, index).data();
}

bool getBool(bool* output, const std::string* fromStringArgument) noexcept {
    if (fromStringArgument == nullptr) return false;
    const bool isTrue = *fromStringArgument == "1";
    if (!isTrue && *fromStringArgument != "0") return false;
    if (output != nullptr) *output = isTrue;
    return true;
}

std::optional<Value> copyCoreFoundationValueWithType(PropertyListType type,
                                                     const std::string* forValueInString) {
    if (forValueInString == nullptr) return std::nullopt;
    switch (type) {
        case PropertyListType::boolean:
            return booleanFromText(*forValueInString);
        case PropertyListType::number:
            return Value(std::int64_t{std::strtoll(forValueInString->c_str(), nullptr, 10)});
        case PropertyListType::string:
            return Value(*forValueInString);
        case PropertyListType::data:
            return dataFromText(*forValueInString);
        case PropertyListType::date:
        case PropertyListType::array:
        case PropertyListType::dictionary:
            break;
    }
    return std::nullopt;
}

}  // namespace corvalen
