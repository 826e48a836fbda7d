// SPDX-License-Identifier: MIT
#include "corvalen/value.hpp"

#include <gtest/gtest.h>

#include "corvalen/error.hpp"

namespace corvalen {
namespace {

TEST(Dictionary, KeepsTheLastOfAKeyAndStaysSorted) {
    EXPECT_EQ(Dictionary::fromEntries({{"b", 1}, {"a", 2}, {"b", 3}, {"a", 4}, {"b", 5}}),
              (Dictionary{{"a", 4}, {"b", 5}}));
    Dictionary dictionary;
    for (const char* key : {"m", "a", "z", "", "m", "\xFF"}) {
        dictionary.set(key, key);
    }
    EXPECT_FALSE(dictionary.remove("b"));
    EXPECT_TRUE(dictionary.remove("m"));
    EXPECT_EQ(dictionary, (Dictionary{{"\xFF", "\xFF"}, {"z", "z"}, {"a", "a"}, {"", ""}}));
    EXPECT_EQ(dictionary.find("m"), nullptr);
}

TEST(Value, ComparesErrorsByWhatTheySayAlsoWithinContainers) {
    const auto nested = [](int code) {
        return Value(Array{makeError("D", 1, Dictionary{{"under", makePosixError(code)}})});
    };
    EXPECT_EQ(nested(ENOENT), nested(ENOENT));
    EXPECT_FALSE(nested(ENOENT) == nested(EPERM));
    EXPECT_FALSE(Value(makePosixError(1)) == Value());
    EXPECT_FALSE(Value(makeError("D", 1)) == Value(makeError("D", 1, Dictionary())));
}

TEST(Value, NamesItsClassAndTakesEmptyReferencesForNil) {
    const auto socket = std::make_shared<const UniqueFd>();
    const std::pair<Value, std::string_view> table[] = {
        {Value(ErrorRef()), "NSNull"},
        {EndpointRef(), "NSNull"},
        {"text", "NSString"},
        {true, "NSNumber"},
        {Data(), "NSData"},
        {Date(), "NSDate"},
        {Array(), "NSArray"},
        {Dictionary(), "NSDictionary"},
        {makePosixError(1), "NSError"},
        {EndpointRef{socket}, "NSXPCListenerEndpoint"}};
    for (const auto& [value, name] : table) {
        EXPECT_EQ(value.className(), name);
        EXPECT_EQ(value.isNil(), name == "NSNull");
    }
}

}  // namespace
}  // namespace corvalen
