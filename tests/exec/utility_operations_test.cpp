// SPDX-License-Identifier: MIT
#include "exec/utility_operations.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "operations/errors.hpp"
#include "operations/names.hpp"
#include "support/own_mounts.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using test::withOwn;
using testing::HasSubstr;
using testing::StartsWith;

struct Feedback : FeedbackConnection {
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        const Value* errors = feedback.find(kQRLPORK_ErrorData);
        const Value* outputs = feedback.find(kQRLPORK_OutputData);
        ASSERT_TRUE(feedback.size() == 1 && (errors != nullptr || outputs != nullptr));
        (errors != nullptr ? error : output).append(feedback.begin()->value.data()->view());
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

/// Runs a utility through the table of methods. The domain is left out of the code.
std::pair<std::int64_t, ErrorRef> perform(UtilityOperations& operations, const Array& arguments,
                                          Feedback* feedback = nullptr) {
    MethodTable table;
    operations.registerMethods(table);
    const OperationMethod* method =
        table.find("performOperationExecuteUtilityWithArguments:feedbackConnection:");
    ErrorRef error = std::get<FeedbackOperationMethod>(*method)(arguments, feedback);
    return {error ? error->code() : 0, error};
}

TEST(UtilityOperations, RefusesWhatItCannotRun) {
    withOwn({"/usr/sbin"}, [] {
        fs::create_directories("/usr/sbin/cupsctl");
        put("/usr/sbin/diskutil", "#!/bin/sh\n", 0775);
        // Arguments, code, and the path that the helper's own errors have.
        const std::tuple<Array, std::int64_t, std::string> rows[] = {
            {{}, EINVAL, ""},
            {{"/"}, EINVAL, ""},
            {{"/", ""}, EINVAL, ""},
            {{"/", "/bin/chmod"}, EINVAL, ""},
            {{"", "chmod"}, EINVAL, ""},
            {{"/", "chmod", 1}, EINVAL, ""},
            {{"/", "chmod", std::string("a\0b", 3)}, EINVAL, ""},
            {{"/none", "lipo"}, EINVAL, ""},
            {{"/", "cupsctl"}, 1, "/usr/sbin/cupsctl"},
            {{"/", "xpchelper"}, 1, "/usr/libexec/xpchelper"},
            {{"/", "diskutil"}, 2, "/usr/sbin/diskutil"},
        };
        UtilityOperations operations;
        Feedback feedback;
        for (const auto& [arguments, wanted, path] : rows) {
            const auto [code, error] = perform(operations, arguments, &feedback);
            ASSERT_EQ(code, wanted) << path;
            EXPECT_EQ(error->domain(), path.empty() ? kPosixErrorDomain : kErrorDomain);
            EXPECT_EQ(error->filePath() != nullptr ? *error->filePath() : "", path);
        }
        EXPECT_EQ(*perform(operations, {"/", "cupsctl"}).second->localizedRecoverySuggestion(),
                  "Please verify that the UNIX program cupsctl is present at its standard path "
                  "'/usr/sbin/cupsctl'.");
        EXPECT_EQ(feedback.messages, 0);
    });
}

TEST(UtilityOperations, RunsAndForwardsTheOutput) {
    withOwn({"/usr/sbin", "/tmp"}, [] {
        UtilityOperations operations;
        Feedback feedback;
        put("/tmp/a file", "", 0600);
        EXPECT_EQ(perform(operations, {"/", "chmod", "-v", "640", "/tmp/a file"}, &feedback).first,
                  0);
        EXPECT_EQ(fs::status("/tmp/a file").permissions(), fs::perms(0640));
        EXPECT_THAT(feedback.output, StartsWith("mode of '/tmp/a file' changed from 0600"));
        EXPECT_GE(feedback.messages, 2) << "the empty ones are sent as well";
        EXPECT_EQ(operations.outputConnection(), nullptr);

        const auto [code, error] =
            perform(operations, {"/", "chmod", "640", "/tmp/none"}, &feedback);
        ASSERT_EQ(code, 3);
        EXPECT_THAT(*error->localizedRecoverySuggestion(), HasSubstr("returned error code 1."));
        EXPECT_THAT(feedback.error, HasSubstr("/tmp/none"));
        EXPECT_EQ(operations.outputConnection(), &feedback) << "left set after a failure";
        put("/usr/sbin/diskutil", "garbage");
        EXPECT_EQ(perform(operations, {"/", "diskutil"}).first, 3) << "cannot be started";
    });
}

TEST(UtilityOperations, GivesOnlyPeriodicAPath) {
    withOwn({"/usr/sbin"}, [] {
        ::setenv("PATH", "/somewhere/else", 1);
        ::setenv("PATHS", "stay", 1);
        const char* script =
            "#!/bin/sh\n/usr/bin/tr '\\0' '\\n' < /proc/$$/environ | "
            "/usr/bin/grep ^PATH | /usr/bin/sort\n";
        UtilityOperations operations;
        Feedback feedback;
        for (const std::string name : {"periodic", "diskutil"}) {
            put("/usr/sbin/" + name, script);
            EXPECT_EQ(perform(operations, {"/", name, "x"}, &feedback).first, 0);
        }
        EXPECT_EQ(feedback.output, "PATH=/usr/bin:/bin:/usr/sbin:/sbin\nPATHS=stay\nPATHS=stay\n");
        EXPECT_STREQ(::getenv("PATH"), "/somewhere/else") << "this process's own";
    });
}

TEST(UtilityOperations, TakesLipoFromTheApplicationWhoeverOwnsIt) {
    withOwn({"/tmp"}, [] {
        put("/tmp/Tool.app/Contents/Info.plist", "{ CFBundleExecutable = Tool; }");
        put("/tmp/Tool.app/Contents/MacOS/Tool", "");
        UtilityOperations operations;
        Feedback feedback;
        const Array arguments{"/tmp/Tool.app", "lipo", "-info"};
        EXPECT_EQ(perform(operations, arguments).first, 1);
        put("/tmp/Tool.app/Contents/MacOS/lipo", "#!/bin/sh\necho own $1\n", 0777);
        ASSERT_EQ(::chown("/tmp/Tool.app/Contents/MacOS/lipo", 1000, 1000), 0);
        EXPECT_EQ(perform(operations, arguments, &feedback).first, 0);
        EXPECT_EQ(feedback.output, "own -info\n");
    });
}

TEST(UtilityOperations, RunsOneUtilityAtATime) {
    withOwn({"/usr/sbin", "/tmp"}, [] {
        put("/usr/sbin/diskutil",
            "#!/bin/sh\n/bin/mkdir /tmp/busy || exit 9\n/bin/sleep 0.1\n/bin/rmdir /tmp/busy\n");
        UtilityOperations operations;
        std::vector<std::thread> clients;
        clients.reserve(4);
        for (int i = 0; i < 4; ++i) {
            clients.emplace_back([&operations] {
                Feedback feedback;
                EXPECT_EQ(perform(operations, {"/", "diskutil"}, &feedback).first, 0)
                    << feedback.error;
            });
        }
        for (std::thread& client : clients)
            client.join();
    });
}

}  // namespace
}  // namespace corvalen
