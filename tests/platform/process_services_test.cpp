// SPDX-License-Identifier: MIT
// The service socket, the identity of a peer and the mask of a thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/peer_identity.hpp"
#include "platform/service_manager.hpp"
#include "platform/thread_umask.hpp"
#include "support/child.hpp"
#include "support/own_mounts.hpp"
#include "support/scratch_folder.hpp"
#include "support/unix_socket.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using test::connectedSocket;

class ServiceSocket : public testing::Test {
  protected:
    [[nodiscard]] std::int64_t failureAt(const std::string& path) const {
        ErrorRef error;
        const UniqueFd socket = takeServiceSocket("service", path, &error).socket;
        EXPECT_EQ(socket.get() < 0, error != nullptr);
        return error ? error->code() : 0;
    }

    test::ScratchFolder _folder;
    std::string _base = _folder.path();
    std::string _path = _folder.path("service.sock");
};

TEST_F(ServiceSocket, IsMadeForEverybodyAndReplacesOnlyAStaleOne) {
    const ScopedUmask mask(0077);
    {
        const UniqueFd first = takeServiceSocket("service", _path).socket;
        ASSERT_TRUE(first);
        struct stat status {};
        ASSERT_EQ(::stat(_path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFSOCK | 0666U);
        EXPECT_EQ(failureAt(_path), 48) << "a live one";
        EXPECT_TRUE(connectedSocket(_path));
        // A live one that is too busy to take another client.
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
}

TEST_F(ServiceSocket, IsTheOneThatTheServiceManagerPassed) {
    const struct {
        const char* names;
        const char* count;
        bool forThisProcess;
        int taken;  // when that descriptor is the one, 0 for a socket of its own
        std::size_t remarks;
        bool firstListens = false;
    } rows[] = {
        {"other:service:service.socket", "3", true, 4, 2},
        {"other:x:service.socket", "3", true, 5, 2},
        {nullptr, "3", true, 4, 2},  // 3 does not listen
        {"a:b:c", "3", true, 0, 3},
        {"other", "1", true, 3, 0, true},  // a single one needs no name
        {"service", "1", true, 0, 1},
        {"other:service", "3", false, 0, 0},
        {"other:service", "2x", true, 0, 0},
        {"other:service", "1025", true, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        test::withOwn({}, [&] {
            const int one = takeServiceSocket("service", _base + "/one").socket.release();
            const int two = takeServiceSocket("service", _base + "/two").socket.release();
            const int high[] = {::fcntl(one, F_DUPFD, 100), ::fcntl(two, F_DUPFD, 100)};
            ::dup2(row.firstListens ? high[0] : 0, 3);
            ::dup2(high[0], 4);
            ::dup2(high[1], 5);
            ::setenv("LISTEN_PID", std::to_string(::getpid() + !row.forThisProcess).c_str(), 1);
            ::setenv("LISTEN_FDS", row.count, 1);
            if (row.names != nullptr) ::setenv("LISTEN_FDNAMES", row.names, 1);
            const auto [socket, madeHere, remarks] = takeServiceSocket("service", _path);
            ASSERT_TRUE(socket);
            EXPECT_EQ(madeHere, row.taken == 0);
            EXPECT_EQ(remarks.size(), row.remarks);
            EXPECT_EQ(fs::exists(_path), row.taken == 0);
            EXPECT_TRUE(row.taken == 0 || socket.get() == row.taken);
            EXPECT_EQ(::fcntl(socket.get(), F_GETFD), FD_CLOEXEC);
            for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
                EXPECT_EQ(::getenv(variable), nullptr);
        });
        for (const std::string& path : {_path, _base + "/one", _base + "/two"})
            fs::remove(path);
    }
}

TEST(PeerIdentity, NamesTheProcessThatConnectedAndKnowsWhenItHasGone) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd ends[] = {UniqueFd(pair[0]), UniqueFd(pair[1])};
    const PeerIdentity self = peerIdentityOfSocket(pair[0]);
    EXPECT_EQ(self.pid, ::getpid());
    EXPECT_EQ(self.uid, ::geteuid());
    EXPECT_EQ(self.gid, ::getegid());
    EXPECT_EQ(self.startTime, processStartTime(::getpid()));
    EXPECT_GT(self.startTime, 0U);
    EXPECT_TRUE(self.isAlive());

    // A peer that takes a name made to mislead the reader of its stat file, and ends.
    const test::ScratchFolder folder;
    const UniqueFd listening = takeServiceSocket("service", folder.path("s")).socket;
    test::Child child(::geteuid(), [&] {
        std::ofstream("/proc/self/comm") << ") R 1 2 3 4 5";
        char byte = 0;
        const UniqueFd connection = connectedSocket(folder.path("s"));
        return connection && ::read(connection.get(), &byte, 1) == 0;
    });
    const pid_t pid = child.pid();
    const UniqueFd connection(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const PeerIdentity peer = peerIdentityOfSocket(connection.get());
    EXPECT_EQ(peer.pid, pid);
    EXPECT_GE(peer.startTime, self.startTime);
    EXPECT_LT(peer.startTime, self.startTime + 360000);
    EXPECT_TRUE(peer.isAlive());
    ::shutdown(connection.get(), SHUT_WR);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(peer.isAlive());
    EXPECT_EQ(processStartTime(pid), 0U);
    EXPECT_EQ(peerIdentityOfSocket(connection.get()).startTime, 0U) << "found out too late";

    PeerIdentity other = self;
    other.processDescriptor = nullptr;
    EXPECT_TRUE(other.isAlive());
    ++other.startTime;
    EXPECT_FALSE(other.isAlive()) << "another process with the same pid";
    EXPECT_EQ(peerIdentityOfSocket(STDIN_FILENO).pid, 0) << "no socket";
}

TEST(ThreadUmask, BelongsToTheThreadAndIsPutBack) {
    const mode_t before = ::umask(022);
    std::thread([] {
        if (!separateFileCreationMask()) GTEST_SKIP() << "the kernel refuses";
        {
            const ScopedUmask inner(0177);
            EXPECT_EQ(::umask(0177), 0177U);
        }
        EXPECT_EQ(::umask(077), 022U);
    }).join();
    EXPECT_EQ(::umask(before), 022U);
}

}  // namespace
}  // namespace corvalen
