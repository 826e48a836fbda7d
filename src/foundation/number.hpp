// SPDX-License-Identifier: MIT
// A number that remembers which kind it was made from.
#pragma once

#include <cstdint>
#include <string>

namespace corvalen {

/// An immutable number: a Boolean, a signed or unsigned 64-bit integer, or a floating-point value.
/// Every accessor works for every kind. Conversions:
///  - to an integer: a floating-point value is cut towards zero and held at the nearest end of the
///    range when it lies outside; a value that is not a number gives 0. Integers keep their low
///    bits (two's complement);
///  - to a Boolean: true for everything that is not zero.
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

    /// Equal when both stand for the same value, whatever their kinds.
    friend bool operator==(const Number& a, const Number& b) noexcept;

  private:
    union Bits {
        std::int64_t i;
        std::uint64_t u;
        double d;
    };
    Number(Kind kind, Bits bits) noexcept : _bits(bits), _kind(kind) {}
    [[nodiscard]] bool isFloating() const noexcept {
        return _kind == Kind::float32 || _kind == Kind::float64;
    }

    Bits _bits;
    Kind _kind;
};

}  // namespace corvalen
