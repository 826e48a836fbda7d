// SPDX-License-Identifier: MIT
// From bytes to messages. The scanner has checked structure and sizes; what is left to refuse here
// are elements of the wrong form.
#include <limits>
#include <msgpack.hpp>
#include <utility>

#include "foundation/error.hpp"
#include "xpc/message.hpp"
#include "xpc/wire_limits.hpp"

namespace corvalen {

namespace {

std::optional<Value> decodeValue(std::string_view bytes, std::span<UniqueFd> descriptors);

std::uint64_t bigEndian(std::string_view bytes) noexcept {
    std::uint64_t value = 0;
    for (const char byte : bytes)
        value = (value << 8U) | static_cast<std::uint8_t>(byte);
    return value;
}

/// The three timestamp forms of the MessagePack format.
std::optional<Value> decodeTimestamp(std::string_view body) {
    constexpr unsigned kSecondsBits = 34;
    Date date;
    switch (body.size()) {
        case 4:
            date.seconds = static_cast<std::int64_t>(bigEndian(body));
            break;
        case 8: {
            const std::uint64_t both = bigEndian(body);
            date.nanoseconds = static_cast<std::uint32_t>(both >> kSecondsBits);
            date.seconds =
                static_cast<std::int64_t>(both & ((std::uint64_t{1} << kSecondsBits) - 1));
            break;
        }
        case 12:
            date.nanoseconds = static_cast<std::uint32_t>(bigEndian(body.substr(0, 4)));
            date.seconds = static_cast<std::int64_t>(bigEndian(body.substr(4)));
            break;
        default:
            return std::nullopt;
    }
    if (date.nanoseconds >= wire::kNanosecondsPerSecond) return std::nullopt;
    return Value(date);
}

std::optional<Value> decodeEndpoint(std::string_view body, std::span<UniqueFd> descriptors) {
    const auto index = static_cast<std::size_t>(bigEndian(body));
    // Each descriptor belongs to one endpoint: a taken one is not there for a second.
    if (body.size() != 1 || index >= descriptors.size() || !descriptors[index]) return std::nullopt;
    return Value(EndpointRef{std::make_shared<const UniqueFd>(std::move(descriptors[index]))});
}

std::optional<Value> decodeError(std::string_view body, std::span<UniqueFd> descriptors) {
    std::optional<Value> parts = decodeValue(body, descriptors);
    Array* array = parts ? parts->array() : nullptr;
    if (array == nullptr || array->size() != 3) return std::nullopt;
    const std::string* domain = (*array)[0].string();
    const Number* code = (*array)[1].number();
    Dictionary* userInfo = (*array)[2].dictionary();
    if (domain == nullptr || code == nullptr || !code->isInteger()) return std::nullopt;
    if (userInfo == nullptr && !(*array)[2].isNil()) return std::nullopt;
    return Value(
        makeError(*domain, code->longLongValue(),
                  userInfo != nullptr ? std::optional(std::move(*userInfo)) : std::nullopt));
}

/// Builds the value of one run of the parser (the library's visitor concept).
class ValueBuilder : public msgpack::null_visitor {
  public:
    explicit ValueBuilder(std::span<UniqueFd> descriptors) : _descriptors(descriptors) {
        constexpr std::size_t kUsualNesting = 4;
        _open.reserve(kUsualNesting);
    }

    Value take() noexcept { return std::move(_result); }

    bool visit_nil() { return add(Value()); }
    bool visit_boolean(bool value) { return add(Value(value)); }
    bool visit_positive_integer(std::uint64_t value) {
        return value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                   ? add(Value(static_cast<std::int64_t>(value)))
                   : add(Value(value));
    }
    bool visit_negative_integer(std::int64_t value) { return add(Value(value)); }
    bool visit_float32(float value) { return add(Value(Number::fromFloat(value))); }
    bool visit_float64(double value) { return add(Value(value)); }
    bool visit_str(const char* text, std::uint32_t size) {
        return add(Value(size > 0 ? std::string(text, size) : std::string()));
    }
    bool visit_bin(const char* bytes, std::uint32_t size) {
        return add(Value(size > 0 ? Data::copy({bytes, size}) : Data()));
    }
    /// The first byte is the extension's type.
    bool visit_ext(const char* bytes, std::uint32_t size) {
        if (size == 0) return false;
        const auto type = static_cast<std::int8_t>(bytes[0]);
        const std::string_view body(bytes + 1, size - 1);
        std::optional<Value> value;
        if (type == wire::kTimestampType) value = decodeTimestamp(body);
        if (type == wire::kEndpointType) value = decodeEndpoint(body, _descriptors);
        if (type == wire::kErrorType) value = decodeError(body, _descriptors);
        return value && add(std::move(*value));
    }

