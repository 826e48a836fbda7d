// SPDX-License-Identifier: MIT
#include "foundation/property_list.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/golden.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;

std::string repeated(std::string_view text, std::size_t times) {
    std::string whole;
    for (std::size_t i = 0; i < times; ++i)
        whole.append(text);
    return whole;
}

/// A binary list of objects in hexadecimal, separated by commas: the objects, the offset of each in
/// one byte, and the trailer; the first one is read.
std::string binaryList(const std::string& notation) {
    std::string list = "bplist00", offsets;
    std::istringstream objects(notation);
    for (std::string object; std::getline(objects, object, ',');) {
        offsets.push_back(static_cast<char>(list.size()));
        std::istringstream bytes(object);
        for (unsigned byte = 0; bytes >> std::hex >> byte;)
            list.push_back(static_cast<char>(byte));
    }
    const std::string zeros(7, '\0');
    std::string table = zeros.substr(3);
    for (int shift = 24; shift >= 0; shift -= 8)
        table.push_back(static_cast<char>(list.size() >> shift));
    return list + offsets + zeros.substr(1) + "\1\1" + zeros + static_cast<char>(offsets.size()) +
           zeros + '\0' + table;
}

/// The list in one line of XML, after a check that it is read back as it was; or the error.
std::string rewritten(const std::string& list) {
    const auto value = propertyListFromData(list);
    if (!value) {
        EXPECT_EQ(value.error()->domain(), kCocoaErrorDomain);
        EXPECT_EQ(value.error()->code(), 3840);
        return value.error()->localizedDescription();
    }
    const auto xml = xmlPropertyList(*value);
    if (!xml) {
        EXPECT_EQ(xml.error()->code(), 3852);
        return "not written: " + xml.error()->localizedDescription();
    }
    EXPECT_TRUE(propertyListFromData(*xml) == *value);
    const auto start = xml->find('>', xml->find("<plist")) + 1;
    const std::string body = xml->substr(start, xml->rfind("</plist>") - start);
    return std::regex_replace(body, std::regex("\n\t*(?=<|$)"), "");
}

TEST(PropertyList, IsReadAndWrittenOrSaysWhatIsWrongAndWhere) {
    test::expectRows("property_lists.txt",
                     {{"list", rewritten}, {"binary", [](const std::string& objects) {
                                                return rewritten(binaryList(objects));
                                            }}});
}

TEST(PropertyList, ABinaryListIsWholeAndSharesWithinTheLimits) {
    // Shared containers that would grow without end: 2 to the power of 40 values.
    std::ostringstream doubling;
    for (int i = 1; i <= 40; ++i)
        doubling << "a2 " << std::hex << i << " " << i << ",";
    EXPECT_FALSE(propertyListFromData(binaryList(doubling.str() + "9")));
    // References that copy 400,000 bytes each, and a date just below a whole second.
    std::string bytes = "4f 12 00 06 1a 80";
    for (int i = 0; i < 400'000; ++i)
        bytes += " 0";
    const auto shared = [&](int times) {
        std::string list = fmt::format("af 10 {:x}", times);
        for (int i = 0; i < times; ++i)
            list += " 1";
        return binaryList(list + "," + bytes);
    };
    EXPECT_TRUE(propertyListFromData(shared(80)));
    EXPECT_FALSE(propertyListFromData(shared(90)));
    EXPECT_EQ(propertyListFromData(binaryList("33 bb c7 9c a1 0c 92 42 23"))->date()->nanoseconds,
              999'999'999U);
    const std::string whole = binaryList("9");
    for (std::size_t length = 8; length < whole.size(); ++length)
        EXPECT_FALSE(propertyListFromData(whole.substr(0, length))) << length;
}

TEST(PropertyList, KeepsToItsLimits) {
    const auto nested = [](std::string_view open, std::string_view close, std::size_t depth) {
        return repeated(open, depth) + repeated(close, depth);
    };
    const std::size_t deepest = kMaximumPropertyListDepth;
    for (const auto& [open, close] : {std::pair("<array>", "</array>"), std::pair("(", ")")}) {
        EXPECT_TRUE(propertyListFromData(nested(open, close, deepest)));
        EXPECT_FALSE(propertyListFromData(nested(open, close, deepest + 1)));
        EXPECT_FALSE(propertyListFromData(repeated(open, 1'000'000)));
    }
    const std::size_t most = kMaximumPropertyListNodes - 1;  // beside the array itself
    EXPECT_TRUE(propertyListFromData("<array>" + repeated("<true/>", most) + "</array>"));
    EXPECT_FALSE(propertyListFromData("<array>" + repeated("<true/>", most + 1) + "</array>"));
    EXPECT_TRUE(propertyListFromData("(" + repeated("a,", most) + ")"));
    EXPECT_FALSE(propertyListFromData("(" + repeated("a,", most + 1) + ")"));
    EXPECT_FALSE(propertyListFromData("{" + repeated("a;", most + 1) + "}"));

    Value deep{Array()};
    for (std::size_t i = 1; i < deepest; ++i) {
        deep = Array{std::move(deep)};
    }
    EXPECT_TRUE(xmlPropertyList(deep));
    EXPECT_FALSE(xmlPropertyList(Array{std::move(deep)}));
    EXPECT_FALSE(xmlPropertyList(Array(most + 1, Value(true))));
}

TEST(PropertyList, RefusesToWriteWhatXmlCannotCarry) {
    const Value rows[] = {Value(), makePosixError(1), Array{Value()}, "\xFF", "\xED\xA0\x80"};
    for (const Value& value : rows) {
        const auto text = xmlPropertyList(value);
        ASSERT_FALSE(text) << value.className();
        EXPECT_EQ(text.error()->code(), 3852);
        EXPECT_FALSE(text.error()->localizedDescription().empty());
    }
}

TEST(PropertyList, SurvivesTheCorpus) {
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(CORVALEN_CORPUS)) {
        SCOPED_TRACE(entry.path().filename());
        const std::string bytes = test::textOf(entry.path());
        const bool expected = entry.path().filename().string().rfind("good-", 0) == 0;
        const auto value = propertyListFromData(bytes);
        EXPECT_EQ(value.has_value(), expected);
        const auto text = value.and_then(xmlPropertyList);
        EXPECT_TRUE(!text || propertyListFromData(*text) == *value);
        ++files;
    }
    EXPECT_GE(files, 10U);
}

}  // namespace
}  // namespace corvalen
