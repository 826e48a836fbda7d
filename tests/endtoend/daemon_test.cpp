// SPDX-License-Identifier: MIT
// The daemon started by hand, without a log, and with clients that die.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "daemon_fixture.hpp"
#include "support/child.hpp"
#include "support/open_descriptors.hpp"
#include "support/unix_socket.hpp"

namespace corvalen::test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

TEST_F(DaemonTest, StartedByHandItMakesItsSocketAndRemovesItAtItsEnd) {
    EXPECT_EQ(std::system((kProgram + " version | grep -qx '1.4 (Build 141112)'").c_str()), 0);
    activator.reset();  // leaves a stale socket
    const std::string app = scratch.path("Tool.app");
    putFile(app + "/Contents/Info.plist", "{ CFBundleExecutable = Tool; }");
    putFile(app + "/Contents/MacOS/Tool", "", 0755);
    putFile(app + "/Contents/MacOS/lipo",
            "#!/bin/sh\nulimit -Sn\numask\npwd\ngrep SigBlk /proc/self/status\n"
            "readlink /proc/$PPID/fd/0\n",
            0755);
    for (const std::string end :
         {"Privileged helper is shutting down.", "Terminating privileged"}) {
        const UniqueFd manager = boundSocket(scratch.path(end), SOCK_DGRAM);
        Child daemon(0, [&] {
            ::dup2(::open(scratch.path("log").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
            ::signal(SIGCHLD, SIG_IGN);  // some parents do
            ::close(STDIN_FILENO);
            ::umask(077);
            rlimit descriptors{};
            ::getrlimit(RLIMIT_NOFILE, &descriptors);
            descriptors.rlim_cur = 256;
            ::setrlimit(RLIMIT_NOFILE, &descriptors);
            ::setenv("NOTIFY_SOCKET", scratch.path(end).c_str(), 1);
            ::setenv("TSAN_OPTIONS", "report_thread_leaks=0", 0);  // see activator.cpp
            return ::execl(kProgram.c_str(), "helper", nullptr) == 0;
        });
        std::unique_ptr<Client> client;
        EXPECT_TRUE(eventually([&client] {
            client = Client::connect();
            return client && client->version() == "1.4";
        }));
        std::string surroundings;
        const auto append = [&surroundings](const Dictionary& message) {
            if (const Value* data = message.find(kQRLPORK_OutputData))
                surroundings += data->data()->view();
        };
        EXPECT_TRUE(client->perform("execute-utility", {app, "lipo"}, append).succeeded());
        EXPECT_EQ(surroundings, "256\n0022\n/\nSigBlk:\t0000000000000000\n/dev/null\n");
        rlimit limit{};
        EXPECT_EQ(::prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
        EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
        if (end[0] == 'P') {
            EXPECT_EQ(daemon.end(SIGTERM), 0);
        } else {
            EXPECT_TRUE(client->registerClient() && client->unregisterClient());
            EXPECT_EQ(daemon.wait(), 0);
        }
        EXPECT_THAT(logText(), HasSubstr(end));
        EXPECT_FALSE(std::filesystem::exists(kServiceSocketPath));
        std::string states;
        std::array<char, 256> state{};
        while (::recv(manager.get(), state.data(), state.size() - 1, MSG_DONTWAIT) > 0)
            states.append(std::exchange(state, {}).data()).append("\n");
        EXPECT_THAT(states,
                    MatchesRegex("STATUS=Authorization is decided by .*\nREADY=1\nSTOPPING=1\n"));
    }
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

TEST_F(DaemonTest, EveryFindArrivesBeforeItEnds) {
    constexpr std::size_t kFiles = 5000;  // many messages wait for the next one
    ASSERT_TRUE(shell("mkdir /run/t && cd /run/t && seq -f found%.0f " + std::to_string(kFiles) +
                      " | xargs touch"));
    const auto client = Client::connect();
    EXPECT_TRUE(client->registerClient());
    bool leaves = false;
    std::size_t found = 0;
    const auto count = [&](const Dictionary& message) {
        // The end that is requested now waits for the search.
        if (!std::exchange(leaves, true)) {
            EXPECT_TRUE(Client::connect()->unregisterClient());
        }
        if (const Value* records = message.find(kQRLPORK_FileObjectInfo))
            found += records->array()->size();
    };
    const Array pattern{"/run/t", "0", "1", "found"};
    EXPECT_TRUE(client->perform("search-patterns", pattern, count).succeeded());
    EXPECT_EQ(found, kFiles);
    EXPECT_TRUE(eventually([this] { return activator->ends() == 1; }));
}

TEST_F(DaemonTest, AClientThatDiesInTheMiddleLeavesNothing) {
    for (int i = 0; i < 200; ++i)
        std::ofstream(scratch.path(std::to_string(i) + ".log"));
    const auto keeper = Client::connect();
    ASSERT_EQ(keeper->version(), "1.4");
    const auto threads = runningThreads(proc()), descriptors = openDescriptors(proc());
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
    EXPECT_TRUE(eventually([&] {
        return runningThreads(proc()) == threads && openDescriptors(proc()) == descriptors;
    }));
    EXPECT_EQ(activator->starts(), 1);
    // Nanoseconds of the main thread, which waits.
    const auto processorTime = [this] { return std::stoll(textOf(proc() / "schedstat")); };
    const long long before = processorTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(processorTime() - before, 50'000'000);
}

}  // namespace
}  // namespace corvalen::test
