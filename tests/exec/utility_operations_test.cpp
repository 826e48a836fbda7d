// SPDX-License-Identifier: MIT
#include "exec/utility_operations.hpp"

#include <gmock/gmock.h>

#include <thread>

#include "operations/errors.hpp"
#include "operations/names.hpp"
#include "support/own_mounts.hpp"
#include "support/perform.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using test::putFile;
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

class UtilityOperationsTest : public testing::Test {
  protected:
    ErrorRef request(const Array& arguments, FeedbackConnection* connection) {
        return test::perform(operations, "ExecuteUtility", arguments, connection);
    }
    /// The code without its domain.
    std::int64_t perform(const Array& arguments) {
        error = request(arguments, &feedback);
        return error ? error->code() : 0;
    }

    UtilityOperations operations;
    Feedback feedback;
    ErrorRef error;
};

TEST_F(UtilityOperationsTest, RefusesWhatItCannotRun) {
    withOwn({"/usr/sbin"}, [this] {
        fs::create_directories("/usr/sbin/cupsctl");
        // Arguments, code, and the path that the helper's own errors have.
        const std::tuple<Array, std::int64_t, std::string> rows[] = {
            {{"/", ""}, EINVAL, ""},         {{"", "chmod"}, EINVAL, ""},
            {{"/", "chmod", 1}, EINVAL, ""}, {{"/", "chmod", std::string("a\0b", 3)}, EINVAL, ""},
            {{"/none", "lipo"}, EINVAL, ""}, {{"/", "cupsctl"}, 1, "/usr/sbin/cupsctl"},
        };
        for (const auto& [arguments, code, path] : rows) {
            ASSERT_EQ(perform(arguments), code) << path;
            EXPECT_EQ(error->domain(), path.empty() ? kPosixErrorDomain : kErrorDomain);
            EXPECT_EQ(error->filePath() != nullptr ? *error->filePath() : "", path);
        }
        EXPECT_EQ(*error->localizedRecoverySuggestion(),
                  "Please verify that the UNIX program cupsctl is present at its standard path "
                  "'/usr/sbin/cupsctl'.");
        EXPECT_EQ(feedback.messages, 0);
    });
}

TEST_F(UtilityOperationsTest, RunsAndForwardsTheOutput) {
    withOwn({"/usr/sbin", "/tmp"}, [this] {
        putFile("/tmp/a file", "", 0600);
        EXPECT_EQ(perform({"/", "chmod", "-v", "640", "/tmp/a file"}), 0);
        EXPECT_EQ(fs::status("/tmp/a file").permissions(), fs::perms(0640));
        EXPECT_THAT(feedback.output, StartsWith("mode of '/tmp/a file' changed from 0600"));
        EXPECT_GE(feedback.messages, 2) << "the empty ones are sent as well";
        EXPECT_EQ(operations.outputConnection(), nullptr);

        ASSERT_EQ(perform({"/", "chmod", "640", "/tmp/none"}), 3);
        EXPECT_THAT(*error->localizedRecoverySuggestion(), HasSubstr("returned error code 1."));
        EXPECT_THAT(feedback.error, HasSubstr("/tmp/none"));
        EXPECT_EQ(operations.outputConnection(), &feedback) << "left set after a failure";
        putFile("/usr/sbin/diskutil", "garbage", 0755);
        EXPECT_EQ(request({"/", "diskutil"}, nullptr)->code(), 3) << "cannot be started";
    });
}

TEST_F(UtilityOperationsTest, GivesOnlyPeriodicAPath) {
    withOwn({"/usr/sbin"}, [this] {
        ::setenv("PATH", "/somewhere/else", 1);
        ::setenv("PATHS", "stay", 1);
        const char* script =
            "#!/bin/sh\n/usr/bin/tr '\\0' '\\n' < /proc/$$/environ | "
            "/usr/bin/grep ^PATH | /usr/bin/sort\n";
        for (const std::string name : {"periodic", "diskutil"}) {
            putFile("/usr/sbin/" + name, script, 0755);
            EXPECT_EQ(perform({"/", name, "x"}), 0);
        }
        EXPECT_EQ(feedback.output, "PATH=/usr/bin:/bin:/usr/sbin:/sbin\nPATHS=stay\nPATHS=stay\n");
        EXPECT_STREQ(::getenv("PATH"), "/somewhere/else") << "this process's own";
    });
}

TEST_F(UtilityOperationsTest, TakesLipoFromTheApplicationWhoeverOwnsIt) {
    withOwn({"/tmp"}, [this] {
        putFile("/tmp/Tool.app/Contents/Info.plist", "{ CFBundleExecutable = Tool; }");
        putFile("/tmp/Tool.app/Contents/MacOS/Tool", "", 0755);
        const Array arguments{"/tmp/Tool.app", "lipo", "-info"};
        EXPECT_EQ(perform(arguments), 1);
        putFile("/tmp/Tool.app/Contents/MacOS/lipo", "#!/bin/sh\necho own $1\n", 0777);
        ASSERT_EQ(::chown("/tmp/Tool.app/Contents/MacOS/lipo", 1000, 1000), 0);
        EXPECT_EQ(perform(arguments), 0);
        EXPECT_EQ(feedback.output, "own -info\n");
    });
}

TEST_F(UtilityOperationsTest, LogsThatOutputWasCutOff) {
    withOwn({"/usr/sbin"}, [] {
        std::string log;
        UtilityOperations limited(std::nullopt, [&](std::string_view line) { log += line; },
                                  {1000, 3000});
        for (const char* seconds : {"0.1", "9"}) {
            putFile("/usr/sbin/diskutil",
                    std::string("#!/bin/sh\n/usr/bin/timeout ") + seconds + " /usr/bin/yes &\n",
                    0755);
            EXPECT_TRUE(log.empty());
            EXPECT_FALSE(test::perform(limited, "ExecuteUtility", Array{"/", "diskutil"}, nullptr));
        }
        EXPECT_EQ(log,
                  "Processes that '/usr/sbin/diskutil' left behind still write after 3 seconds. "
                  "Their further output is discarded.");
    });
}

TEST_F(UtilityOperationsTest, RunsOneUtilityAtATime) {
    withOwn({"/usr/sbin", "/tmp"}, [this] {
        putFile("/usr/sbin/diskutil",
                "#!/bin/sh\n/bin/mkdir /tmp/busy || exit 9\n/bin/sleep 0.1\n/bin/rmdir /tmp/busy\n",
                0755);
        std::thread clients[4];
        for (std::thread& client : clients)
            client = std::thread([this] {
                Feedback own;
                EXPECT_FALSE(request({"/", "diskutil"}, &own)) << own.error;
            });
        for (std::thread& client : clients)
            client.join();
    });
}

}  // namespace
}  // namespace corvalen
