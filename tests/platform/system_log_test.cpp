// SPDX-License-Identifier: MIT
#include "platform/system_log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>

#include "foundation/descriptor.hpp"
#include "support/own_mounts.hpp"

namespace corvalen {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

constexpr const char* kIdent = "net.corvalen.test";

UniqueFd listenForDatagrams(const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
}

std::string received(const UniqueFd& from) {
    std::string bytes(65536, '\0');
    const ssize_t count = ::read(from.get(), bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

/// Runs the body with an empty /run and /dev.
void withoutLogs(const std::function<void()>& body) {
    test::withOwn({"/run", "/dev"}, body);
}

TEST(SystemLog, WritesFieldsToTheJournal) {
    withoutLogs([] {
        for (const char* folder : {"/run/systemd", "/run/systemd/journal"}) {
            ::mkdir(folder, 0755);
        }
        const UniqueFd journal = listenForDatagrams("/run/systemd/journal/socket");
        const UniqueFd syslog = listenForDatagrams("/dev/log");
        const auto log = openSystemLog(kIdent, "Daemon", "sender\nX=1");
        ASSERT_EQ(log->destination(), "journal");
        log->log(LogLevel::error, "100%s\nPRIORITY=0",
                 {{"CLIENT_UID", "7\n_UID=0"}, {"_PID", "1"}, {"bad", "1"}, {"A=B", "1"}});
        EXPECT_EQ(received(journal),
                  "MESSAGE=100%s\\x0aPRIORITY=0\nPRIORITY=3\nCLIENT_UID=7\\x0a_UID=0\n"
                  "SYSLOG_IDENTIFIER=net.corvalen.test\nSYSLOG_FACILITY=3\n"
                  "SENDER=sender\\x0aX=1\n");
        log->log(LogLevel::debug, std::string(16384, 'a'));
        EXPECT_THAT(received(journal), HasSubstr("aa\nPRIORITY=7"));
        log->log(LogLevel::debug, std::string(16385, 'a'));
        EXPECT_THAT(received(journal), HasSubstr("aa...\nPRIORITY=7"));
        EXPECT_EQ(received(syslog), "");
    });
}

TEST(SystemLog, FallsBackToSyslog) {
    withoutLogs([] {
        const UniqueFd syslog = listenForDatagrams("/dev/log");
        const auto log = openSystemLog(kIdent, "Daemon", "sender");
        ASSERT_EQ(log->destination(), "syslog");
        log->log(LogLevel::informational, "a\x1B[31m %n");
        const std::string line = received(syslog);
        EXPECT_EQ(line.rfind("<30>", 0), 0U) << line;  // daemon, informational
        EXPECT_THAT(line, HasSubstr(kIdent));
        EXPECT_THAT(line, EndsWith("]: a\\x1b[31m %n"));
    });
}

TEST(SystemLog, FallsBackToStandardErrorWhenNobodyListens) {
    withoutLogs([] {
        // A socket that its owner has left behind.
        listenForDatagrams("/dev/log");
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        const UniqueFd output(ends[0]);
        ::dup2(ends[1], STDERR_FILENO);
        const auto log = openSystemLog(kIdent, "Daemon", "sender");
        ASSERT_EQ(log->destination(), "standard error");
        log->log(LogLevel::error, "one\ntwo", {{"CODE", "3"}});
        EXPECT_EQ(received(output), "net.corvalen.test: one\\x0atwo\n");
        consoleLog("three\n");
        EXPECT_EQ(received(output), "test_platform: three\n");
        ::close(STDERR_FILENO);
        EXPECT_EQ(openSystemLog(kIdent, "Daemon", "sender"), nullptr);
    });
}

TEST(SystemLog, EscapesWhatCouldSteerATerminal) {
    EXPECT_EQ(escapedForLog("\xC3\xBC \t\x7F\xC2\x9B\xFF\xE2\x82"),
              "\xC3\xBC \\x09\\x7f\\xc2\\x9b\\xff\\xe2\\x82");
    EXPECT_EQ(escapedForLog(std::string_view("\0a", 2)), "\\x00a");
}

}  // namespace
}  // namespace corvalen
