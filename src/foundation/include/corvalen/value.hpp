// SPDX-License-Identifier: MIT
// A number that keeps the kind it was made from.
#pragma once

#include <bit>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// An immutable number: a Boolean, a signed or unsigned 64-bit integer, or a floating-point value.
/// Every accessor works for every kind. Conversions:
///  - to an integer: a floating-point value is truncated towards zero and clamped to the 64-bit
///    range; NaN becomes 0. A negative or too wide integer keeps its low bits (two's complement);
///  - to a Boolean: true unless the value is zero.
class Number {
  public:
    enum class Kind : std::uint8_t { boolean, signedInteger, unsignedInteger, float32, float64 };

    static Number fromBool(bool value) noexcept;
    static Number fromSigned(std::int64_t value) noexcept;
    static Number fromUnsigned(std::uint64_t value) noexcept;
    static Number fromFloat(float value) noexcept;
    static Number fromDouble(double value) noexcept;

    [[nodiscard]] Kind kind() const noexcept { return _kind; }
    [[nodiscard]] bool isInteger() const noexcept;

    [[nodiscard]] bool boolValue() const noexcept;
    [[nodiscard]] std::int64_t longLongValue() const noexcept;
    [[nodiscard]] std::uint64_t unsignedIntegerValue() const noexcept;
    [[nodiscard]] std::int32_t intValue() const noexcept;
    [[nodiscard]] std::uint8_t unsignedCharValue() const noexcept;
    [[nodiscard]] double doubleValue() const noexcept;

    /// Decimal text: integers exactly, floating-point values in their shortest exact form,
    /// Booleans as 0 and 1.
    [[nodiscard]] std::string stringValue() const;

    /// Compares by value within three groups: Booleans, integers (signed or not), floating-point
    /// values (NaN equals NaN). 1, 1.0 and true are three different values.
    friend bool operator==(const Number& a, const Number& b) noexcept;

  private:
    Number(Kind kind, std::uint64_t bits) noexcept : _bits(bits), _kind(kind) {}
    [[nodiscard]] bool isFloating() const noexcept {
        return _kind == Kind::float32 || _kind == Kind::float64;
    }

    [[nodiscard]] std::int64_t asSigned() const noexcept {
        return static_cast<std::int64_t>(_bits);
    }
    [[nodiscard]] double asDouble() const noexcept { return std::bit_cast<double>(_bits); }

    std::uint64_t _bits;  // an integer, or the bits of a double
    Kind _kind;
};

class Error;
class Value;

/// A shared immutable error; null means success.
using ErrorRef = std::shared_ptr<const Error>;

/// A byte buffer.
struct Data {
    std::vector<std::uint8_t> bytes;

    static Data copy(std::string_view text) {
        const auto* first = reinterpret_cast<const std::uint8_t*>(text.data());
        return Data{std::vector<std::uint8_t>(first, first + text.size())};
    }
    /// Borrows the bytes; valid until this object changes.
    [[nodiscard]] std::string_view view() const noexcept {
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
    friend bool operator==(const Data&, const Data&) = default;
};

/// A point in time: seconds since 1970-01-01T00:00:00Z, and nanoseconds (0 to 999,999,999) after
/// that second.
struct Date {
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;

    friend auto operator<=>(const Date&, const Date&) = default;
};

/// A capability to open connections to a listener. Copies share one descriptor; the last one closes
/// it.
struct EndpointRef {
    std::shared_ptr<const UniqueFd> descriptor;

    friend bool operator==(const EndpointRef&, const EndpointRef&) = default;
};

using Array = std::vector<Value>;

/// A dictionary with string keys: one array of entries, sorted by the bytes of the keys. Lookup is
/// a binary search; `set` is O(n), so build large dictionaries with `fromEntries`.
class Dictionary {
  public:
    struct Entry;

    Dictionary();
    Dictionary(std::initializer_list<Entry> entries);
    Dictionary(const Dictionary&);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(const Dictionary&);
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    /// Of entries with equal keys the last one counts. O(n log n).
    static Dictionary fromEntries(std::vector<Entry> entries);

    /// The value under `key`, or null. Valid until the dictionary changes.
    [[nodiscard]] const Value* find(std::string_view key) const noexcept;
    [[nodiscard]] Value* find(std::string_view key) noexcept;
    void set(std::string_view key, Value value);
    /// Returns false if there is no such key.
    bool remove(std::string_view key);

