// SPDX-License-Identifier: MIT
// The service socket, the identity of a peer, the log, and the mask and capabilities of a thread.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/authorization/identity.hpp"
#include "platform/log/logs.hpp"
#include "platform/processes/processes.hpp"
#include "platform/processes/threads.hpp"
#include "support/child.hpp"
#include "support/golden.hpp"
#include "support/own_mounts.hpp"
#include "support/unix_socket.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using test::connectedSocket;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class ServiceSocket : public testing::Test {
  protected:
    [[nodiscard]] std::int64_t failureAt(const std::string& path) const {
        const Result<UniqueFd> socket = takeServiceSocket("service", path).socket;
        return socket ? 0 : makePosixError(socket.error().number)->code();
    }

    test::ScratchFolder _folder;
    std::string _base = _folder.path();
    std::string _path = _folder.path("service.sock");
};

TEST_F(ServiceSocket, IsMadeForEverybodyAndReplacesOnlyAStaleOne) {
    const mode_t before = ::umask(0077);
    {
        const UniqueFd first = takeServiceSocket("service", _path).socket.value();
        struct stat status {};
        ASSERT_EQ(::stat(_path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFSOCK | 0666U);
        EXPECT_EQ(failureAt(_path), 48) << "a live one";
        EXPECT_TRUE(connectedSocket(_path));
        // A live one whose backlog is full.
        ASSERT_EQ(::listen(first.get(), 0), 0);
        EXPECT_EQ(failureAt(_path), 48) << "a full one";
        EXPECT_TRUE(fs::exists(_path));
    }
    EXPECT_FALSE(connectedSocket(_path));
    EXPECT_EQ(failureAt(_path), 0) << "a stale one";
    fs::remove(_path);
    std::ofstream(_path) << "precious";
    EXPECT_EQ(failureAt(_path), EEXIST) << "a file";
    EXPECT_EQ(fs::file_size(_path), 8U);
    EXPECT_EQ(failureAt(_base + "/none/x"), ENOENT);

    const std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
    std::string path = _base + "/";
    path.append(longest - path.size(), 'x');
    EXPECT_EQ(failureAt(path), 0);
    EXPECT_EQ(failureAt(path + "x"), 63);
    EXPECT_EQ(::umask(before), 0077U);
}

TEST_F(ServiceSocket, IsTheOneThatTheServiceManagerPassed) {
    // The names, their number, and other circumstances; two sockets are passed as 4 and 5.
    const auto take = [this](const std::string& row) {
        std::istringstream words(row);
        std::string names, count, other;
        words >> names >> count >> other;
        const auto listening = [this](const char* name) {
            const UniqueFd socket = takeServiceSocket("service", _folder.path(name)).socket.value();
            return UniqueFd(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 100));
        };
        const UniqueFd one = listening("one"), two = listening("two");
        const UniqueFd idle(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const UniqueFd packets = test::boundSocket(_folder.path("packets"), SOCK_SEQPACKET);
        ::listen(packets.get(), 1);
        const std::map<std::string, int> third = {
            {"3-listens", one.get()}, {"3-is-idle", idle.get()}, {"3-has-packets", packets.get()}};
        ::dup2(third.contains(other) ? third.at(other) : 0, 3);
        ::dup2(one.get(), 4);
        ::dup2(two.get(), 5);
        ::setenv("LISTEN_PID", std::to_string(::getpid() + (other == "to-another")).c_str(), 1);
        ::setenv("LISTEN_FDS", count.c_str(), 1);
        if (names != "-") ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
        const auto [socket, madeHere, remarks] = takeServiceSocket("service", _path);
        EXPECT_EQ(fs::exists(_path), madeHere);
        EXPECT_EQ(::fcntl(socket->get(), F_GETFD), FD_CLOEXEC);
        for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
            EXPECT_EQ(::getenv(variable), nullptr);
        for (const char* name : {"service.sock", "one", "two", "packets"})
            fs::remove(_folder.path(name));
        std::string text = madeHere ? "a new one" : std::to_string(socket->get());
        for (const std::string& remark : remarks)
            text += " " + remark;
        return text;
    };
    test::withOwn({}, [&] { test::expectRows("passed_sockets.txt", {{"passed", take}}); });
}

TEST(PeerIdentity, NamesTheProcessThatConnectedAndKnowsWhenItHasGone) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd ends[] = {UniqueFd(pair[0]), UniqueFd(pair[1])};
    const PeerIdentity self = peerIdentityOfSocket(ends[0]);
    EXPECT_EQ(self.pid, ::getpid());
    EXPECT_EQ(self.uid, ::geteuid());
    EXPECT_EQ(self.gid, ::getegid());
    EXPECT_EQ(self.startTime, processStartTime(::getpid()));
    EXPECT_GT(self.startTime, 0U);
    EXPECT_TRUE(self.isAlive());

    // A peer whose name looks like fields of its stat file, and that ends.
    const test::ScratchFolder folder;
    const UniqueFd listening = takeServiceSocket("service", folder.path("s")).socket.value();
    test::Child child(::geteuid(), [&] {
        std::ofstream("/proc/self/comm") << ") R 1 2 3 4 5";
        char byte = 0;
        const UniqueFd connection = connectedSocket(folder.path("s"));
        return connection && ::read(connection.get(), &byte, 1) == 0;
    });
    const pid_t pid = child.pid();
    const UniqueFd connection(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const PeerIdentity peer = peerIdentityOfSocket(connection);
    EXPECT_EQ(peer.pid, pid);
    EXPECT_GE(peer.startTime, self.startTime);
    EXPECT_LT(peer.startTime, self.startTime + 360000);
    EXPECT_TRUE(peer.isAlive());
    ::shutdown(connection.get(), SHUT_WR);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(peer.isAlive());
    EXPECT_EQ(processStartTime(pid), 0U);
    EXPECT_EQ(peerIdentityOfSocket(connection).startTime, 0U) << "found out too late";

    PeerIdentity other = self;
    other.processDescriptor = nullptr;
    EXPECT_TRUE(other.isAlive());
    ++other.startTime;
    EXPECT_FALSE(other.isAlive()) << "another process with the same pid";
    EXPECT_EQ(peerIdentityOfSocket(kStandardInput).pid, 0) << "no socket";
}

constexpr int kDatagrams = SOCK_DGRAM | SOCK_NONBLOCK;
constexpr const char* kIdent = "net.corvalen.test";

std::string received(const UniqueFd& from) {
    std::string bytes(65536, '\0');
    const ssize_t count = ::read(from.get(), bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

TEST(SystemLog, UsesTheFirstDestinationThatAcceptsIt) {
    test::withOwn({"/run", "/dev"}, [] {
        // A stale socket, on which nobody listens.
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

TEST(ThreadCapabilities, AreInEffectOnlyWhileAnOperationNeedsThem) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to have capabilities";
    const test::ScratchFolder folder;
    const std::string file = test::putFile(folder.path("theirs/file"), "text");
    ASSERT_TRUE(test::shell("cd '" + folder.path() +
                            "' && chown -R nobody: theirs && "
                            "chmod 700 theirs theirs/file"));
    std::ofstream story(folder.path("story"));
    const auto note = [&](const char* when) {
        const auto may = [&file](int flags) {
            return static_cast<bool>(UniqueFd(::open(file.c_str(), flags | O_CLOEXEC)));
        };
        story << when << (may(O_RDONLY) ? " reads" : "") << (may(O_WRONLY) ? " writes" : "")
              << std::endl;
    };
    test::Child helper(0, [&] {
        const std::vector<gid_t> own = {7, 9};
        if (::setgroups(own.size(), own.data()) != 0 || !dropThreadCapabilities()) return false;
        note("nothing");
        {
            const ScopedCapabilities search(capability::kReadAnything);
            note("a search");
            std::thread(note, "its thread").join();
        }
        note("nothing");
        {
            const ScopedCapabilities edit(capability::kChangeAnything);
            note("a change");
        }
        note("nothing");
        {
            const ScopedCapabilities become(capability::kBecomeUser);
            {
                const ScopedFileSystemUser asUser(*userAccountNamed("nobody"));
                note(asUser ? "the user" : "");
            }
            // Going back to user 0 would bring every capability for files into effect.
            note("nothing");
        }
        std::vector<gid_t> groups(own.size());
        // Serving a request needs no capability.
        return processStartTime(1) > 0 && ::getgroups(2, groups.data()) == 2 && groups == own;
    });
    EXPECT_EQ(helper.wait(), 0);
    EXPECT_EQ(test::textOf(folder.path("story")),
              "nothing\na search reads\nits thread reads\nnothing\na change reads writes\n"
              "nothing\nthe user reads writes\nnothing\n");
}

}  // namespace
}  // namespace corvalen
