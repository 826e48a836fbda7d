// SPDX-License-Identifier: MIT
#include "foundation/property_list.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>

#include "foundation/encoding.hpp"

namespace corvalen {
namespace {

constexpr std::array<std::string_view, 11> kElements = {
    "plist", "dict", "array", "string", "integer", "true", "false", "real", "data", "date", "key"};

/// ASCII data also begins with '<': `<da>` is a byte, `<data>` an XML element.
bool looksLikeXml(std::string_view bytes) noexcept {
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    // A UTF-16 byte order mark: only the XML reader supports UTF-16.
    if (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF") return true;
    const std::size_t first = bytes.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || bytes[first] != '<') return false;
    bytes.remove_prefix(first + 1);
    if (bytes.empty() || bytes.front() == '?' || bytes.front() == '!') return true;
    const std::string_view name = bytes.substr(0, bytes.find_first_of(" \t\r\n/>"));
    return std::find(kElements.begin(), kElements.end(), name) != kElements.end();
}

using Reader = PropertyListResult (*)(std::string_view);

Reader readerFor(std::string_view bytes) noexcept {
    if (bytes.starts_with(kBinaryPropertyListMagic)) return readBinaryPropertyList;
    return looksLikeXml(bytes) ? readXmlPropertyList : readAsciiPropertyList;
}

/// Returns std::nullopt for fractions of a second and for years outside 0 to 9999.
std::optional<std::string> textFromDate(const Date& date) {
    using namespace std::chrono;
    static constexpr std::int64_t kYear0 = -62'167'219'200;
    static constexpr std::int64_t kYear10000 = 253'402'300'800;
    if (date.nanoseconds != 0 || date.seconds < kYear0 || date.seconds >= kYear10000) {
        return std::nullopt;
    }
    const sys_seconds time{seconds(date.seconds)};
    const auto days = floor<std::chrono::days>(time);
    const year_month_day day(days);
    const hh_mm_ss clock(time - days);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(day.year()),
                       static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

/// True for the characters that XML allows (XML 1.0, 2.2).
bool isXmlCharacter(const Utf8Character& character) noexcept {
    const char32_t c = character.codePoint;
    if (character.length == 0) return false;
    return c >= 0x20 ? c != 0xFFFE && c != 0xFFFF : c == '\t' || c == '\n' || c == '\r';
}

class XmlWriter {
  public:
    /// Returns false and sets `complaint` if the value cannot be written.
    bool write(const Value& value) {
        if (++_nodes > kMaximumPropertyListNodes) return refuse("too many values");
        if (const Dictionary* dictionary = value.dictionary()) return writeDictionary(*dictionary);
        if (const Array* array = value.array()) return writeArray(*array);
        if (const std::string* text = value.string()) return writeText("string", *text);
        if (const Number* number = value.number()) return writeNumber(*number);
        if (const Data* data = value.data())
            return writeLine("data", base64FromBytes(data->view()));
        if (const Date* date = value.date()) {
            const std::optional<std::string> text = textFromDate(*date);
            return text ? writeLine("date", *text) : refuse("date that the form cannot carry");
        }
        return refuse(fmt::format("value of class {}", value.className()));
    }

    std::string output{kHeader};
    std::string complaint;

  private:
    bool refuse(std::string why) {
        complaint = std::move(why);
        return false;
    }

    void indent() { output.append(_depth, '\t'); }

    bool writeLine(std::string_view element, std::string_view text) {
        indent();
        fmt::format_to(std::back_inserter(output), "<{0}>{1}</{0}>\n", element, text);
        return true;
    }

    bool writeNumber(const Number& number) {
        switch (number.kind()) {
            case Number::Kind::boolean:
                indent();
                output.append(number.boolValue() ? "<true/>\n" : "<false/>\n");
                return true;
            case Number::Kind::signedInteger:
            case Number::Kind::unsignedInteger:
                return writeLine("integer", number.stringValue());
            case Number::Kind::float32:
            case Number::Kind::float64:
                break;
        }
        // Writes the digits of a double: the shortest form of a float reads back as another double.
        return writeLine("real", fmt::format("{}", number.doubleValue()));
    }

    bool writeText(std::string_view element, std::string_view text) {
        indent();
        fmt::format_to(std::back_inserter(output), "<{}>", element);
        for (std::size_t at = 0; at < text.size();) {
            const Utf8Character character = utf8CharacterAt(text, at);
            if (!isXmlCharacter(character)) return refuse("string with a forbidden character");
            appendEscaped(text.substr(at, character.length));
            at += character.length;
        }
        fmt::format_to(std::back_inserter(output), "</{}>\n", element);
        return true;
    }

    void appendEscaped(std::string_view character) {
        switch (character.front()) {
            case '&':
                output.append("&amp;");
                break;
            case '<':
                output.append("&lt;");
                break;
            case '>':
                output.append("&gt;");
                break;
            case '\r':  // XML parsers turn a bare CR into LF
                output.append("&#13;");
                break;
            default:
                output.append(character);
        }
    }

    bool begin(std::string_view element) {
        if (_depth == kMaximumPropertyListDepth) return refuse("nested too deeply");
        indent();
        fmt::format_to(std::back_inserter(output), "<{}>\n", element);
        ++_depth;
        return true;
    }

    bool end(std::string_view element) {
        --_depth;
        indent();
        fmt::format_to(std::back_inserter(output), "</{}>\n", element);
        return true;
    }

    bool writeArray(const Array& array) {
        if (!begin("array")) return false;
        for (const Value& item : array) {
            if (!write(item)) return false;
        }
        return end("array");
    }

    bool writeDictionary(const Dictionary& dictionary) {
        if (!begin("dict")) return false;
        for (const auto& [key, value] : dictionary) {
            if (!writeText("key", key) || !write(value)) return false;
        }
        return end("dict");
    }

    std::size_t _depth = 0;
    std::size_t _nodes = 0;
};

ErrorRef makeCocoaError(std::int64_t code, std::string description) {
    return makeError(kCocoaErrorDomain, code,
                     Dictionary{{std::string(kLocalizedDescriptionKey), std::move(description)}});
}

}  // namespace

Result<Value, ErrorRef> propertyListFromData(std::string_view bytes) {
    return readerFor(bytes)(bytes).map_error([](const PropertyListFault& fault) {
        return makeCocoaError(
            cocoa::kPropertyListReadCorrupt,
            fmt::format("{} (line {}, column {})", fault.message, fault.line, fault.column));
    });
}

Result<std::string, ErrorRef> xmlPropertyList(const Value& value) {
    XmlWriter writer;
    if (!writer.write(value))
        return failure(makeCocoaError(cocoa::kPropertyListWriteInvalid, writer.complaint));
    writer.output.append("</plist>\n");
    return std::move(writer.output);
}

}  // namespace corvalen
