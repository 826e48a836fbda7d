// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>

#include "support/child.hpp"

namespace corvalen {
namespace {

ErrorRef cocoaError(std::int64_t code, const ErrorRef& inner = nullptr) {
    Dictionary info{{std::string(kFilePathKey), "/a/b"}};
    if (inner) info.set(kUnderlyingErrorKey, Value(inner));
    return makeError(kCocoaErrorDomain, code, info);
}

TEST(FailureTest, SortsErrorsAndFindsTheirErrno) {
    const ErrorRef plainPermission = makePosixError(EPERM);
    const std::tuple<ErrorRef, FailureKind, int> cases[] = {
        {nullptr, FailureKind::none, 0},
        {makePosixError(ENOTEMPTY), FailureKind::operation, ENOTEMPTY},
        {makePosixError(ECANCELED), FailureKind::canceled, ECANCELED},
        {plainPermission, FailureKind::operation, EPERM},  // of user 0
        {makePosixError(EPERM, Dictionary{{"k", "v"}}), FailureKind::operation, EPERM},
        {makeOSStatusError(-60005), FailureKind::notAuthorized, EPERM},
        {makeOSStatusError(-60006), FailureKind::canceled, ECANCELED},
        {makeOSStatusError(-50), FailureKind::operation, EIO},
        {makeError(kCocoaErrorDomain, 4099), FailureKind::notReachable, ECONNREFUSED},
        {cocoaError(513, makePosixError(EBUSY)), FailureKind::operation, EBUSY},
        {cocoaError(516), FailureKind::operation, EEXIST},
        {makeError("x.y", 18,
                   Dictionary{{std::string(kUnderlyingErrorKey),
                               Value(cocoaError(512, makePosixError(ELOOP)))}}),
         FailureKind::operation, ELOOP},
    };
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    for (const auto& [error, kind, errnoValue] : cases) {
        EXPECT_EQ(failureKind(error), kind) << describeFailure(error);
        EXPECT_EQ(hostErrno(error), errnoValue) << describeFailure(error);
    }
    // For anybody else it is the authority that said no; in a child, for the user is the process's.
    test::Child somebody(65534, [&] {
        return failureKind(plainPermission) == FailureKind::notAuthorized && !defineRights();
    });
    EXPECT_EQ(somebody.wait(), 0);
}

TEST(FailureTest, PutsTheWholeChainIntoWords) {
    EXPECT_EQ(describeFailure(nullptr), "");
    const ErrorRef error = makeError(
        "x.y", 18,
        Dictionary{
            {std::string(kLocalizedDescriptionKey), "It is protected."},
            {std::string(kLocalizedRecoverySuggestionKey), "Look at '/a/c'."},
            {std::string(kFilePathKey), "/a/c"},
            {std::string(kUnderlyingErrorKey), Value(cocoaError(513, makePosixError(EPERM)))}});
    EXPECT_EQ(describeFailure(error),
              "It is protected.\nLook at '/a/c'.\n"
              "caused by: The file could not be changed: no permission.\npath: /a/b\n"
              "caused by: Operation not permitted");
    EXPECT_EQ(describeFailure(makeOSStatusError(-60006)),
              "The authorization was canceled by the user.");
}

TEST(CatalogueTest, TellsWhoMayAskForAnOperation) {
    EXPECT_EQ(findOperation(9998)->policy, OperationPolicy::anybody);
    EXPECT_EQ(findOperation("search-patterns")->policy, OperationPolicy::administrators);
    EXPECT_EQ(findOperation(9999), nullptr);
}

}  // namespace
}  // namespace corvalen
