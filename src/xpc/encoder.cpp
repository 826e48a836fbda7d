// SPDX-License-Identifier: MIT
// Encodes messages within the same limits as received ones.
#include <array>
#include <bit>
#include <limits>
#include <msgpack.hpp>

#include "corvalen/error.hpp"
#include "xpc/limits.hpp"
#include "xpc/message.hpp"

namespace corvalen {

namespace {

/// First bytes of float 32 and float 64 in MessagePack.
constexpr char kFloat32 = '\xca';
constexpr char kFloat64 = '\xcb';

/// The packer's output; discards what would exceed the message limit.
class BoundedBuffer {
  public:
    explicit BoundedBuffer(std::string& bytes) noexcept : _bytes(bytes) { _bytes.clear(); }

    void write(const char* from, std::size_t size) {
        if (size > wire::kMaximumMessageSize - _bytes.size()) {
            _full = true;
        } else {
            _bytes.append(from, size);
        }
    }
    [[nodiscard]] bool full() const noexcept { return _full; }
    [[nodiscard]] std::string& bytes() noexcept { return _bytes; }

  private:
    std::string& _bytes;
    bool _full = false;
};

class Encoder {
  public:
    explicit Encoder(EncodedMessage& out)
        : _buffer(out.bytes), _packer(_buffer), _descriptors(out.descriptors) {
        _descriptors.clear();
    }

    void beginMessage(MessageType type, std::uint32_t elements) {
        _packer.pack_array(elements);
        _packer.pack_uint32(static_cast<std::uint32_t>(type));
        _nesting = 1;
    }
    void number(std::uint32_t value) { _packer.pack_uint32(value); }
    void nil() { _packer.pack_nil(); }
    void text(std::string_view text) {
        if (!lengthFits(text.size())) return;
        _packer.pack_str(static_cast<std::uint32_t>(text.size()));
        _buffer.write(text.data(), text.size());
    }
    void put(const Value& value) {
        if (!good()) return;
        value.visit([this](const auto& held) { put(held); });
    }
    void put(const Array& array);

    [[nodiscard]] bool good() const noexcept { return _good && !_buffer.full(); }

  private:
    bool lengthFits(std::size_t length) noexcept {
        if (length > wire::kMaximumMessageSize) _good = false;
        return _good;
    }
    bool enter(std::size_t length) noexcept {
        if (_nesting == wire::kMaximumNesting) _good = false;
        if (!lengthFits(length)) return false;
        ++_nesting;
        return true;
    }
    void leave() noexcept { --_nesting; }
    template <class Bits>
    void floatingPoint(char header, Bits bits);

    void put(std::monostate /*nothing*/) { nil(); }
    void put(const std::string& held) { text(held); }
    void put(const Number& number);
    void put(const Data& data);
    void put(const Date& date);
    void put(const Dictionary& dictionary);
    void put(const ErrorRef& error);
    void put(const EndpointRef& endpoint);
    void extension(std::int8_t type, std::string_view body);

