// SPDX-License-Identifier: MIT
#include <expat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/encoding.hpp"
#include "foundation/property_list.hpp"

namespace corvalen {
namespace {

bool isWhiteSpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view trimmedWhiteSpace(std::string_view text) noexcept {
    while (!text.empty() && isWhiteSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isWhiteSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

struct Signed {
    bool negative;
    std::string_view magnitude;
};

Signed splitSign(std::string_view text) noexcept {
    text = trimmedWhiteSpace(text);
    const bool negative = text.starts_with('-');
    return {negative, text.substr(negative || text.starts_with('+') ? 1 : 0)};
}

/// Parses all of `text` as a number without a sign.
template <class T, class... Options>
std::optional<T> wholeNumber(std::string_view text, Options... options) noexcept {
    if (text.starts_with('-')) return std::nullopt;
    T value{};
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value, options...);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

/// Reads `count` digits at `offset`.
int digitsAt(std::string_view text, std::size_t offset, std::size_t count) noexcept {
    int value = 0;
    for (const char digit : text.substr(offset, count))
        value = value * 10 + (digit - '0');
    return value;
}

// The parsers ignore surrounding white space and return std::nullopt for invalid text.

/// Decimal, or hexadecimal after "0x". Signed; unsigned if too large for std::int64_t.
std::optional<Number> integerFromText(std::string_view text) noexcept {
    const auto [negative, magnitude] = splitSign(text);
    const bool hexadecimal = magnitude.substr(0, 2) == "0x" || magnitude.substr(0, 2) == "0X";
    const auto value = hexadecimal ? wholeNumber<std::uint64_t>(magnitude.substr(2), 16)
                                   : wholeNumber<std::uint64_t>(magnitude, 10);
    constexpr std::uint64_t kLargestSigned = std::numeric_limits<std::int64_t>::max();
    if (!value || (negative && *value > kLargestSigned + 1)) return std::nullopt;
    if (negative) return Number::fromSigned(static_cast<std::int64_t>(0 - *value));
    if (*value > kLargestSigned) return Number::fromUnsigned(*value);
    return Number::fromSigned(static_cast<std::int64_t>(*value));
}

/// A decimal number, "inf", "infinity" or "nan" in any case.
std::optional<Number> realFromText(std::string_view text) noexcept {
    const auto [negative, magnitude] = splitSign(text);
    const auto value = wholeNumber<double>(magnitude);
    if (!value) return std::nullopt;
    return Number::fromDouble(negative ? -*value : *value);
}

/// YYYY-MM-DDThh:mm:ssZ; the date and the time must exist.
std::optional<Date> dateFromText(std::string_view text) noexcept {
    using namespace std::chrono;
    static constexpr std::string_view form = "####-##-##T##:##:##Z";
    text = trimmedWhiteSpace(text);
    if (text.size() != form.size()) return std::nullopt;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == '#' ? !digit : text[i] != form[i]) return std::nullopt;
    }
    const year_month_day day{year(digitsAt(text, 0, 4)),
                             month(static_cast<unsigned>(digitsAt(text, 5, 2))),
                             std::chrono::day(static_cast<unsigned>(digitsAt(text, 8, 2)))};
    const int hour = digitsAt(text, 11, 2);
    const int minute = digitsAt(text, 14, 2);
    const int second = digitsAt(text, 17, 2);
    if (!day.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const auto time = sys_days(day) + hours(hour) + minutes(minute) + seconds(second);
    return Date{duration_cast<seconds>(time.time_since_epoch()).count(), 0};
}

// Bytes per call of XML_Parse, which takes the length as int.
constexpr std::size_t kPieceLength = std::size_t{1} << 20U;

constexpr std::array<std::string_view, 7> kScalars = {"string", "integer", "real", "true",
                                                      "false",  "date",    "data"};

struct ParserDeleter {
    void operator()(XML_Parser parser) const noexcept { ::XML_ParserFree(parser); }
};
using ParserPointer = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserDeleter>;

/// Stores the parser's position, counted from 1. Newer expat deprecates the functions that return
/// `long`.
void setPosition(PropertyListFault& fault, XML_Parser parser) noexcept {
#ifdef CORVALEN_EXPAT_HAS_64_BIT_POSITIONS
    fault.line = static_cast<std::size_t>(::XML_GetCurrentLineNumber64(parser));
    fault.column = static_cast<std::size_t>(::XML_GetCurrentColumnNumber64(parser)) + 1;
#else
    fault.line = ::XML_GetCurrentLineNumber(parser);
    fault.column = ::XML_GetCurrentColumnNumber(parser) + 1;
#endif
}

/// A container whose end tag is still to come.
struct OpenContainer {
    bool isDictionary = false;
    Array items;
    std::vector<Dictionary::Entry> entries;
    std::optional<std::string> key;  // waits for its value
};

/// Builds the value from expat's events. The first complaint stops the parser.
class XmlReader {
  public:
    XmlReader() : _parser(::XML_ParserCreate(nullptr)) {
        if (!_parser) return;
        ::XML_SetUserData(_parser.get(), this);
        ::XML_SetElementHandler(
            _parser.get(),
            [](void* self, const XML_Char* name, const XML_Char**) {
                guarded(self, [&](XmlReader& reader) { reader.beginElement(name); });
            },
            [](void* self, const XML_Char* name) {
                guarded(self, [&](XmlReader& reader) { reader.endElement(name); });
            });
        ::XML_SetCharacterDataHandler(
            _parser.get(), [](void* self, const XML_Char* text, int length) {
                guarded(self, [&](XmlReader& reader) {
                    reader.addText({text, static_cast<std::size_t>(length)});
                });
            });
        ::XML_SetStartDoctypeDeclHandler(
            _parser.get(),
            [](void* self, const XML_Char*, const XML_Char*, const XML_Char*, int hasDeclarations) {
                if (hasDeclarations == 0) return;
                guarded(self, [](XmlReader& reader) {
                    reader.complain("document type with declarations of its own");
                });
            });
        ::XML_SetSkippedEntityHandler(_parser.get(), [](void* self, const XML_Char*, int) {
            guarded(self, [](XmlReader& reader) { reader.complain("undefined entity"); });
        });
    }

    PropertyListResult read(std::string_view bytes) {
        if (!_parser) throw std::bad_alloc();
        bool last = false;
        while (!last) {
            const std::string_view piece = bytes.substr(0, kPieceLength);
            bytes.remove_prefix(piece.size());
            last = bytes.empty();
            if (::XML_Parse(_parser.get(), piece.data(), static_cast<int>(piece.size()),
                            last ? 1 : 0) != XML_STATUS_OK) {
                complain(::XML_ErrorString(::XML_GetErrorCode(_parser.get())));
                break;
            }
        }
        if (!_root) complain("no value");
        if (_fault) return failure(*std::move(_fault));
        return *std::move(_root);
    }

  private:
    /// No exception may pass through expat, which is C.
    template <class Handler>
    static void guarded(void* self, Handler handler) noexcept {
        auto& reader = *static_cast<XmlReader*>(self);
        if (reader._fault) return;
        try {
            handler(reader);
        } catch (const std::bad_alloc&) {
            reader._fault.emplace();  // a short string allocates nothing
            reader._fault->message = "out of memory";
            ::XML_StopParser(reader._parser.get(), XML_FALSE);
        }
    }

    void complain(std::string message) {
        if (_fault) return;
        _fault.emplace().message = std::move(message);
        setPosition(*_fault, _parser.get());
        ::XML_StopParser(_parser.get(), XML_FALSE);
    }

    void beginElement(std::string_view name) {
        if (_inScalar) return complain("element within a value of text");
        if (name == "plist") {
            if (_plistSeen || !_open.empty()) complain("plist element not at the top");
            _plistSeen = true;
            return;
        }
        const bool isKey = name == "key";
        const bool wantsKey = !_open.empty() && _open.back().isDictionary && !_open.back().key;
        if (_root) return complain("more than one value");
        if (isKey != wantsKey) return complain(isKey ? "key without place" : "value without key");
        if (!isKey && ++_nodes > kMaximumPropertyListNodes) return complain("too many values");
        if (name == "dict" || name == "array") {
            if (_open.size() == kMaximumPropertyListDepth) return complain("nested too deeply");
            _open.emplace_back().isDictionary = name == "dict";
            return;
        }
        if (!isKey && std::find(kScalars.begin(), kScalars.end(), name) == kScalars.end()) {
            return complain("unknown element");
        }
        _inScalar = true;
        _text.clear();
    }

    void addText(std::string_view text) {
        if (_inScalar) {
            _text.append(text);
        } else if (!trimmedWhiteSpace(text).empty()) {
            complain("text outside of a value");
        }
    }

    void endElement(std::string_view name) {
        if (name == "plist") return;
        if (name == "dict" || name == "array") {
            OpenContainer ended = std::move(_open.back());
            if (ended.key) return complain("key without value");
            _open.pop_back();
            return addValue(ended.isDictionary
                                ? Value(Dictionary::fromEntries(std::move(ended.entries)))
                                : Value(std::move(ended.items)));
        }
        _inScalar = false;
        if (name == "key") {
            _open.back().key = std::exchange(_text, {});
        } else if (auto value = scalar(name)) {
            addValue(std::move(*value));
        }
    }

    void addValue(Value value) {
        if (_open.empty()) {
            _root = std::move(value);
        } else if (OpenContainer& parent = _open.back(); parent.isDictionary) {
            parent.entries.push_back({std::move(*parent.key), std::move(value)});
            parent.key.reset();
        } else {
            parent.items.push_back(std::move(value));
        }
    }

    /// Returns the value of the element that just ended; std::nullopt after a complaint.
    std::optional<Value> scalar(std::string_view name) {
        if (name == "string") return Value(std::exchange(_text, {}));
        if (name == "integer") return checked(integerFromText(_text), "bad integer");
        if (name == "real") return checked(realFromText(_text), "bad real number");
        if (name == "date") return checked(dateFromText(_text), "bad date");
        if (name == "data") return checked(dataFromBase64(_text), "bad base64 data");
        if (trimmedWhiteSpace(_text).empty()) return Value(name == "true");
        complain("text within a Boolean");
        return std::nullopt;
    }

    template <class T>
    std::optional<Value> checked(std::optional<T> parsed, const char* complaint) {
        if (parsed) return Value(std::move(*parsed));
        complain(complaint);
        return std::nullopt;
    }

    ParserPointer _parser;
    std::vector<OpenContainer> _open;
    std::string _text;
    std::optional<Value> _root;
    std::optional<PropertyListFault> _fault;
    std::size_t _nodes = 0;
    bool _inScalar = false;
    bool _plistSeen = false;
};

}  // namespace

PropertyListResult readXmlPropertyList(std::string_view bytes) {
    return XmlReader().read(bytes);
}

}  // namespace corvalen
