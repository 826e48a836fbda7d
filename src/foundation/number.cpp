// SPDX-License-Identifier: MIT
#include "corvalen/number.hpp"

#include <fmt/core.h>

#include <cmath>
#include <limits>

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

}  // namespace corvalen
