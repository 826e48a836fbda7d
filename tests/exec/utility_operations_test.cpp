// SPDX-License-Identifier: MIT
#include "exec/utility_operations.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "operations/errors.hpp"
#include "operations/names.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using testing::StartsWith;

struct Feedback : FeedbackConnection {
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        ASSERT_EQ(feedback.size(), 1U);
        const bool isError = feedback.begin()->key == kQRLPORK_ErrorData;
        ASSERT_TRUE(isError || feedback.begin()->key == kQRLPORK_OutputData);
        (isError ? error : output).append(feedback.begin()->value.data()->view());
        ++messages;
    }
    std::string output;
    std::string error;
    int messages = 0;
};

void put(const std::string& path, std::string_view contents, mode_t mode = 0755) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << contents;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

/// Runs the body in a child with a /usr/sbin and a /tmp of its own.
void amongOwnPrograms(const std::function<void()>& body) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const auto child = [&body] {
        const bool apart = ::unshare(CLONE_NEWNS) == 0 &&
                           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           ::mount("tmpfs", "/usr/sbin", "tmpfs", 0, "mode=0755") == 0 &&
                           ::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0;
        EXPECT_TRUE(apart);
        if (apart) body();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

std::int64_t codeOf(const ErrorRef& error) {
    return error ? error->code() : 0;
}

TEST(UtilityOperations, FindsOnlyThePermittedUtilities) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"dscacheutil", "/usr/bin/dscacheutil"},
        {"discoveryutil", "/usr/sbin/discoveryutil"},
        {"chmod", "/bin/chmod"},
        {"chown", "/usr/sbin/chown"},
        {"update_dyld_shared_cache", "/usr/bin/update_dyld_shared_cache"},
        {"ditto", "/usr/bin/ditto"},
        {"periodic", "/usr/sbin/periodic"},
        {"diskutil", "/usr/sbin/diskutil"},
        {"mdutil", "/usr/bin/mdutil"},
        {"atsutil", "/usr/bin/atsutil"},
        {"launchctl", "/bin/launchctl"},
        {"cupsctl", "/usr/sbin/cupsctl"},
        {"tmutil", "/usr/bin/tmutil"},
        {"dot_clean", "/usr/sbin/dot_clean"},
        {"xpchelper", "/usr/libexec/xpchelper"},
        {"/bin/chmod", ""},
        {"../bin/chmod", ""},
        {"sh", ""},
        {"Chmod", ""},
        {"lipo", ""},
    };
    for (const auto& [name, path] : rows) {
        bool external = false;
        bool safePath = false;
        EXPECT_EQ(UtilityOperations::trustedPathForApplicationPath("/no/bundle", name, &external,
                                                                   &safePath)
                      .value_or(""),
                  path);
        EXPECT_EQ(external, name != "lipo") << name;
        EXPECT_EQ(safePath, name == "periodic") << name;
    }
    bool untouched = true;
    for (const auto& [application, name] : {std::pair("", "periodic"), std::pair("/", "")}) {
        EXPECT_FALSE(UtilityOperations::trustedPathForApplicationPath(application, name, &untouched,
                                                                      nullptr));
        EXPECT_TRUE(untouched);
    }
}

TEST(UtilityOperations, RefusesWhatItCannotRun) {
    amongOwnPrograms([] {
        fs::create_directories("/usr/sbin/cupsctl");
        put("/usr/sbin/diskutil", "#!/bin/sh\n", 0775);
        struct Row {
            Array arguments;
            std::string_view domain;
            std::int64_t code;
            std::string_view path;
        };
        const Row rows[] = {
            {{}, kPosixErrorDomain, EINVAL, ""},
            {{"/"}, kPosixErrorDomain, EINVAL, ""},
            {{"/", "sh"}, kPosixErrorDomain, EINVAL, ""},
            {{"", "chmod"}, kPosixErrorDomain, EINVAL, ""},
            {{"/", ""}, kPosixErrorDomain, EINVAL, ""},
            {{"/", "chmod", 1}, kPosixErrorDomain, EINVAL, ""},
            {{"/", "chmod", std::string("a\0b", 3)}, kPosixErrorDomain, EINVAL, ""},
            {{"/none", "lipo"}, kPosixErrorDomain, EINVAL, ""},
            {{"/", "dot_clean"}, kErrorDomain, 1, "/usr/sbin/dot_clean"},
            {{"/", "cupsctl"}, kErrorDomain, 1, "/usr/sbin/cupsctl"},
            {{"/", "diskutil"}, kErrorDomain, 2, "/usr/sbin/diskutil"},
        };
        UtilityOperations operations;
        Feedback feedback;
        for (const Row& row : rows) {
            const ErrorRef error =
                operations.performOperationExecuteUtilityWithArguments(row.arguments, &feedback);
            ASSERT_TRUE(error) << row.code << row.path;
            EXPECT_EQ(error->domain(), row.domain) << row.path;
            EXPECT_EQ(error->code(), row.code) << row.path;
            EXPECT_EQ(error->filePath() != nullptr ? *error->filePath() : "", row.path);
        }
        EXPECT_EQ(
            *operations.performOperationExecuteUtilityWithArguments({"/", "dot_clean"}, nullptr)
                 ->localizedRecoverySuggestion(),
            "Please verify that the UNIX program dot_clean is present at its standard path "
            "'/usr/sbin/dot_clean'.");
        EXPECT_EQ(feedback.messages, 0);
        EXPECT_EQ(operations.outputConnection(), nullptr);
    });
}