    [[nodiscard]] std::size_t size() const noexcept;
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }
    [[nodiscard]] const Entry* begin() const noexcept;
    [[nodiscard]] const Entry* end() const noexcept;

    friend bool operator==(const Dictionary& a, const Dictionary& b);

  private:
    std::vector<Entry> _entries;
};

/// A string, number, data, date, array, dictionary, error, endpoint, or nil. A moved-from value may
/// only be assigned or destroyed. Not synchronised: several threads may read a value that none
/// changes.
class Value {
  public:
    Value() noexcept = default;
    Value(std::string text) : _held(std::move(text)) {}
    Value(std::string_view text) : _held(std::string(text)) {}
    Value(const char* text) : _held(std::string(text)) {}
    Value(Number number) noexcept : _held(number) {}
    Value(bool value) noexcept : _held(Number::fromBool(value)) {}
    Value(int value) noexcept : _held(Number::fromSigned(value)) {}
    Value(std::int64_t value) noexcept : _held(Number::fromSigned(value)) {}
    Value(std::uint32_t value) noexcept : _held(Number::fromUnsigned(value)) {}
    Value(std::uint64_t value) noexcept : _held(Number::fromUnsigned(value)) {}
    Value(double value) noexcept : _held(Number::fromDouble(value)) {}
    Value(Data data) noexcept : _held(std::move(data)) {}
    Value(Date date) noexcept : _held(date) {}
    Value(Array array) noexcept : _held(std::move(array)) {}
    Value(Dictionary dictionary) noexcept : _held(std::move(dictionary)) {}
    /// A null error makes nil.
    Value(ErrorRef error);
    /// An endpoint without a descriptor makes nil.
    Value(EndpointRef endpoint);

    /// Replaces the held value. `held` must not be a null error or an endpoint without a
    /// descriptor.
    template <class T>
    T& emplace(T held) noexcept {
        return _held.template emplace<T>(std::move(held));
    }
    /// Calls `visitor` with the held value; with std::monostate for nil.
    template <class Visitor>
    decltype(auto) visit(Visitor&& visitor) const {
        return std::visit(std::forward<Visitor>(visitor), _held);
    }

    [[nodiscard]] bool isNil() const noexcept {
        return std::holds_alternative<std::monostate>(_held);
    }
    /// The accessors return null if the value is of another kind. Pointers are valid until the
    /// value changes.
    [[nodiscard]] const std::string* string() const noexcept { return get<std::string>(); }
    [[nodiscard]] const Number* number() const noexcept { return get<Number>(); }
    [[nodiscard]] const Data* data() const noexcept { return get<Data>(); }
    [[nodiscard]] const Date* date() const noexcept { return get<Date>(); }
    [[nodiscard]] const Array* array() const noexcept { return get<Array>(); }
    [[nodiscard]] const Dictionary* dictionary() const noexcept { return get<Dictionary>(); }
    [[nodiscard]] const EndpointRef* endpoint() const noexcept { return get<EndpointRef>(); }
    /// Null if the value is not an error.
    [[nodiscard]] ErrorRef error() const noexcept;
    [[nodiscard]] Array* array() noexcept { return std::get_if<Array>(&_held); }
    [[nodiscard]] Dictionary* dictionary() noexcept { return std::get_if<Dictionary>(&_held); }
    [[nodiscard]] std::string* string() noexcept { return std::get_if<std::string>(&_held); }
    [[nodiscard]] Data* data() noexcept { return std::get_if<Data>(&_held); }

    /// The class name of this kind of value in messages ("NSString", ...).
    [[nodiscard]] std::string_view className() const noexcept;

    /// Deep comparison; errors are equal if domain, code and user info are equal.
    friend bool operator==(const Value& a, const Value& b);

  private:
    template <class T>
    [[nodiscard]] const T* get() const noexcept {
        return std::get_if<T>(&_held);
    }

    std::variant<std::monostate, std::string, Number, Data, Date, Array, Dictionary, ErrorRef,
                 EndpointRef>
        _held;
};

struct Dictionary::Entry {
    std::string key;
    Value value;

    friend bool operator==(const Entry&, const Entry&) = default;
};

}  // namespace corvalen
