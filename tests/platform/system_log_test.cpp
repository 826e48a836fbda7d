// SPDX-License-Identifier: MIT
#include "platform/system_log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "support/own_mounts.hpp"
#include "support/unix_socket.hpp"

namespace corvalen {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kDatagrams = SOCK_DGRAM | SOCK_NONBLOCK;
constexpr const char* kIdent = "net.corvalen.test";

std::string received(const UniqueFd& from) {
    std::string bytes(65536, '\0');
    const ssize_t count = ::read(from.get(), bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

TEST(SystemLog, GoesWhereSomebodyListens) {
    test::withOwn({"/run", "/dev"}, [] {
        // Nobody: a socket that its owner has left behind.
        test::boundSocket("/dev/log", kDatagrams);
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        const UniqueFd output(ends[0]), errors(::dup(STDERR_FILENO));
        ::dup2(ends[1], STDERR_FILENO);
        auto log = openSystemLog(kIdent, "Daemon", "sender");
        EXPECT_EQ(log->destination(), "standard error");
        log->log(LogLevel::error, "one\ntwo", {{"CODE", "3"}});
        EXPECT_EQ(received(output), "<3>net.corvalen.test: one\\x0atwo\n");
        consoleLog("three\n");
        EXPECT_EQ(received(output), "test_platform: three\n");
        ::close(STDERR_FILENO);
        EXPECT_EQ(openSystemLog(kIdent, "Daemon", "sender"), nullptr);
        ::dup2(errors.get(), STDERR_FILENO);

        ::unlink("/dev/log");
        const UniqueFd syslog = test::boundSocket("/dev/log", kDatagrams);
        log = openSystemLog(kIdent, "Daemon", "sender");
        ASSERT_EQ(log->destination(), "syslog");
        log->log(LogLevel::informational, "a\x1B[31m %n");
        // The number says daemon, informational.
        EXPECT_THAT(received(syslog),
                    AllOf(StartsWith("<30>"), HasSubstr(kIdent), EndsWith("]: a\\x1b[31m %n")));

        std::filesystem::create_directories("/run/systemd/journal");
        const UniqueFd journal = test::boundSocket("/run/systemd/journal/socket", kDatagrams);
        log = openSystemLog(kIdent, "Daemon", "sender\nX=1");
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

TEST(SystemLog, EscapesWhatCouldSteerATerminal) {
    EXPECT_EQ(escapedForLog("\xC3\xBC \t\x7F\xC2\x9B\xFF\xE2\x82"),
              "\xC3\xBC \\x09\\x7f\\xc2\\x9b\\xff\\xe2\\x82");
    EXPECT_EQ(escapedForLog(std::string_view("\0a", 2)), "\\x00a");
}

}  // namespace
}  // namespace corvalen
