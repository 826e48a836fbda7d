// SPDX-License-Identifier: MIT
#include "foundation/number.hpp"

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
    return {Kind::boolean, Bits{.u = value ? 1U : 0U}};
}
Number Number::fromSigned(std::int64_t value) noexcept {
    return {Kind::signedInteger, Bits{.i = value}};
}
Number Number::fromUnsigned(std::uint64_t value) noexcept {
    return {Kind::unsignedInteger, Bits{.u = value}};
}
Number Number::fromFloat(float value) noexcept {
    return {Kind::float32, Bits{.d = static_cast<double>(value)}};
}
Number Number::fromDouble(double value) noexcept {
    return {Kind::float64, Bits{.d = value}};
}

bool Number::isInteger() const noexcept {
    return _kind == Kind::signedInteger || _kind == Kind::unsignedInteger;
}

bool Number::boolValue() const noexcept {
    return isFloating() ? _bits.d < 0.0 || _bits.d > 0.0 || std::isnan(_bits.d) : _bits.u != 0;
}

std::int64_t Number::longLongValue() const noexcept {
    return isFloating() ? toSigned(_bits.d) : _bits.i;
}

std::uint64_t Number::unsignedIntegerValue() const noexcept {
    return isFloating() ? toUnsigned(_bits.d) : _bits.u;
}

std::int32_t Number::intValue() const noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(unsignedIntegerValue()));
}

std::uint8_t Number::unsignedCharValue() const noexcept {
    return static_cast<std::uint8_t>(unsignedIntegerValue());
}

double Number::doubleValue() const noexcept {
    if (isFloating()) return _bits.d;
    if (_kind == Kind::signedInteger) return static_cast<double>(_bits.i);
    return static_cast<double>(_bits.u);
}

std::string Number::stringValue() const {
    if (_kind == Kind::float32) return fmt::format("{}", static_cast<float>(_bits.d));
    if (_kind == Kind::float64) return fmt::format("{}", _bits.d);
    if (_kind == Kind::signedInteger) return fmt::format("{}", _bits.i);
    return fmt::format("{}", _bits.u);
}

bool operator==(const Number& a, const Number& b) noexcept {
    if (a.isFloating() || b.isFloating()) return a.doubleValue() == b.doubleValue();
    const bool aNegative = a._kind == Number::Kind::signedInteger && a._bits.i < 0;
    const bool bNegative = b._kind == Number::Kind::signedInteger && b._bits.i < 0;
    return aNegative == bNegative && a._bits.u == b._bits.u;
}

}  // namespace corvalen
