// SPDX-License-Identifier: MIT
#include "corvalen/value.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "corvalen/error.hpp"

namespace corvalen {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

std::int64_t toSigned(double value) noexcept {
    if (std::isnan(value)) return 0;
    if (value >= kTwoTo63) return std::numeric_limits<std::int64_t>::max();
    if (value < -kTwoTo63) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

std::uint64_t toUnsigned(double value) noexcept {
    if (value >= kTwoTo64) return std::numeric_limits<std::uint64_t>::max();
    if (value >= kTwoTo63) return static_cast<std::uint64_t>(value);
    return static_cast<std::uint64_t>(toSigned(value));
}

bool keyLess(const Dictionary::Entry& entry, std::string_view key) noexcept {
    return entry.key < key;
}

}  // namespace

Number Number::fromBool(bool value) noexcept {
    return {Kind::boolean, value ? 1U : 0U};
}
Number Number::fromSigned(std::int64_t value) noexcept {
    return {Kind::signedInteger, static_cast<std::uint64_t>(value)};
}
Number Number::fromUnsigned(std::uint64_t value) noexcept {
    return {Kind::unsignedInteger, value};
}
Number Number::fromFloat(float value) noexcept {
    return {Kind::float32, std::bit_cast<std::uint64_t>(static_cast<double>(value))};
}
Number Number::fromDouble(double value) noexcept {
    return {Kind::float64, std::bit_cast<std::uint64_t>(value)};
}

bool Number::isInteger() const noexcept {
    return _kind == Kind::signedInteger || _kind == Kind::unsignedInteger;
}

bool Number::boolValue() const noexcept {
    return isFloating() ? asDouble() != 0.0 : _bits != 0;
}

std::int64_t Number::longLongValue() const noexcept {
    return isFloating() ? toSigned(asDouble()) : asSigned();
}

std::uint64_t Number::unsignedIntegerValue() const noexcept {
    return isFloating() ? toUnsigned(asDouble()) : _bits;
}

std::int32_t Number::intValue() const noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(unsignedIntegerValue()));
}

std::uint8_t Number::unsignedCharValue() const noexcept {
    return static_cast<std::uint8_t>(unsignedIntegerValue());
}

double Number::doubleValue() const noexcept {
    if (isFloating()) return asDouble();
    if (_kind == Kind::signedInteger) return static_cast<double>(asSigned());
    return static_cast<double>(_bits);
}

std::string Number::stringValue() const {
    if (_kind == Kind::float32) return fmt::format("{}", static_cast<float>(asDouble()));
    if (_kind == Kind::float64) return fmt::format("{}", asDouble());
    if (_kind == Kind::signedInteger) return fmt::format("{}", asSigned());
    return fmt::format("{}", _bits);
}

bool operator==(const Number& a, const Number& b) noexcept {
    if (a.isFloating() != b.isFloating() || a.isInteger() != b.isInteger()) return false;
    if (a.isFloating()) {
        return a.asDouble() == b.asDouble() ||
               (std::isnan(a.asDouble()) && std::isnan(b.asDouble()));
    }
    const auto isNegative = [](const Number& number) {
        return number._kind == Number::Kind::signedInteger && number.asSigned() < 0;
    };
    return isNegative(a) == isNegative(b) && a._bits == b._bits;
}

Dictionary::Dictionary() = default;
Dictionary::Dictionary(std::initializer_list<Entry> entries)
    : Dictionary(fromEntries(std::vector<Entry>(entries))) {}
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary Dictionary::fromEntries(std::vector<Entry> entries) {
    Dictionary result;
    // Entries of records and of received messages are already sorted.
    const auto unordered = [](const Entry& a, const Entry& b) { return a.key >= b.key; };
    if (std::adjacent_find(entries.begin(), entries.end(), unordered) == entries.end()) {
        result._entries = std::move(entries);
        return result;
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.key < b.key; });
    // The sort is stable: the last of equal keys was given last.
    auto kept = entries.begin();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        const auto next = entry + 1;
        if (next != entries.end() && next->key == entry->key) continue;
        if (kept != entry) *kept = std::move(*entry);
        ++kept;
    }
    entries.erase(kept, entries.end());
    result._entries = std::move(entries);
    return result;
}

const Value* Dictionary::find(std::string_view key) const noexcept {
    const auto at = std::lower_bound(_entries.begin(), _entries.end(), key, keyLess);
    return at != _entries.end() && at->key == key ? &at->value : nullptr;
}

Value* Dictionary::find(std::string_view key) noexcept {
    return const_cast<Value*>(std::as_const(*this).find(key));
}

void Dictionary::set(std::string_view key, Value value) {
    const auto at = std::lower_bound(_entries.begin(), _entries.end(), key, keyLess);
    if (at != _entries.end() && at->key == key) {
        at->value = std::move(value);
    } else {
        _entries.insert(at, Entry{std::string(key), std::move(value)});
    }
}

bool Dictionary::remove(std::string_view key) {
    const auto at = std::lower_bound(_entries.begin(), _entries.end(), key, keyLess);
    if (at == _entries.end() || at->key != key) return false;
    _entries.erase(at);
    return true;
}

std::size_t Dictionary::size() const noexcept {
    return _entries.size();
}
const Dictionary::Entry* Dictionary::begin() const noexcept {
    return _entries.data();
}
const Dictionary::Entry* Dictionary::end() const noexcept {
    return _entries.data() + _entries.size();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    return a._entries == b._entries;
}

Value::Value(ErrorRef error) {
    if (error) _held = std::move(error);
}

Value::Value(EndpointRef endpoint) {
    if (endpoint.descriptor) _held = std::move(endpoint);
}

ErrorRef Value::error() const noexcept {
    const ErrorRef* held = get<ErrorRef>();
    return held != nullptr ? *held : nullptr;
}

std::string_view Value::className() const noexcept {
    // In the order of the alternatives of `_held`.
    static constexpr std::array<std::string_view, 9> names = {
        "NSNull",       "NSString", "NSNumber",
        "NSData",       "NSDate",   "NSArray",
        "NSDictionary", "NSError",  "NSXPCListenerEndpoint",
    };
    static_assert(names.size() == std::variant_size_v<decltype(_held)>);
    return names[_held.index()];
}

bool operator==(const Value& a, const Value& b) {
    const ErrorRef errorA = a.error();
    const ErrorRef errorB = b.error();
    if (errorA && errorB) return *errorA == *errorB;
    return a._held == b._held;
}

}  // namespace corvalen
