// SPDX-License-Identifier: MIT
#include "foundation/property_list.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

namespace corvalen {
namespace {

namespace fs = std::filesystem;

std::string repeated(std::string_view text, std::size_t times) {
    std::string whole;
    for (std::size_t i = 0; i < times; ++i)
        whole.append(text);
    return whole;
}

/// A binary list: objects, the offset of each in one byte, and the trailer; the first one is read.
std::string binaryList(const std::vector<std::string>& objects) {
    std::string list = "bplist00";
    std::string offsets;
    for (const std::string& object : objects) {
        offsets.push_back(static_cast<char>(list.size()));
        list.append(object);
    }
    const auto table = static_cast<char>(list.size());
    const std::string zeros(7, '\0');
    return list + offsets + zeros.substr(1) + "\1\1" + zeros + static_cast<char>(objects.size()) +
           zeros + '\0' + zeros + table;
}

TEST(PropertyList, ReadsTheBinaryFormAndNothingBroken) {
    using namespace std::string_literals;
    const std::pair<std::vector<std::string>, std::optional<Value>> rows[] = {
        {{"\x09"}, true},
        {{"\x11\x01\x02"}, 258},
        {{"\x13" + std::string(8, '\xff')}, -1},
        {{"\x23\x3f\xf8" + std::string(6, '\0')}, 1.5},
        {{"\x33" + std::string(8, '\0')}, Date{978307200, 0}},
        {{"\x63\x00\xe9\xd8\x3d\xde\x00"s}, "\xc3\xa9\xf0\x9f\x98\x80"},
        {{"\xd1\x01\x02", "Qk", "\xa2\x03\x03", "A\x07"},
         Dictionary{{"k", Array{Data{{7}}, Data{{7}}}}}},
        {{"\xa1\x00"s}, std::nullopt},                            // itself
        {{"\xa1\x02"}, std::nullopt},                             // no such object
        {{"\xa1"}, std::nullopt},                                 // its offset as a reference
        {{"\xd1\x01\x01", "\x09"}, std::nullopt},                 // a key that is no string
        {{"\x5f\x13" + std::string(8, '\xff')}, std::nullopt},    // too long
        {{"\x6f\x13\x80" + std::string(7, '\0')}, std::nullopt},  // twice that overflows
        {{"\xaf\x13" + std::string(8, '\x7f')}, std::nullopt},
        {{"Q\xe9"}, std::nullopt},
        {{"\x61\xd8\x3d"}, std::nullopt},
        {{"\x33\x7f\xf8" + std::string(6, '\0')}, std::nullopt},  // not a number
        {{"\x80\x01"}, std::nullopt},
    };
    for (const auto& [objects, expected] : rows)
        EXPECT_EQ(propertyListFromData(binaryList(objects)), expected) << &objects - &rows[0].first;
    // Shared containers that would grow without end: 2 to the power of 40 values.
    std::vector<std::string> doubling;
    for (char i = 1; i <= 40; ++i)
        doubling.push_back({'\xa2', i, i});
    doubling.emplace_back("\x09");
    EXPECT_EQ(propertyListFromData(binaryList(doubling)), std::nullopt);
    const std::string whole = binaryList({"\x09"});
    for (std::size_t length = 8; length < whole.size(); ++length)
        EXPECT_EQ(propertyListFromData(whole.substr(0, length)), std::nullopt) << length;
}

TEST(PropertyList, ReadsXmlAndTheAsciiForm) {
    const std::pair<std::string_view, Value> rows[] = {
        {"<plist version='1.0'><dict><key>a</key><array><true/><false/></array>"
         "<key></key><string/></dict></plist>",
         Dictionary{{"a", Array{true, false}}, {"", ""}}},
        {"\xEF\xBB\xBF<?xml version=\"1.0\"?><!-- x --><integer> -0x10\n</integer>", -16},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><string>\xE9</string>", "\xC3\xA9"},
        {std::string_view("\xFF\xFE<\0t\0r\0u\0e\0/\0>\0", 16), true},
        {"<string> a&amp;&lt;&#x1F600;<![CDATA[<b>]]><!-- no -->c </string>",
         " a&<\xF0\x9F\x98\x80<b>c "},
        {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
        {"<integer>+18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
        {"<real>-1.5e3</real>", -1500.0},
        {"<real>-Infinity</real>", -std::numeric_limits<double>::infinity()},
        {"<date>2000-02-29T23:59:59Z</date>", Date{951868799, 0}},
        {"<date>0001-01-01T00:00:00Z</date>", Date{-62135596800, 0}},
        {"<data>\n\tAP8\n\t= </data>", Data{{0, 255}}},
        {"<data/>", Data()},
        {"<dict><key>k</key><integer>1</integer><key>k</key><integer>2</integer></dict>",
         Dictionary{{"k", 2}}},
        // The old form.
        {"/* c */ { a = b; // c\n \"q k\" = (1, (x), <0aF f 00>, {},); alone; }",
         Dictionary{{"a", "b"},
                    {"q k", Array{"1", Array{"x"}, Data{{0x0A, 0xFF, 0x00}}, Dictionary()}},
                    {"alone", "alone"}}},
        {"key = v; 'k2' = (); ", Dictionary{{"key", "v"}, {"k2", Array()}}},
        {"http://host/a_b-c.d$e", "http://host/a_b-c.d$e"},
        {R"("a\n\t\"\\\'\101\U00e9\Ud83d\Ude00\q)"
         "\\\nz\"",
         "a\n\t\"\\'A\xC3\xA9\xF0\x9F\x98\x80q\nz"},
        {"'it\"s'", "it\"s"},
        {"\xEF\xBB\xBF\"\xC3\xBC\"", "\xC3\xBC"},
        {"<da>", Data{{0xDA}}},
        {"<>", Data()},
    };
    for (const auto& [text, expected] : rows) {
        ErrorRef error;
        const auto value = propertyListFromData(text, &error);
        ASSERT_TRUE(value) << text << ": " << error->localizedDescription();
        EXPECT_EQ(*value, expected) << text;
        EXPECT_EQ(value->className(), expected.className()) << text;
    }
}

TEST(PropertyList, SaysWhatIsWrongAndWhere) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        // The parser's own words and places.
        {"<plist>\n<dict>", "no element found (line 2, column 7)"},
        {"<string>&unknown;</string>", "undefined entity (line 1, column 9)"},
        // Elements in the wrong place.
        {"<plist/>", "no value (line 1, column 9)"},
        {"<plist><true/><true/></plist>", "more than one value (line 1, column 15)"},
        {"<plist><plist><true/></plist></plist>",
         "plist element not at the top (line 1, column 8)"},
        {"<dict><true/></dict>", "value without key (line 1, column 7)"},
        {"<dict><key>a</key><key>b</key></dict>", "key without place (line 1, column 19)"},
        {"<dict><key>a</key></dict>", "key without value (line 1, column 19)"},
        {"<array><foo/></array>", "unknown element (line 1, column 8)"},
        {"<array>x<true/></array>", "text outside of a value (line 1, column 8)"},
        {"<string><true/></string>", "element within a value of text (line 1, column 9)"},
        {"<true>x</true>", "text within a Boolean (line 1, column 8)"},
        // Numbers, dates and data that are not whole or out of range.
        {"<integer>1 2</integer>", "bad integer (line 1, column 13)"},
        {"<integer>18446744073709551616</integer>", "bad integer (line 1, column 30)"},
        {"<integer>-9223372036854775809</integer>", "bad integer (line 1, column 30)"},
        {"<real>1.5x</real>", "bad real number (line 1, column 11)"},
        {"<real>1e999</real>", "bad real number (line 1, column 12)"},
        {"<date>2001-02-29T00:00:00Z</date>", "bad date (line 1, column 27)"},
        {"<date>2001-02-28T24:00:00Z</date>", "bad date (line 1, column 27)"},
        {"<data>A</data>", "bad base64 data (line 1, column 8)"},
        {"<data>AA=A</data>", "bad base64 data (line 1, column 11)"},
        {"<data>AA*=</data>", "bad base64 data (line 1, column 11)"},
        // The old form.
        {"\n // only\n", "value expected (line 3, column 1)"},
        {"{\n a = b\n}", "';' expected (line 3, column 1)"},
        {"{ a = b;", "'}' expected (line 1, column 9)"},
        {"{ a = ; }", "unexpected character (line 1, column 7)"},
        {"(a b)", "',' or ')' expected (line 1, column 4)"},
        {"<0>", "odd number of hexadecimal digits (line 1, column 3)"},
        {"<0g>", "hexadecimal digit expected (line 1, column 3)"},
        {"<00", "'>' expected (line 1, column 4)"},
        {"\"a\n", "string without end (line 1, column 1)"},
        {"\"a\\", "string without end (line 1, column 1)"},
        {"/* a", "comment without end (line 1, column 1)"},
        {"{} x", "text after the value (line 1, column 4)"},
        {"\"\\Ud83d\"", "bad Unicode escape (line 1, column 3)"},
        {"\"\\351\"", "octal escape above \\177 (line 1, column 3)"},
        {"\"\xC0\xAF\"", "not UTF-8 (line 1, column 2)"},
        // No entity is expanded.
        {"<?xml version='1.0'?><!DOCTYPE p [<!ENTITY a 'b'>]><string>&a;</string>",
         "document type with declarations of its own (line 1, column 34)"},
        {"<!DOCTYPE p [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><string>&x;</string>",
         "document type with declarations of its own (line 1, column 13)"},
        {"<!DOCTYPE p SYSTEM 'file:///etc/passwd'><string>&x;</string>",
         "undefined entity (line 1, column 49)"},
    };
    for (const auto& [text, words] : rows) {
        ErrorRef error;
        EXPECT_FALSE(propertyListFromData(text, &error)) << text;
        ASSERT_TRUE(error) << text;
        EXPECT_EQ(error->domain(), kCocoaErrorDomain);
        EXPECT_EQ(error->code(), 3840);
        EXPECT_EQ(error->localizedDescription(), words) << text;
    }
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

    Value deep{Array()};
    for (std::size_t i = 1; i < deepest; ++i) {
        deep = Array{std::move(deep)};
    }
    EXPECT_TRUE(xmlPropertyList(deep));
    EXPECT_FALSE(xmlPropertyList(Array{std::move(deep)}));
    EXPECT_FALSE(xmlPropertyList(Array(most + 1, Value(true))));
}

TEST(PropertyList, WritesWhatItReadsBack) {
    const Value everyKind = Dictionary{
        {"text", "a<b>&\"'\r\n\t\xC3\xA9\xF0\x9F\x98\x80"},
        {"", ""},
        {"<k&>", " leading and trailing "},
        {"numbers", Array{true, false, 0, -5, std::numeric_limits<std::uint64_t>::max(),
                          std::numeric_limits<std::int64_t>::min(), 0.1, 1e300, -0.0,
                          Number::fromFloat(0.1F), std::numeric_limits<double>::infinity()}},
        {"dates", Array{Date{0, 0}, Date{-1, 0}, Date{253402300799, 0}, Date{-62167219200, 0}}},
        {"data", Array{Data(), Data{{1}}, Data{{1, 2}}, Data{{0, 0xFF, 0x80, 0x7F}}}},
        {"nested", Array{Array(), Dictionary(), Array{Dictionary{{"x", Array{1}}}}}},
    };
    const auto text = xmlPropertyList(everyKind);
    ASSERT_TRUE(text);
    EXPECT_EQ(*propertyListFromData(*text), everyKind);
    EXPECT_NE(text->find("<data>AP+Afw==</data>"), std::string::npos) << *text;
    EXPECT_TRUE(
        std::isnan(propertyListFromData(*xmlPropertyList(std::nan("")))->number()->doubleValue()));
}

TEST(PropertyList, RefusesToWriteWhatXmlCannotCarry) {
    const Value rows[] = {Value(),
                          makePosixError(1),
                          Array{Value()},
                          std::string("a\0b", 3),
                          "\x1B[0m",
                          "\xFF",
                          "\xED\xA0\x80",
                          "\xEF\xBF\xBF",
                          Dictionary{{"\x01", 1}},
                          Date{0, 1},
                          Date{253402300800, 0},
                          Date{-62167219201, 0}};
    for (const Value& value : rows) {
        ErrorRef error;
        EXPECT_FALSE(xmlPropertyList(value, &error)) << value.className();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 3852);
        EXPECT_FALSE(error->localizedDescription().empty());
    }
}

TEST(PropertyList, SurvivesTheCorpus) {
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(CORVALEN_CORPUS)) {
        SCOPED_TRACE(entry.path().filename());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        const bool expected = entry.path().filename().string().rfind("good-", 0) == 0;
        const auto value = propertyListFromData(bytes);
        EXPECT_EQ(value.has_value(), expected);
        const auto text = value ? xmlPropertyList(*value) : std::nullopt;
        EXPECT_TRUE(!text || *propertyListFromData(*text) == *value);
        ++files;
    }
    EXPECT_GE(files, 10U);
}

}  // namespace
}  // namespace corvalen
