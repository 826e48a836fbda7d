// SPDX-License-Identifier: MIT
#include <expat.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/base64.hpp"
#include "foundation/property_list_readers.hpp"
#include "foundation/property_list_scalars.hpp"

namespace corvalen {

namespace {

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

    std::optional<Value> read(std::string_view bytes, PropertyListFault& fault) {
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
        if (_fault) {
            fault = std::move(*_fault);
            return std::nullopt;
        }
        return std::move(_root);
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
            reader._fault->words = "out of memory";
            ::XML_StopParser(reader._parser.get(), XML_FALSE);
        }
    }

    void complain(std::string words) {
        if (_fault) return;
        _fault.emplace().words = std::move(words);
        setPosition(*_fault, _parser.get());
        ::XML_StopParser(_parser.get(), XML_FALSE);
    }

    void beginElement(std::string_view name) {
        if (_inScalar) return complain("element within a value of text");
        if (name == "plist") {
            if (_plistSeen || _root || !_open.empty()) complain("plist element not at the top");
            _plistSeen = true;
            return;
        }
        const bool isKey = name == "key";
        const bool wantsKey = !_open.empty() && _open.back().isDictionary && !_open.back().key;
        if (_open.empty() && _root) return complain("more than one value");
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

std::optional<Value> readXmlPropertyList(std::string_view bytes, PropertyListFault& fault) {
    return XmlReader().read(bytes, fault);
}

}  // namespace corvalen
