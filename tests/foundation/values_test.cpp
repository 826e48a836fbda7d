// SPDX-License-Identifier: MIT
// Numbers, values and errors.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "support/golden.hpp"

namespace corvalen {
namespace {

TEST(Number, ConvertsToEveryKind) {
    test::expectRows(
        "numbers.txt",
        {{"number", [](const std::string& row) {
              std::istringstream words(row);
              std::string kind, digits;
              words >> kind >> digits;
              const Number number = kind == "Boolean"    ? Number::fromBool(digits == "true")
                                    : kind == "signed"   ? Number::fromSigned(std::stoll(digits))
                                    : kind == "unsigned" ? Number::fromUnsigned(std::stoull(digits))
                                    : kind == "float"    ? Number::fromFloat(std::stof(digits))
                                                         : Number::fromDouble(std::stod(digits));
              std::ostringstream text;
              text << std::boolalpha << number.boolValue() << " " << number.longLongValue() << " "
                   << number.unsignedIntegerValue() << " " << number.intValue() << " "
                   << int{number.unsignedCharValue()} << " " << number.doubleValue() << " "
                   << number.stringValue();
              return text.str();
          }}});
}

TEST(Number, EqualsOnlyTheSameValueOfTheSameGroup) {
    EXPECT_TRUE(Number::fromSigned(7) == Number::fromUnsigned(7));
    EXPECT_TRUE(Number::fromFloat(1.5F) == Number::fromDouble(1.5));
    const Number others[] = {Number::fromBool(true),  Number::fromSigned(1),
                             Number::fromDouble(1.0), Number::fromBool(false),
                             Number::fromSigned(0),   Number::fromDouble(0.0),
                             Number::fromSigned(-1),  Number::fromUnsigned(UINT64_MAX)};
    for (const Number& a : others)
        for (const Number& b : others)
            EXPECT_EQ(a == b, &a == &b) << a.stringValue() << b.stringValue();
    EXPECT_TRUE(Number::fromDouble(std::nan("")) == Number::fromDouble(std::nan("")));
}

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
    EXPECT_FALSE(Value() == Value(makePosixError(1)));
    EXPECT_TRUE(Value(ErrorRef()).isNil() && Value(EndpointRef()).isNil());
    EXPECT_FALSE(Value(makeError("D", 1)) == Value(makeError("D", 1, Dictionary())));
}

TEST(Errors, HaveTheCodesOfTheContractThatNeverMeanTwo) {
    std::string text = "# POSIX code; code of a failed write, of a failed read.\n";
    EXPECT_EQ(posixCodeFromErrno(0), 0);
    for (int host = 1; host <= EHWPOISON; ++host) {
        const char* name = ::strerrorname_np(host);
        if (name == nullptr) continue;
        const std::int64_t wire = posixCodeFromErrno(host);
        const ErrorRef writing = makeFileError(FileAccess::write, host, "/a\xFF");
        const ErrorRef reading = makeFileError(FileAccess::read, host, "/");
        text += std::string(name) + ": " + std::to_string(wire) + "; " +
                std::to_string(writing->code()) + ", " + std::to_string(reading->code()) + "\n";
        EXPECT_EQ(writing->domain(), kCocoaErrorDomain);
        EXPECT_EQ(*writing->filePath(), "/a\xFF");
        EXPECT_EQ(*writing->underlyingError(), *makePosixError(host));
        // EIO also stands for errors without a counterpart.
        EXPECT_EQ(errnoFromPosixCode(wire), wire == EIO ? EIO : host) << name;
    }
    test::expectGolden("error_codes.txt", text);
    for (const std::int64_t unknown : {std::int64_t{-1}, std::int64_t{107}, INT64_MAX, INT64_MIN})
        EXPECT_EQ(errnoFromPosixCode(unknown), EIO) << unknown;
}

TEST(Errors, DescribeThemselves) {
    EXPECT_EQ(makePosixError(ELOOP)->localizedDescription(), std::strerror(ELOOP));
    EXPECT_EQ(makeOSStatusError(-60005)->localizedDescription(),
              "The operation could not be completed. (NSOSStatusErrorDomain error -60005.)");
    const Error empty("D", 3, Dictionary{{std::string(kLocalizedDescriptionKey), ""}});
    EXPECT_EQ(empty.localizedDescription(), "The operation could not be completed. (D error 3.)");
    const Error own("D", 3,
                    Dictionary{{std::string(kLocalizedDescriptionKey), "own words"},
                               {std::string(kFilePathKey), 5}});
    EXPECT_EQ(own.localizedDescription(), "own words");
    EXPECT_EQ(own.filePath(), nullptr) << "not a string";
    EXPECT_EQ(own.underlyingError(), nullptr);
}

}  // namespace
}  // namespace corvalen
