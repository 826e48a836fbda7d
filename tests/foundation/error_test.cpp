// SPDX-License-Identifier: MIT
#include "corvalen/error.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace corvalen {
namespace {

TEST(PosixCodes, AreTheOnesOfTheContractAndNeverMeanTwoErrors) {
    const std::pair<int, int> table[] = {
        {0, 0},        {EPERM, 1},    {ENOENT, 2},     {ERANGE, 34},       {EAGAIN, 35},
        {EDEADLK, 11}, {ENOTSUP, 45}, {ELOOP, 62},     {ENAMETOOLONG, 63}, {ENOTEMPTY, 66},
        {EDQUOT, 69},  {ESTALE, 70},  {EOVERFLOW, 84}, {ECANCELED, 89},    {EILSEQ, 92},
        {ENODATA, 96},
    };
    for (const auto& [host, wire] : table) {
        EXPECT_EQ(posixCodeFromErrno(host), wire) << std::strerror(host);
    }
    std::map<std::int64_t, int> seen;
    for (int host = 0; host < 200; ++host) {
        const std::int64_t wire = posixCodeFromErrno(host);
        if (wire == EIO && host != EIO) continue;  // without a counterpart
        EXPECT_TRUE(seen.emplace(wire, host).second) << host << " and " << seen[wire];
        EXPECT_EQ(errnoFromPosixCode(wire), host);
    }
    for (const std::int64_t unknown : {std::int64_t{-1}, std::int64_t{107}, INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(errnoFromPosixCode(unknown), EIO) << unknown;
    }
}

TEST(FileErrors, CarryCodePathAndTheErrorUnderneath) {
    const struct {
        int host, writing, reading;
    } rows[] = {{ENOENT, 4, 260},   {EPERM, 513, 257},  {EACCES, 513, 257}, {EEXIST, 516, 256},
                {ENOSPC, 640, 256}, {EDQUOT, 640, 256}, {EROFS, 642, 256},  {ELOOP, 512, 256}};
    for (const auto& row : rows) {
        const ErrorRef writing = makeFileError(FileAccess::write, row.host, "/a\xFF");
        EXPECT_EQ(writing->domain(), kCocoaErrorDomain);
        EXPECT_EQ(writing->code(), row.writing) << std::strerror(row.host);
        EXPECT_EQ(makeFileError(FileAccess::read, row.host, "/")->code(), row.reading);
        EXPECT_EQ(*writing->filePath(), "/a\xFF");
        EXPECT_EQ(*writing->underlyingError(), *makePosixError(row.host));
    }
}

TEST(Errors, DescribeThemselves) {
    EXPECT_EQ(makePosixError(ELOOP)->localizedDescription(), std::strerror(ELOOP));
    EXPECT_EQ(makeOSStatusError(-60005)->localizedDescription(),
              "The operation could not be completed. (NSOSStatusErrorDomain error -60005.)");
    const Error own("D", 3,
                    Dictionary{{std::string(kLocalizedDescriptionKey), "own words"},
                               {std::string(kFilePathKey), 5}});
    EXPECT_EQ(own.localizedDescription(), "own words");
    EXPECT_EQ(own.filePath(), nullptr) << "not a string";
    EXPECT_EQ(own.underlyingError(), nullptr);
}

}  // namespace
}  // namespace corvalen
