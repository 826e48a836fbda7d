// SPDX-License-Identifier: MIT
// Decodes messages. The scanner has checked structure and sizes; this file refuses elements of the
// wrong form.
#include <array>
#include <limits>
#include <memory>
#include <msgpack.hpp>
#include <utility>

#include "corvalen/error.hpp"
#include "xpc/limits.hpp"
#include "xpc/message.hpp"

namespace corvalen {

namespace {

/// The elements of a message (three or four) or of an error's body (three).
struct Parts {
    std::array<Value, 4> values;
    std::size_t count = 0;
};

bool decodeParts(std::string_view bytes, std::span<UniqueFd> descriptors, Parts& parts);

std::uint64_t bigEndian(std::string_view bytes) noexcept {
    std::uint64_t value = 0;
    for (const char byte : bytes)
        value = (value << 8U) | static_cast<std::uint8_t>(byte);
    return value;
}

/// Decodes the three timestamp forms of MessagePack.
std::optional<Date> decodeTimestamp(std::string_view body) {
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
    return date;
}

std::optional<EndpointRef> decodeEndpoint(std::string_view body, std::span<UniqueFd> descriptors) {
    const auto index = static_cast<std::size_t>(bigEndian(body));
    // Each descriptor belongs to one endpoint: a second reference to it is refused.
    if (body.size() != 1 || index >= descriptors.size() || !descriptors[index]) return std::nullopt;
    return EndpointRef{std::make_shared<const UniqueFd>(std::move(descriptors[index]))};
}

std::optional<ErrorRef> decodeError(std::string_view body, std::span<UniqueFd> descriptors) {
    Parts parts;
    if (!decodeParts(body, descriptors, parts) || parts.count != 3) return std::nullopt;
    std::string* domain = parts.values[0].string();
    const Number* code = parts.values[1].number();
    Dictionary* userInfo = parts.values[2].dictionary();
    if (domain == nullptr || code == nullptr || !code->isInteger()) return std::nullopt;
    if (userInfo == nullptr && !parts.values[2].isNil()) return std::nullopt;
    return std::make_shared<const Error>(
        std::move(*domain), code->longLongValue(),
        userInfo != nullptr ? std::optional(std::move(*userInfo)) : std::nullopt);
}

/// A visitor of the MessagePack parser that stores each value in its final place. Containers are
/// allocated at full size when they begin, so the places do not move.
class PartsBuilder : public msgpack::null_visitor {
  public:
    PartsBuilder(std::span<UniqueFd> descriptors, Parts& parts) noexcept
        : _descriptors(descriptors), _parts(parts) {}

    bool visit_nil() { return add(std::monostate()); }
    bool visit_boolean(bool value) { return add(Number::fromBool(value)); }
    bool visit_positive_integer(std::uint64_t value) {
        return value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                   ? add(Number::fromSigned(static_cast<std::int64_t>(value)))
                   : add(Number::fromUnsigned(value));
    }
    bool visit_negative_integer(std::int64_t value) { return add(Number::fromSigned(value)); }
    bool visit_float32(float value) { return add(Number::fromFloat(value)); }
    bool visit_float64(double value) { return add(Number::fromDouble(value)); }
    bool visit_str(const char* text, std::uint32_t size) {
        std::string string = size > 0 ? std::string(text, size) : std::string();
        if (!std::exchange(_atKey, false)) return add(std::move(string));
        Dictionary::Entry& entry = _maps.back().emplace_back();
        entry.key = std::move(string);
        next() = &entry.value;
        return true;
    }
    bool visit_bin(const char* bytes, std::uint32_t size) {
        return add(size > 0 ? Data::copy({bytes, size}) : Data());
    }
    /// The first byte is the extension's type.
    bool visit_ext(const char* bytes, std::uint32_t size) {
        if (size == 0) return false;
        const auto type = static_cast<std::int8_t>(bytes[0]);
        const std::string_view body(bytes + 1, size - 1);
        if (type == wire::kTimestampType) return addIfDecoded(decodeTimestamp(body));
        if (type == wire::kEndpointType) return addIfDecoded(decodeEndpoint(body, _descriptors));
        return type == wire::kErrorType && addIfDecoded(decodeError(body, _descriptors));
    }

    bool start_array(std::uint32_t count) {
        if (_depth > 0) return !_atKey && open(next()++->emplace(Array(count)).data());
        if (count > _parts.values.size()) return false;
        _parts.count = count;
        return open(_parts.values.data());
    }
    bool end_array() noexcept {
        --_depth;
        return true;
    }
    bool start_map(std::uint32_t count) {
        _maps.emplace_back().reserve(count);
        return !_atKey && open(nullptr);
    }
    bool start_map_key() noexcept {
        _atKey = true;
        return true;
    }
    bool end_map() {
        --_depth;
        Dictionary whole = Dictionary::fromEntries(std::move(_maps.back()));
        _maps.pop_back();
        return add(std::move(whole));
    }

  private:
    Value*& next() noexcept { return _next[_depth - 1]; }
    bool open(Value* first) noexcept {
        if (_depth == _next.size()) return false;
        _next[_depth++] = first;
        return true;
    }
    template <class T>
    bool add(T held) noexcept {
        if (_depth == 0 || _atKey) return false;
        next()++->emplace(std::move(held));
        return true;
    }
    template <class T>
    bool addIfDecoded(std::optional<T>&& held) noexcept {
        return held && add(std::move(*held));
    }

    std::span<UniqueFd> _descriptors;
    Parts& _parts;
    /// Place of the next value in each open container; in a map, set once its key is read.
    std::array<Value*, wire::kMaximumNesting> _next;
    std::size_t _depth = 0;
    /// Entries of the open maps.
    std::vector<std::vector<Dictionary::Entry>> _maps;
    bool _atKey = false;
};

bool decodeParts(std::string_view bytes, std::span<UniqueFd> descriptors, Parts& parts) {
    PartsBuilder builder(descriptors, parts);
    std::size_t end = 0;
    return msgpack::parse(bytes.data(), bytes.size(), end, builder) && end == bytes.size();
}

std::optional<std::uint32_t> identifierFrom(const Value& value) noexcept {
    const Number* number = value.number();
    if (number == nullptr || !number->isInteger()) return std::nullopt;
    // A negative number, read as unsigned, is out of range too.
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

bool takeReply(Value& error, Value& result, Message& message) {
    std::string* why = error.string();
    if (why == nullptr && !error.isNil()) return false;
    message.callError = why != nullptr ? std::optional(std::move(*why)) : std::nullopt;
    message.result = std::move(result);
    return true;
}

}  // namespace

bool decodeMessage(std::string_view bytes, std::span<UniqueFd> descriptors, Message& message) {
    Parts parts;
    if (!decodeParts(bytes, descriptors, parts)) return false;
    auto& values = parts.values;
    const std::optional<std::uint32_t> type = identifierFrom(values[0]);
    if (!type || *type > static_cast<std::uint32_t>(MessageType::notification)) return false;
    message.type = static_cast<MessageType>(*type);
    if (message.type == MessageType::notification)
        return parts.count == 3 && takeCall(values[1], values[2], message);
    if (parts.count != 4) return false;
    const std::optional<std::uint32_t> identifier = identifierFrom(values[1]);
    if (!identifier) return false;
    message.identifier = *identifier;
    return message.type == MessageType::request ? takeCall(values[2], values[3], message)
                                                : takeReply(values[2], values[3], message);
}

}  // namespace corvalen
