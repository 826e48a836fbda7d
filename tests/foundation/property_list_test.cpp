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

/// "TIMES|BEFORE|REPEATED|AFTER|REPEATED AGAIN" is a list; tells only whether it is read.
std::string repetition(const std::string& row) {
    std::vector<std::string> parts = test::fieldsOf(row);
    parts.resize(5);
    const std::size_t times = std::stoul(parts[0]);
    const auto value = propertyListFromData(parts[1] + repeated(parts[2], times) + parts[3] +
                                            repeated(parts[4], times));
    return value ? "read" : value.error()->localizedDescription();
}

TEST(PropertyList, IsReadAndWrittenOrSaysWhatIsWrongAndWhere) {
    const auto layout = [](const std::string& list) {
        const std::string text = xmlPropertyList(*propertyListFromData(list)).value();
        return text.substr(text.find("<plist"));
    };
    const auto binary = [](const std::string& objects) { return rewritten(binaryList(objects)); };
    test::expectRows(
        "property_lists.txt",
        {{"list", rewritten}, {"layout", layout}, {"repetition", repetition}, {"binary", binary}});
}

TEST(PropertyList, ABinaryListIsWholeAndSharesWithinTheLimits) {
    // Shared containers that would grow without end: 2 to the power of 40 values.
    std::ostringstream doubling;
    for (int i = 1; i <= 40; ++i)
        doubling << "a2 " << std::hex << i << " " << i << ",";
    EXPECT_EQ(rewritten(binaryList(doubling.str() + "9")), "too many values (line 1, column 1)");
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
    EXPECT_EQ(rewritten(shared(90)), "too large (line 1, column 1)");
    EXPECT_EQ(propertyListFromData(binaryList("33 bb c7 9c a1 0c 92 42 23"))->date()->nanoseconds,
              999'999'999U);
    const std::string whole = binaryList("9");
    for (std::size_t length = 8; length < whole.size(); ++length)
        EXPECT_FALSE(propertyListFromData(whole.substr(0, length))) << length;
}

TEST(PropertyList, RefusesToWriteWhatXmlCannotCarry) {
    Value deep{Array()};
    for (std::size_t i = 1; i < kMaximumPropertyListDepth; ++i)
        deep = Array{std::move(deep)};
    EXPECT_TRUE(xmlPropertyList(deep));
    const Value rows[] = {makePosixError(1), Array{Value()}, "\xED\xA0\x80", Array{std::move(deep)},
                          Array(kMaximumPropertyListNodes, Value(true))};
    std::string text;
    for (const Value& value : rows)
        text += xmlPropertyList(value).error()->localizedDescription() + "\n";
    EXPECT_EQ(text,
              "value of class NSError\nvalue of class NSNull\nstring with a forbidden character\n"
              "nested too deeply\ntoo many values\n");
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
