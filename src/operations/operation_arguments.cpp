// SPDX-License-Identifier: MIT
#include "operations/operation_arguments.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string_view>

#include "foundation/encoding.hpp"
#include "operations/operation_descriptions.hpp"
#include "operations/privileged_operation_set.hpp"

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

// The details of a request.

namespace {

/// Maximum number of objects in a prompt, and bytes of each.
constexpr std::size_t kShownObjects = 4;
constexpr std::size_t kLongestShown = 160;
constexpr std::string_view kCut = "...";

/// Returns the text of a value; std::nullopt if no argument has its type.
std::optional<std::string> textOf(const Value& value) {
    if (const std::string* text = value.string()) return *text;
    if (const Data* data = value.data()) return fmt::format("{} bytes", data->bytes.size());
    const Number* number = value.number();
    if (number == nullptr) return std::nullopt;
    if (number->kind() == Number::Kind::boolean) return number->boolValue() ? "true" : "false";
    return number->stringValue();
}

bool mustEscape(const Utf8Character& character) noexcept {
    constexpr std::u32string_view kMarkup = U"<>&\\";
    return character.length == 0 || isControlOrInvisible(character.codePoint) ||
           kMarkup.find(character.codePoint) != std::u32string_view::npos;
}

/// The escaped text for agents and rules, in pieces that must not be cut.
std::vector<std::string> piecesOf(std::string_view text) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < text.size();) {
        const Utf8Character character = utf8CharacterAt(text, at);
        const auto bytes = text.substr(at, std::max<std::size_t>(character.length, 1));
        at += bytes.size();
        if (!mustEscape(character)) {
            pieces.emplace_back(bytes);
            continue;
        }
        std::string& escaped = pieces.emplace_back();
        for (const char byte : bytes)
            fmt::format_to(std::back_inserter(escaped), "\\x{:02X}",
                           static_cast<unsigned char>(byte));
    }
    return pieces;
}

/// The leading pieces that fit into `room` bytes.
std::string headOf(const std::vector<std::string>& pieces, std::size_t room) {
    std::string head;
    for (const std::string& piece : pieces) {
        if (head.size() + piece.size() > room) break;
        head += piece;
    }
    return head;
}

std::string tailOf(const std::vector<std::string>& pieces, std::size_t room) {
    std::size_t size = 0;
    auto first = pieces.end();
    while (first != pieces.begin() && size + std::prev(first)->size() <= room)
        size += (--first)->size();
    std::string tail;
    for (; first != pieces.end(); ++first)
        tail += *first;
    return tail;
}

/// Leaves out the middle of a text longer than `limit` bytes.
std::string shortened(std::string_view text, std::size_t limit, bool* isCut = nullptr) {
    // Skip the middle of a long text.
    const bool isLong = text.size() > 2 * limit;
    const auto front = piecesOf(isLong ? text.substr(0, limit) : text);
    std::string whole = headOf(front, limit);
    std::size_t size = 0;
    for (const std::string& piece : front)
        size += piece.size();
    if (!isLong && size <= limit) return whole;
    if (isCut != nullptr) *isCut = true;
    const auto back = isLong ? piecesOf(text.substr(text.size() - limit)) : front;
    const std::size_t half = (limit - kCut.size()) / 2;
    return headOf(front, half).append(kCut).append(tailOf(back, half));
}

/// Returns false for a path that a lexical comparison would place in another directory.
bool isComparable(std::string_view text) noexcept {
    if (!text.starts_with('/') || text == "/") return true;
    while (!text.empty()) {
        text.remove_prefix(1);
        const auto component = text.substr(0, text.find('/'));
        if (component.empty() || component == "." || component == "..") return false;
        text.remove_prefix(component.size());
    }
    return true;
}

std::string detailName(std::string_view argument) {
    std::string name(argument);
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

/// One line per object, with its name: "path: /srv/a".
std::string shownObjects(std::string_view name, const std::vector<std::string>& objects) {
    std::string shown;
    for (std::size_t i = 0; i < std::min(objects.size(), kShownObjects); ++i)
        shown +=
            fmt::format("{}{}: {}", i == 0 ? "" : "\n", name, shortened(objects[i], kLongestShown));
    if (objects.size() > kShownObjects)
        shown += fmt::format("\nand {} more", objects.size() - kShownObjects);
    return shown;
}

/// Adds the arguments that are not objects, by name.
void addOtherArguments(const OperationDescription& description, const Array& arguments,
                       RightPurpose& purpose) {
    for (std::size_t i = 0; i < description.arguments.size() && i < arguments.size(); ++i) {
        if (i == description.objectArgument) continue;
        const ArgumentDescription& described = description.arguments[i];
        std::string joined;
        const std::size_t end = described.repeats ? arguments.size() : i + 1;
        for (std::size_t at = i; at < end; ++at)
            joined.append(at == i ? "" : " ").append(textOf(arguments[at]).value_or("?"));
        bool isCut = false;
        std::string value = shortened(joined, kLongestDetail, &isCut);
        // The bytes of data and the ends of repeated arguments are not visible.
        if (isCut || described.repeats || described.type == 'D') purpose.isComplete = false;
        purpose.details.emplace_back(detailName(described.name), std::move(value));
    }
}

void addObjects(const OperationDescription& description, const std::vector<std::string>& objects,
                RightPurpose& purpose) {
    if (objects.empty()) return;
    purpose.shown = shownObjects(description.arguments[description.objectArgument].name, objects);
    bool isCut = false;
    std::string object = shortened(objects[0], kLongestObjectDetail, &isCut);
    if (objects.size() == 1 && !isCut && isComparable(objects[0]))
        purpose.details.emplace_back("object", std::move(object));
    else
        purpose.isComplete = false;
}

}  // namespace

std::vector<std::string> objectsOfRequest(const OperationEntry& operation, const Array& arguments) {
    std::vector<std::string> objects;
    const OperationDescription* description = descriptionOfOperation(operation.code);
    if (description == nullptr) return objects;
    const std::size_t first = description->objectArgument;
    if (first >= description->arguments.size()) return objects;
    const std::size_t end = description->arguments[first].repeats ? arguments.size() : first + 1;
    for (std::size_t i = first; i < std::min(end, arguments.size()); ++i)
        if (auto text = textOf(arguments[i])) objects.push_back(std::move(*text));
    return objects;
}

RightPurpose purposeOfRequest(const OperationEntry& operation, const Array& arguments) {
    RightPurpose purpose;
    purpose.details.emplace_back("operation", operation.identifier);
    const OperationDescription* description = descriptionOfOperation(operation.code);
    if (description == nullptr) return purpose;
    if (operation.operation != nullptr) purpose.prompt = operation.operation->presentationString();
    purpose.textDomain = QRLPrivilegedOperationSet::nameOfAuthorizationRightLocalizationTable();
    addObjects(*description, objectsOfRequest(operation, arguments), purpose);
    addOtherArguments(*description, arguments, purpose);
    return purpose;
}

}  // namespace corvalen
