// SPDX-License-Identifier: MIT
#include "foundation/value.hpp"

#include <gtest/gtest.h>

namespace corvalen {
namespace {

TEST(Dictionary, KeepsTheLaterOfTwoEntriesWithTheSameKey) {
    const Dictionary dictionary =
        Dictionary::fromEntries({{"b", 1}, {"a", 2}, {"b", 3}, {"a", 4}, {"b", 5}});
    ASSERT_EQ(dictionary.size(), 2U);
    EXPECT_EQ(*dictionary.find("a"), Value(4));
    EXPECT_EQ(*dictionary.find("b"), Value(5));
    EXPECT_EQ(dictionary.find("c"), nullptr);
}

}  // namespace
}  // namespace corvalen