    BoundedBuffer _buffer;
    msgpack::packer<BoundedBuffer> _packer;
    std::vector<Descriptor>& _descriptors;
    std::size_t _nesting = 0;
    bool _good = true;
};

/// The packer's own functions would encode a whole number as an integer.
template <class Bits>
void Encoder::floatingPoint(char header, Bits bits) {
    std::array<char, 1 + sizeof bits> bytes{header};
    for (std::size_t i = 0; i < sizeof bits; ++i)
        bytes[1 + i] = static_cast<char>(bits >> (8U * (sizeof bits - 1 - i)));
    _buffer.write(bytes.data(), bytes.size());
}

void Encoder::put(const Number& number) {
    switch (number.kind()) {
        case Number::Kind::boolean:
            number.boolValue() ? _packer.pack_true() : _packer.pack_false();
            break;
        case Number::Kind::signedInteger:
            _packer.pack_int64(number.longLongValue());
            break;
        case Number::Kind::unsignedInteger:
            _packer.pack_uint64(number.unsignedIntegerValue());
            break;
        case Number::Kind::float32:
            floatingPoint(kFloat32,
                          std::bit_cast<std::uint32_t>(static_cast<float>(number.doubleValue())));
            break;
        case Number::Kind::float64:
            floatingPoint(kFloat64, std::bit_cast<std::uint64_t>(number.doubleValue()));
            break;
    }
}

void Encoder::put(const Data& data) {
    if (!lengthFits(data.bytes.size())) return;
    _packer.pack_bin(static_cast<std::uint32_t>(data.bytes.size()));
    _buffer.write(data.view().data(), data.bytes.size());
}

void Encoder::put(const Array& array) {
    if (!enter(array.size())) return;
    _packer.pack_array(static_cast<std::uint32_t>(array.size()));
    for (const Value& element : array)
        put(element);
    leave();
}

void Encoder::put(const Dictionary& dictionary) {
    if (!enter(dictionary.size())) return;
    _packer.pack_map(static_cast<std::uint32_t>(dictionary.size()));
    for (const Dictionary::Entry& entry : dictionary) {
        text(entry.key);
        put(entry.value);
    }
    leave();
}

void Encoder::extension(std::int8_t type, std::string_view body) {
    _packer.pack_ext(body.size(), type);
    _buffer.write(body.data(), body.size());
}

void Encoder::put(const EndpointRef& endpoint) {
    if (_descriptors.size() == wire::kMaximumEndpoints) {
        _good = false;
        return;
    }
    const char index = static_cast<char>(_descriptors.size());
    _descriptors.emplace_back(*endpoint.descriptor);
    extension(wire::kEndpointType, {&index, 1});
}

/// Uses the shortest of the three timestamp forms that holds the date.
void Encoder::put(const Date& date) {
    constexpr unsigned kSecondsBits = 34;
    constexpr std::size_t kLongest = 12;
    if (date.nanoseconds >= wire::kNanosecondsPerSecond) {
        _good = false;
        return;
    }
    std::array<char, kLongest> body{};
    const auto store = [&body](std::size_t at, std::uint64_t number, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            body[at + i] = static_cast<char>(number >> (8U * (size - 1 - i)));
        }
    };
    const auto seconds = static_cast<std::uint64_t>(date.seconds);
    std::size_t size = 0;
    if (date.nanoseconds == 0 && seconds <= std::numeric_limits<std::uint32_t>::max()) {
        store(0, seconds, size = 4);
    } else if (seconds >> kSecondsBits == 0) {
        store(0, std::uint64_t{date.nanoseconds} << kSecondsBits | seconds, size = 8);
    } else {
        store(0, date.nanoseconds, 4);
        store(4, seconds, 8);
        size = kLongest;
    }
    extension(wire::kTimestampType, {body.data(), size});
}

/// Encodes the body first, then inserts the header, whose size depends on the body's.
void Encoder::put(const ErrorRef& error) {
    constexpr std::uint32_t kParts = 3;
    const std::size_t start = _buffer.bytes().size();
    if (!enter(kParts)) return;
    _packer.pack_array(kParts);
    text(error->domain());
    _packer.pack_int64(error->code());
    error->userInfo() != nullptr ? put(*error->userInfo()) : nil();
    leave();
    if (!good()) return;
    std::string headerBytes;
    BoundedBuffer header(headerBytes);
    msgpack::packer<BoundedBuffer>(header).pack_ext(_buffer.bytes().size() - start,
                                                    wire::kErrorType);
    if (headerBytes.size() > wire::kMaximumMessageSize - _buffer.bytes().size()) {
        _good = false;
        return;
    }
    _buffer.bytes().insert(start, headerBytes);
}

constexpr std::uint32_t kCallParts = 4;
constexpr std::uint32_t kNotificationParts = 3;

}  // namespace

bool encodeRequest(std::uint32_t identifier, std::string_view selector, const Array& params,
                   EncodedMessage& out) {
    Encoder encoder(out);
    encoder.beginMessage(MessageType::request, kCallParts);
    encoder.number(identifier);
    encoder.text(selector);
    encoder.put(params);
    return encoder.good();
}

bool encodeNotification(std::string_view selector, const Array& params, EncodedMessage& out) {
    Encoder encoder(out);
    encoder.beginMessage(MessageType::notification, kNotificationParts);
    encoder.text(selector);
    encoder.put(params);
    return encoder.good();
}

bool encodeResult(std::uint32_t identifier, const Value& result, EncodedMessage& out) {
    Encoder encoder(out);
    encoder.beginMessage(MessageType::response, kCallParts);
    encoder.number(identifier);
    encoder.nil();
    encoder.put(result);
    return encoder.good();
}

bool encodeRefusal(std::uint32_t identifier, std::string_view why, EncodedMessage& out) {
    Encoder encoder(out);
    encoder.beginMessage(MessageType::response, kCallParts);
    encoder.number(identifier);
    encoder.text(why);
    encoder.nil();
    return encoder.good();
}

}  // namespace corvalen
