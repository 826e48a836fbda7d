// SPDX-License-Identifier: MIT
// The daemon's life: its start on demand, its clients, its end, its command line.
#include <fcntl.h>

#include <cstdlib>

#include "daemon_fixture.hpp"
#include "support/child.hpp"

namespace corvalen::test {
namespace {

using ::testing::HasSubstr;

TEST_F(DaemonTest, StartsOnDemandEndsWithItsLastClientAndStartsAgain) {
    EXPECT_EQ(activator->starts(), 0);
    const auto first = Client::connect(), second = Client::connect();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->version(), "1.4");
    EXPECT_TRUE(first->registerClient(17));
    EXPECT_TRUE(second->registerClient(18));
    EXPECT_TRUE(second->unregisterClient(18));
    EXPECT_EQ(first->version(), "1.4");
    EXPECT_EQ(activator->starts(), 1);
    EXPECT_TRUE(first->unregisterClient(17));
    ASSERT_TRUE(eventually([&] { return activator->ends() == 1; }));
    EXPECT_EQ(activator->lastStatus(), 0);
    for (const char* line : {"Beginning work for client 17.", "1 clients remaining.",
                             "0 clients remaining.", "Terminating privileged helper."})
        EXPECT_THAT(logText(), HasSubstr(line));
    EXPECT_TRUE(second->version().empty());
    EXPECT_EQ(Client::connect()->version(), "1.4");
    EXPECT_EQ(activator->starts(), 2);
}

TEST_F(DaemonTest, AnEndpointOfTheListenerOpensMoreConnections) {
    const EndpointRef endpoint = Client::connect()->helperEndpoint();
    ASSERT_NE(endpoint.descriptor, nullptr);
    EXPECT_EQ(Client::connectThroughEndpoint(endpoint)->version(), "1.4");
    EXPECT_EQ(Client::connectThroughEndpoint(endpoint)->version(), "1.4");
    const auto owner = Client::connect();
    owner->registerClient();
    owner->unregisterClient();
    ASSERT_TRUE(eventually([&] { return activator->ends() == 1; }));
    ErrorRef error;
    EXPECT_TRUE(Client::connectThroughEndpoint(endpoint)->version(&error).empty());
    EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
}

TEST_F(DaemonTest, StartedByHandItMakesItsSocketAndRemovesItWhenItIsStopped) {
    EXPECT_EQ(std::system((kProgram + " version | grep -qx '1.4 (Build 141112)'").c_str()), 0);
    activator.reset();  // its socket stays behind, stale
    Child daemon(0, [&] {
        ::dup2(::open(scratch.path("log").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        ::signal(SIGCHLD, SIG_IGN);  // some starters leave it so
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
        // With standard error it only fails to bind the socket, which the activator holds.
        const int status = daemon.wait();
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, hasErrors ? 0 : SIGABRT);
    }
}

}  // namespace
}  // namespace corvalen::test
