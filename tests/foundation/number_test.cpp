// SPDX-License-Identifier: MIT
#include "corvalen/number.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace corvalen {
namespace {

constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();

TEST(Number, ConvertsToEveryKind) {
    struct Row {
        Number number;
        bool truth;
        std::int64_t wide;
        std::uint64_t natural;
        std::int32_t narrow;
        std::uint8_t byte;
        std::string text;
    };
    const Row rows[] = {
        {Number::fromBool(true), true, 1, 1, 1, 1, "1"},
        {Number::fromBool(false), false, 0, 0, 0, 0, "0"},
        {Number::fromSigned(-1), true, -1, kAll, -1, 255, "-1"},
        {Number::fromSigned(256), true, 256, 256, 256, 0, "256"},
        {Number::fromSigned(0x1'8000'0000), true, 0x1'8000'0000, 0x1'8000'0000,
         std::numeric_limits<std::int32_t>::min(), 0, "6442450944"},
        {Number::fromUnsigned(kAll), true, -1, kAll, -1, 255, "18446744073709551615"},
        {Number::fromDouble(0.5), true, 0, 0, 0, 0, "0.5"},
        {Number::fromDouble(-0.0), false, 0, 0, 0, 0, "-0"},
        {Number::fromDouble(-7.9), true, -7, kAll - 6, -7, 249, "-7.9"},
        {Number::fromDouble(1e19), true, kMost, 10000000000000000000U, -1981284352, 0, "1e+19"},
        {Number::fromDouble(-1e30), true, kLeast, 1ULL << 63U, 0, 0, "-1e+30"},
        {Number::fromDouble(1e30), true, kMost, kAll, -1, 255, "1e+30"},
        {Number::fromDouble(std::nan("")), true, 0, 0, 0, 0, "nan"},
        {Number::fromFloat(0.1F), true, 0, 0, 0, 0, "0.1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(row.number.boolValue(), row.truth);
        EXPECT_EQ(row.number.longLongValue(), row.wide);
        EXPECT_EQ(row.number.unsignedIntegerValue(), row.natural);
        EXPECT_EQ(row.number.intValue(), row.narrow);
        EXPECT_EQ(row.number.unsignedCharValue(), row.byte);
        EXPECT_EQ(row.number.stringValue(), row.text);
    }
}

TEST(Number, EqualsOnlyTheSameValueOfTheSameGroup) {
    EXPECT_TRUE(Number::fromSigned(7) == Number::fromUnsigned(7));
    EXPECT_TRUE(Number::fromFloat(1.5F) == Number::fromDouble(1.5));
    EXPECT_FALSE(Number::fromSigned(-1) == Number::fromUnsigned(kAll));
    const Number ones[] = {Number::fromBool(true), Number::fromSigned(1), Number::fromDouble(1.0)};
    for (const Number& a : ones)
        for (const Number& b : ones)
            EXPECT_EQ(a == b, &a == &b) << a.stringValue() << b.stringValue();
    EXPECT_TRUE(Number::fromDouble(std::nan("")) == Number::fromDouble(std::nan("")));
}

}  // namespace
}  // namespace corvalen
