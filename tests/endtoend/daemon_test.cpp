// SPDX-License-Identifier: MIT
// The daemon started by hand, without a log, and with clients that die.
#include <fcntl.h>

#include <cstdlib>
#include <fstream>

#include "daemon_fixture.hpp"
#include "support/child.hpp"

namespace corvalen::test {
namespace {

using ::testing::HasSubstr;

TEST_F(DaemonTest, StartedByHandItMakesItsSocketAndRemovesItWhenItIsStopped) {
    EXPECT_EQ(std::system((kProgram + " version | grep -qx '1.4 (Build 141112)'").c_str()), 0);
    activator.reset();  // leaves a stale socket
    Child daemon(0, [&] {
        ::dup2(::open(scratch.path("log").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        ::signal(SIGCHLD, SIG_IGN);  // some parents do
        return ::execl(kProgram.c_str(), "helper", nullptr) == 0;
    });
    EXPECT_TRUE(eventually([] {
        const auto client = Client::connect();
        return client && client->version() == "1.4";
    }));
    EXPECT_TRUE(
        Client::connect()->perform("execute-utility", {"/", "chmod", "--help"}).succeeded());
    EXPECT_EQ(daemon.end(SIGTERM), 0);
    EXPECT_THAT(logText(), HasSubstr("Privileged helper is shutting down."));
    EXPECT_FALSE(std::filesystem::exists(kServiceSocketPath));
}

TEST_F(DaemonTest, AbortsWithoutJournalSyslogAndStandardError) {
    for (const bool hasErrors : {true, false}) {
        Child daemon(0, [&] {
            if (!hasErrors) ::close(STDERR_FILENO);
            return ::execl(kProgram.c_str(), "helper", nullptr) == 0;
        });
        // With standard error it only fails to bind the socket, which the activator has bound.
        const int status = daemon.wait();
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, hasErrors ? 0 : SIGABRT);
    }
}

TEST_F(DaemonTest, AClientThatDiesInTheMiddleLeavesNothing) {
    for (int i = 0; i < 200; ++i)
        std::ofstream(scratch.path(std::to_string(i) + ".log"));
    const auto keeper = Client::connect();
    ASSERT_EQ(keeper->version(), "1.4");
    const auto threads = countOf("task"), descriptors = countOf("fd");
    for (int i = 0; i < 20; ++i) {
        Child dying(0, [&] {
            Client::connect()->perform("search-patterns", {scratch.path(), "0", "2", "log"},
                                       [i](const Dictionary& message) {
                                           if (i % 2 == 0 || message.size() == 2) ::_exit(0);
                                       });
            return false;
        });
        EXPECT_EQ(dying.wait(), 0);
    }
    EXPECT_TRUE(keeper->perform("nop", {}).succeeded());
    EXPECT_TRUE(
        eventually([&] { return countOf("task") == threads && countOf("fd") == descriptors; }));
    EXPECT_EQ(activator->starts(), 1);
}

}  // namespace
}  // namespace corvalen::test
