// SPDX-License-Identifier: MIT
// What the tests of connections share: bytes by hand, raw peers, and counting what is left behind.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "xpc/connection.hpp"
#include "xpc/interface.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen::test {

using namespace std::chrono_literals;

/// Bytes from hexadecimal digits; what stands in quotes is text.
inline std::string bytes(std::string_view notation) {
    std::string result;
    std::string digits;
    bool text = false;
    for (const char c : notation) {
        if (c == '\'') {
            text = !text;
        } else if (text) {
            result += c;
        } else if (c != ' ') {
            digits += c;
            if (digits.size() < 2) continue;
            result += static_cast<char>(std::stoi(digits, nullptr, 16));
            digits.clear();
        }
    }
    return result;
}

inline std::ptrdiff_t entriesOf(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}
inline std::ptrdiff_t openDescriptors() {
    return entriesOf("/proc/self/fd");
}
inline std::ptrdiff_t runningThreads() {
    return entriesOf("/proc/self/task");
}

/// Whether something that another thread brings about comes true in time.
inline bool eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

/// Fails the test when descriptors or threads are left at its end.
class NothingLeftBehind : public ::testing::Test {
  protected:
    NothingLeftBehind() {
        // A sanitizer may keep a thread of its own from the first one on.
        std::thread([] {}).join();
        _threads = runningThreads();
    }
    void TearDown() override {
        EXPECT_TRUE(eventually([this] { return runningThreads() <= _threads; }));
        EXPECT_TRUE(eventually([this] { return openDescriptors() <= _descriptors; }))
            << openDescriptors() << " descriptors, at the beginning " << _descriptors;
    }

  private:
    std::ptrdiff_t _descriptors = openDescriptors();
    std::ptrdiff_t _threads = 0;
};

/// The other side of a connection, without any of our code.
class RawPeer {
  public:
    explicit RawPeer(UniqueFd socket) : _socket(std::move(socket)) {}

    [[nodiscard]] int fd() const { return _socket.get(); }
    void close() { _socket.reset(); }
    void send(std::string_view data, const std::vector<int>& descriptors = {}) const {
        std::span<const int> attached = descriptors;
        std::vector<char> control(descriptors.empty() ? 0 : CMSG_SPACE(attached.size_bytes()));
        while (!data.empty()) {
            iovec part{const_cast<char*>(data.data()), data.size()};
            msghdr message{};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            if (!attached.empty()) {
                message.msg_control = control.data();
                message.msg_controllen = control.size();
                cmsghdr* header = CMSG_FIRSTHDR(&message);
                header->cmsg_level = SOL_SOCKET;
                header->cmsg_type = SCM_RIGHTS;
                header->cmsg_len = CMSG_LEN(attached.size_bytes());
                std::copy(attached.begin(), attached.end(),
                          reinterpret_cast<int*>(CMSG_DATA(header)));
            }
            const ssize_t sent = ::sendmsg(fd(), &message, MSG_NOSIGNAL);
            if (sent < 0) return;
            data.remove_prefix(static_cast<std::size_t>(sent));
            attached = {};
        }
    }
    /// Exactly that many bytes, fewer when the connection ends or nothing comes in time.
    [[nodiscard]] std::string receive(std::size_t size) const {
        std::string result;
        while (result.size() < size && readable(10s)) {
            std::string piece(size - result.size(), '\0');
            const ssize_t got = ::recv(fd(), piece.data(), piece.size(), 0);
            if (got <= 0) break;
            result.append(piece, 0, static_cast<std::size_t>(got));
        }
        return result;
    }
    [[nodiscard]] bool readable(std::chrono::milliseconds time) const {
        pollfd entry{fd(), POLLIN, 0};
        return ::poll(&entry, 1, static_cast<int>(time.count())) > 0;
    }
    /// Whether the other side has closed; what it sent before is skipped.
    [[nodiscard]] bool closedWithin(std::chrono::milliseconds time) const {
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end) {
            char byte = 0;
            const ssize_t got = readable(10ms) ? ::recv(fd(), &byte, 1, MSG_DONTWAIT) : 1;
            if (got == 0 || (got < 0 && errno != EAGAIN)) return true;
        }
        return false;
    }

  private:
    UniqueFd _socket;
};

using MessageHandler = std::function<CallResult(Connection&, std::string_view, Array)>;

class TestObject : public ExportedObject {
  public:
    explicit TestObject(MessageHandler handler) : _handler(std::move(handler)) {}
    CallResult handleMessage(Connection& connection, std::string_view selector,
                             Array params) override {
        return _handler(connection, selector, std::move(params));
    }

  private:
    MessageHandler _handler;
};

inline constexpr InterfaceMethod kTestMethods[] = {{"ask:", true}, {"tell:", false}};
inline constexpr Interface kTestInterface{"TestProtocol", kTestMethods};

inline CallResult echo(Connection&, std::string_view, Array params) {
    return CallResult{Value(std::move(params)), {}};
}

inline void exportAndResume(Connection& connection, MessageHandler handler) {
    connection.setExportedInterface(kTestInterface,
                                    std::make_shared<TestObject>(std::move(handler)));
    connection.resume();
}

/// Gives the calling thread, and only it, the user `nobody`.
class ScopedNobody {
  public:
    static constexpr uid_t kUser = 65534;
    ScopedNobody() { ::syscall(SYS_setresuid, kUser, kUser, -1); }
    ~ScopedNobody() { ::syscall(SYS_setresuid, 0, 0, -1); }
    ScopedNobody(const ScopedNobody&) = delete;
    ScopedNobody& operator=(const ScopedNobody&) = delete;
};

}  // namespace corvalen::test
