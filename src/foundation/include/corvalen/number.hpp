// SPDX-License-Identifier: MIT
// A number that keeps the kind it was made from.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

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

}  // namespace corvalen
