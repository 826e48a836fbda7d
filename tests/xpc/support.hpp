// SPDX-License-Identifier: MIT
// Shared by the tests of connections: raw peers, and leak checks.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "corvalen/error.hpp"
#include "support/eventually.hpp"
#include "support/open_descriptors.hpp"
#include "xpc/connection.hpp"
#include "xpc/messages.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen::test {

using namespace std::chrono_literals;

/// Fails a test that leaks descriptors or threads.
class NothingLeftBehind : public ::testing::Test {
  protected:
    NothingLeftBehind() {
        // A sanitizer may keep a thread from the first one on.
        std::thread([] {}).join();
        _threads = runningThreads();
    }
    void TearDown() override {
        EXPECT_TRUE(eventually([this] { return runningThreads() <= _threads; }));
        EXPECT_TRUE(eventually([this] { return openDescriptors() <= _descriptors; }));
    }

  private:
    std::ptrdiff_t _descriptors = openDescriptors();
    std::ptrdiff_t _threads = 0;
};

/// The other side of a connection, without the product's code.
class RawPeer {
  public:
    explicit RawPeer(UniqueFd socket) : _socket(std::move(socket)) {}

    [[nodiscard]] int fd() const { return _socket.get(); }
    void close() { _socket.reset(); }
    /// Sends the bytes, with the descriptors at the first one.
    void send(std::string_view data, const std::vector<int>& descriptors = {}) const {
        const std::size_t size = descriptors.size() * sizeof(int);
        std::vector<char> control(CMSG_SPACE(size));
        iovec part{const_cast<char*>(data.data()), data.size()};
        msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
        auto* header = reinterpret_cast<cmsghdr*>(control.data());
        *header = {CMSG_LEN(size), SOL_SOCKET, SCM_RIGHTS};
        if (size > 0) std::memcpy(CMSG_DATA(header), descriptors.data(), size);
        if (size == 0) message.msg_controllen = 0;
        (void)::sendmsg(fd(), &message, MSG_NOSIGNAL);
    }
    /// Returns this many bytes, or fewer at the end of the connection or a timeout.
    [[nodiscard]] std::string receive(std::size_t size) const {
        const timeval patience{10, 0};
        ::setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::string result(size, '\0');
        const ssize_t got = ::recv(fd(), result.data(), size, MSG_WAITALL);
        result.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return result;
    }
    [[nodiscard]] bool readable(std::chrono::milliseconds time) const {
        return waitFor(_socket, POLLIN, Clock::now() + time);
    }
    /// Whether the other side closes within the time; skips what it sends before.
    [[nodiscard]] bool closedWithin(std::chrono::milliseconds time = 10s) const {
        for (const auto end = Clock::now() + time; Clock::now() < end;) {
            char byte = 0;
            const ssize_t got = readable(10ms) ? ::recv(fd(), &byte, 1, MSG_DONTWAIT) : 1;
            if (got == 0 || (got < 0 && errno != EAGAIN)) return true;
        }
        return false;
    }

  private:
    UniqueFd _socket;
};

using MessageHandler = std::function<CallResult(Connection&, Array)>;

struct TestObject : ExportedObject {
    explicit TestObject(MessageHandler by) : handler(std::move(by)) {}
    CallResult handleMessage(Connection& connection, std::string_view, Array params) override {
        return handler(connection, std::move(params));
    }
    MessageHandler handler;
};

inline constexpr InterfaceMethod kTestMethods[] = {{"ask:", true}, {"tell:", false}};
inline constexpr Interface kTestInterface{"TestProtocol", kTestMethods};

inline CallResult echo(Connection&, Array params) {
    return CallResult{Value(std::move(params)), {}};
}
inline const std::string kAsk = bytes("94 00 09 a4 'ask:' 90");
inline const std::string kTell = bytes("93 02 a5 'tell:' 90");
inline const std::string kEcho = bytes("94 01 09 c0 90");

inline bool isInvalid(const ErrorRef& error) {
    return error && error->domain() == kCocoaErrorDomain &&
           error->code() == cocoa::kConnectionInvalid;
}

inline void exportAndResume(Connection& connection, MessageHandler handler) {
    connection.setExportedInterface(kTestInterface,
                                    std::make_shared<TestObject>(std::move(handler)));
    connection.resume();
}

}  // namespace corvalen::test