TEST(UtilityOperations, RunsAndForwardsTheOutput) {
    amongOwnPrograms([] {
        MethodTable table;
        UtilityOperations operations;
        operations.registerMethods(table);
        const OperationMethod* method = table.find(kExecuteUtilitySelector);
        ASSERT_NE(method, nullptr);
        const auto perform = [&](const Array& arguments, Feedback* feedback) {
            return std::get<FeedbackOperationMethod>(*method)(arguments, feedback);
        };
        put("/tmp/a file", "", 0600);
        Feedback feedback;
        EXPECT_EQ(codeOf(perform({"/", "chmod", "-v", "0640", "/tmp/a file"}, &feedback)), 0);
        EXPECT_EQ(fs::status("/tmp/a file").permissions(), fs::perms(0640));
        EXPECT_THAT(feedback.output, StartsWith("mode of '/tmp/a file' changed from 0600"));
        EXPECT_EQ(feedback.error, "");
        EXPECT_GE(feedback.messages, 2) << "the empty ones are sent as well";
        EXPECT_EQ(operations.outputConnection(), nullptr);

        const ErrorRef failed = perform({"/", "chmod", "0640", "/tmp/none"}, &feedback);
        ASSERT_EQ(codeOf(failed), 3);
        EXPECT_EQ(*failed->localizedRecoverySuggestion(),
                  "The operating system could not perform the requested operation. It returned "
                  "error code 1.");
        EXPECT_THAT(feedback.error, testing::HasSubstr("/tmp/none"));
        EXPECT_EQ(operations.outputConnection(), &feedback) << "left set after a failure";
        EXPECT_EQ(codeOf(perform({"/", "chmod", "0600", "/tmp/a file"}, nullptr)), 0);
        EXPECT_EQ(operations.outputConnection(), nullptr);

        put("/usr/sbin/diskutil", "garbage");
        EXPECT_EQ(codeOf(perform({"/", "diskutil"}, nullptr)), 3) << "cannot be started";
    });
}

TEST(UtilityOperations, GivesOnlyPeriodicAPath) {
    amongOwnPrograms([] {
        ::setenv("PATH", "/somewhere/else", 1);
        ::setenv("PATHS", "stay", 1);
        const std::string script = "#!/bin/sh\n/usr/bin/tr '\\0' '\\n' < /proc/$$/environ\n";
        put("/usr/sbin/periodic", script);
        put("/usr/sbin/diskutil", script);
        UtilityOperations operations;
        for (const auto& [name, path] :
             {std::pair("periodic", "PATH=/usr/bin:/bin:/usr/sbin:/sbin"),
              std::pair("diskutil", "none")}) {
            Feedback feedback;
            EXPECT_EQ(codeOf(operations.performOperationExecuteUtilityWithArguments(
                          {"/", name, "x"}, &feedback)),
                      0);
            std::istringstream lines(feedback.output);
            std::string found = "none";
            bool others = false;
            for (std::string line; std::getline(lines, line);) {
                if (line.rfind("PATH=", 0) == 0) found = line;
                others = others || line == "PATHS=stay";
            }
            EXPECT_EQ(found, path);
            EXPECT_TRUE(others) << feedback.output;
        }
        EXPECT_STREQ(::getenv("PATH"), "/somewhere/else") << "this process's own";
    });
}

TEST(UtilityOperations, TakesLipoFromTheApplicationWhoeverOwnsIt) {
    amongOwnPrograms([] {
        put("/tmp/Tool.app/Contents/Info.plist", "{ CFBundleExecutable = Tool; }");
        put("/tmp/Tool.app/Contents/MacOS/Tool", "");
        UtilityOperations operations;
        const Array arguments{"/tmp/Tool.app", "lipo", "-info"};
        EXPECT_EQ(
            codeOf(operations.performOperationExecuteUtilityWithArguments(arguments, nullptr)), 1);
        put("/tmp/Tool.app/Contents/MacOS/lipo", "#!/bin/sh\necho own $1\n", 0777);
        ASSERT_EQ(::chown("/tmp/Tool.app/Contents/MacOS/lipo", 1000, 1000), 0);
        Feedback feedback;
        EXPECT_EQ(
            codeOf(operations.performOperationExecuteUtilityWithArguments(arguments, &feedback)),
            0);
        EXPECT_EQ(feedback.output, "own -info\n");
    });
}

TEST(UtilityOperations, RunsOneUtilityAtATime) {
    amongOwnPrograms([] {
        put("/usr/sbin/diskutil",
            "#!/bin/sh\n/bin/mkdir /tmp/running || exit 9\n/bin/sleep 0.1\n/bin/rmdir "
            "/tmp/running\n");
        UtilityOperations operations;
        std::vector<std::thread> clients;
        for (int i = 0; i < 4; ++i) {
            clients.emplace_back([&operations, i] {
                Feedback feedback;
                EXPECT_EQ(codeOf(operations.performOperationExecuteUtilityWithArguments(
                              {"/", "diskutil"}, i % 2 == 0 ? &feedback : nullptr)),
                          0)
                    << feedback.error;
            });
        }
        for (std::thread& client : clients) {
            client.join();
        }
    });
}

}  // namespace
}  // namespace corvalen