    bool start_array(std::uint32_t count) {
        _open.emplace_back().array.reserve(count);
        return true;
    }
    bool end_array() {
        Value whole(std::move(_open.back().array));
        _open.pop_back();
        return add(std::move(whole));
    }
    bool start_map(std::uint32_t count) {
        Container& map = _open.emplace_back();
        map.isMap = true;
        map.entries.reserve(count);
        return true;
    }
    bool start_map_key() {
        _open.back().atKey = true;
        return true;
    }
    bool end_map() {
        Value whole(Dictionary::fromEntries(std::move(_open.back().entries)));
        _open.pop_back();
        return add(std::move(whole));
    }

  private:
    struct Container {
        bool isMap = false;
        bool atKey = false;
        Array array;
        std::vector<Dictionary::Entry> entries;
    };

    bool add(Value value) {
        if (_open.empty()) {
            _result = std::move(value);
            return true;
        }
        Container& container = _open.back();
        if (!container.isMap) {
            container.array.push_back(std::move(value));
        } else if (container.atKey) {
            std::string* key = value.string();
            if (key == nullptr) return false;
            container.entries.push_back({std::move(*key), Value()});
            container.atKey = false;
        } else {
            container.entries.back().value = std::move(value);
        }
        return true;
    }

    std::span<UniqueFd> _descriptors;
    std::vector<Container> _open;
    Value _result;
};

std::optional<Value> decodeValue(std::string_view bytes, std::span<UniqueFd> descriptors) {
    ValueBuilder builder(descriptors);
    std::size_t end = 0;
    if (!msgpack::parse(bytes.data(), bytes.size(), end, builder) || end != bytes.size()) {
        return std::nullopt;
    }
    return builder.take();
}

std::optional<std::uint32_t> identifierFrom(const Value& value) noexcept {
    const Number* number = value.number();
    if (number == nullptr || !number->isInteger()) return std::nullopt;
    // A negative number is far past the end of the range when read without a sign.
    const std::uint64_t identifier = number->unsignedIntegerValue();
    if (identifier > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return static_cast<std::uint32_t>(identifier);
}

bool takeCall(Value& method, Value& params, Message& message) {
    if (method.string() == nullptr || params.array() == nullptr) return false;
    message.method = std::move(*method.string());
    message.params = std::move(*params.array());
    return true;
}

bool takeAnswer(Value& error, Value& result, Message& message) {
    if (std::string* why = error.string()) {
        message.callError = std::move(*why);
    } else if (!error.isNil()) {
        return false;
    }
    message.result = std::move(result);
    return true;
}

}  // namespace

std::optional<Message> decodeMessage(std::string_view bytes, std::span<UniqueFd> descriptors) {
    std::optional<Value> whole = decodeValue(bytes, descriptors);
    Array* parts = whole ? whole->array() : nullptr;
    if (parts == nullptr || parts->empty()) return std::nullopt;
    Message message;
    const std::optional<std::uint32_t> type = identifierFrom(parts->front());
    if (type == static_cast<std::uint32_t>(MessageType::notification) && parts->size() == 3) {
        if (!takeCall((*parts)[1], (*parts)[2], message)) return std::nullopt;
        return message;
    }
    if (!type || *type > static_cast<std::uint32_t>(MessageType::response) || parts->size() != 4) {
        return std::nullopt;
    }
    message.type = static_cast<MessageType>(*type);
    const std::optional<std::uint32_t> identifier = identifierFrom((*parts)[1]);
    if (!identifier) return std::nullopt;
    message.identifier = *identifier;
    const bool good = message.type == MessageType::request
                          ? takeCall((*parts)[2], (*parts)[3], message)
                          : takeAnswer((*parts)[2], (*parts)[3], message);
    if (!good) return std::nullopt;
    return message;
}

}  // namespace corvalen
