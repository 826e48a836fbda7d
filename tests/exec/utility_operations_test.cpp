// SPDX-License-Identifier: MIT
#include "exec/utility_operations.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "foundation/cancellation.hpp"
#include "operations/names.hpp"
#include "platform/processes/threads.hpp"
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

/// Counts the other threads of this process whose status has the text.
long otherThreads(std::string_view text) {
    const auto tasks = std::filesystem::directory_iterator("/proc/self/task");
    return std::count_if(begin(tasks), end(tasks), [&](const auto& task) {
        return task.path().filename() != std::to_string(::gettid()) &&
               test::textOf(task.path() / "status").find(text) != std::string::npos;
    });
}

TEST_F(UtilityOperationsTest, LogsThatOutputWasCutOff) {
    withOwn({"/usr/sbin"}, [] {
        ASSERT_TRUE(dropThreadCapabilities());
        const ScopedCapabilities capabilities(capability::kSeeProcesses);
        std::string log;
        // Nothing written for a minute; then the total time, which ends between two lines.
        for (const auto& [program, total] :
             {std::pair("0.1 /usr/bin/yes", 60000),
              {"9 /bin/sh -c 'while sleep 0.1; do echo; done'", 2000}}) {
            UtilityOperations limited(std::nullopt, [&](std::string_view line) { log += line; },
                                      {60000, total});
            putFile("/usr/sbin/diskutil",
                    std::string("#!/bin/sh\n/usr/bin/timeout ") + program + " &\n", 0755);
            EXPECT_TRUE(log.empty());
            const auto start = std::chrono::steady_clock::now();
            EXPECT_FALSE(test::perform(limited, "ExecuteUtility", Array{"/", "diskutil"}, nullptr));
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(40));
        }
        EXPECT_EQ(log,
                  "Processes that '/usr/sbin/diskutil' left behind still write after 2 seconds. "
                  "Their further output is discarded.");
        // The thread that reads on gives up the capabilities of the operation.
        EXPECT_TRUE(
            test::eventually([] { return otherThreads("CapEff:\t0000000000000000\n") > 0; }));
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
