// SPDX-License-Identifier: MIT
// The daemon's life: its start on demand, its clients, its end, its command line.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>

#include "daemon_fixture.hpp"

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
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Client::connectThroughEndpoint(endpoint)->version(), "1.4");
    const auto owner = Client::connect();
    owner->registerClient();
    owner->unregisterClient();
    ASSERT_TRUE(eventually([&] { return activator->ends() == 1; }));
    ErrorRef error;
    EXPECT_TRUE(Client::connectThroughEndpoint(endpoint)->version(&error).empty());
    EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
}

TEST_F(DaemonTest, NothingIsLeftBehindOfManyConnections) {
    const auto keeper = Client::connect();
    ASSERT_EQ(keeper->version(), "1.4");
    const auto threads = countOf("task"), descriptors = countOf("fd");
    for (int i = 0; i < 1000; ++i) {
        const auto client = Client::connect();
        ASSERT_NE(client, nullptr);
        ASSERT_TRUE(i % 2 == 0 || client->perform("nop", {}).succeeded());
    }
    EXPECT_TRUE(
        eventually([&] { return countOf("task") == threads && countOf("fd") == descriptors; }));
    EXPECT_EQ(activator->starts(), 1);
}

/// Runs the program by hand and gives its wait status and what it wrote.
struct Outcome {
    int status = -1;
    std::string output;
};
Outcome runByHand(const ScratchFolder& scratch, std::vector<const char*> arguments,
                  uid_t user = 0) {
    const std::string output = scratch.path("output");
    const pid_t child = ::fork();
    if (child == 0) {
        const int fd = ::open(output.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
        const int program = ::open(kProgram.c_str(), O_RDONLY);
        if (::setresuid(user, user, user) != 0) ::_exit(126);
        arguments.insert(arguments.begin(), "helper");
        arguments.push_back(nullptr);
        ::fexecve(program, const_cast<char**>(arguments.data()), environ);
        ::_exit(127);
    }
    Outcome outcome;
    ::waitpid(child, &outcome.status, 0);
    std::ostringstream text;
    text << std::ifstream(output).rdbuf();
    outcome.output = text.str();
    return outcome;
}

TEST_F(DaemonTest, TheCommandLineIsAnsweredAsAnybody) {
    constexpr int kExitOne = 1 << 8;
    const Outcome version = runByHand(scratch, {"version"}, 65534);
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "1.4 (Build 141112)\n");
    for (const auto& arguments : {std::vector<const char*>{"x"}, {"v", "v"}, {""}}) {
        const Outcome refused = runByHand(scratch, arguments);
        EXPECT_EQ(refused.status, kExitOne);
        EXPECT_EQ(refused.output, "");
    }
    const Outcome user = runByHand(scratch, {}, 65534);
    EXPECT_EQ(user.status, kExitOne);
    EXPECT_THAT(user.output, ::testing::ContainsRegex(
                                 "This program needs root privileges.\n.*Privileged helper is "
                                 "shutting down.\n"));
}

TEST_F(DaemonTest, StartedByHandItMakesItsSocketAndRemovesItWhenItIsStopped) {
    activator.reset();  // its socket stays behind, stale
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open(scratch.path("log").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        ::signal(SIGCHLD, SIG_IGN);  // some starters leave it so
        ::execl(kProgram.c_str(), "helper", nullptr);
        ::_exit(127);
    }
    EXPECT_TRUE(eventually([] {
        const auto client = Client::connect();
        return client && client->version() == "1.4";
    }));
    EXPECT_TRUE(
        Client::connect()->perform("execute-utility", {"/", "chmod", "--help"}).succeeded());
    struct stat attributes {};
    const std::string path(kServiceSocketPath);
    EXPECT_EQ(::stat(path.c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_mode & 07777U, 0666U);
    ::kill(child, SIGTERM);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(logText(), HasSubstr("Privileged helper is shutting down."));
    EXPECT_NE(::stat(path.c_str(), &attributes), 0);
}

}  // namespace
}  // namespace corvalen::test
