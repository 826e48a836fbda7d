// SPDX-License-Identifier: MIT
#include "exec/utility_operations.hpp"

#include <unistd.h>

#include <chrono>
#include <thread>

#include "foundation/cancellation.hpp"
#include "operations/names.hpp"
#include "support/golden.hpp"
#include "support/perform.hpp"
#include "support/request_notation.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

using test::putFile;
using test::withOwn;

struct Feedback : FeedbackConnection {
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        const Value* errors = feedback.find(kQRLPORK_ErrorData);
        const Value* outputs = feedback.find(kQRLPORK_OutputData);
        ASSERT_TRUE(feedback.size() == 1 && (errors != nullptr || outputs != nullptr));
        (errors != nullptr ? error : output).append(feedback.begin()->value.data()->view());
    }
    std::string output;
    std::string error;
};

class UtilityOperationsTest : public ::testing::Test {
  protected:
    ErrorRef request(const Array& arguments, FeedbackConnection* connection) {
        return test::perform(operations, "ExecuteUtility", arguments, connection);
    }

    UtilityOperations operations;
};

// "run APPLICATION|UTILITY|ARGUMENT..." shows the error with its suggestion, and the two outputs.
TEST_F(UtilityOperationsTest, RunsWhatIsPermittedAndForwardsTheOutput) {
    withOwn({"/usr/sbin"}, [this] {
        const test::ScratchFolder folder;
        const std::string top = folder.path() + "/";
        const std::string path = ::getenv("PATH");
        ::setenv("LC_ALL", "C", 1);
        ::setenv("PATHS", "kept", 1);
        Feedback feedback;
        const auto run = [&](const std::string& row) {
            feedback = Feedback();
            const auto [name, arguments] =
                test::callOf("ExecuteUtility|" + test::replaced(row, "@", top));
            const ErrorRef error = request(arguments, &feedback);
            std::string text = "= " + testing::summary(error) + "\n";
            EXPECT_EQ(operations.outputConnection() != nullptr, text == "= utility failed\n");
            if (error && error->domain() == kErrorDomain)
                text += "  " + *error->localizedRecoverySuggestion() + "\n";
            text += feedback.output + (feedback.error.empty() ? "" : "! " + feedback.error);
            text = test::replaced(text, "/bin/chmod:", "chmod:");  // says coreutils 9.1
            return test::replaced(text, top, "@");
        };
        test::expectSteps("utilities.txt", folder.path(), {{"run", run}});
        EXPECT_EQ(::getenv("PATH"), path);
    });
}

TEST_F(UtilityOperationsTest, LogsThatOutputWasCutOff) {
    withOwn({"/usr/sbin"}, [] {
        std::string log;
        // Nothing written for a minute, or the total time.
        for (const auto& [seconds, total] : {std::pair("0.1", 60000), {"9", 3000}}) {
            UtilityOperations limited(std::nullopt, [&](std::string_view line) { log += line; },
                                      {60000, total});
            putFile("/usr/sbin/diskutil",
                    std::string("#!/bin/sh\n/usr/bin/timeout ") + seconds + " /usr/bin/yes &\n",
                    0755);
            EXPECT_TRUE(log.empty());
            const auto start = std::chrono::steady_clock::now();
            EXPECT_FALSE(test::perform(limited, "ExecuteUtility", Array{"/", "diskutil"}, nullptr));
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(40));
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
        // None for a client that is gone when its turn comes.
        putFile("/usr/sbin/diskutil", "#!/bin/sh\n/bin/mkdir /tmp/ran\n", 0755);
        Cancellation cancellation;
        cancellation.request();
        const CancellationScope scope(cancellation);
        EXPECT_EQ(testing::summary(request({"/", "diskutil"}, nullptr)), "ECANCELED");
        EXPECT_NE(::access("/tmp/ran", F_OK), 0);
    });
}

}  // namespace
}  // namespace corvalen
