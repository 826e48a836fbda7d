// SPDX-License-Identifier: MIT
// Shared by the fuzzers. A failed check aborts, which libFuzzer reports as a finding.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "support/scratch_folder.hpp"
#include "xpc/socket_io.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace corvalen::fuzz {

inline void require(bool condition) {
    if (!condition) std::abort();
}

/// An input, consumed from the front; reads as zeros after its end.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : _rest(reinterpret_cast<const char*>(data), size) {}

    [[nodiscard]] bool empty() const { return _rest.empty(); }
    [[nodiscard]] unsigned byte() {
        const std::string_view taken = bytes(1);
        return taken.empty() ? 0 : static_cast<unsigned char>(taken[0]);
    }
    [[nodiscard]] std::string_view bytes(std::size_t size) {
        const std::string_view taken = _rest.substr(0, size);
        _rest.remove_prefix(taken.size());
        return taken;
    }
    /// Returns the bytes up to `end`, and consumes `end` too.
    [[nodiscard]] std::string_view until(char end) {
        const std::string_view taken = bytes(_rest.find(end));
        (void)bytes(1);
        return taken;
    }
    [[nodiscard]] std::string_view rest() { return bytes(_rest.size()); }

  private:
    std::string_view _rest;
};

/// Waits until `condition` holds; aborts after 20 seconds.
template <class Condition>
void requireSoon(const Condition& condition) {
    for (const auto end = Clock::now() + std::chrono::seconds(20); !condition();) {
        require(Clock::now() < end);
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

/// Number of open descriptors below 256, which an input cannot exceed.
inline int openDescriptors() {
    constexpr int kMost = 256;
    int count = 0;
    for (int descriptor = 0; descriptor < kMost; ++descriptor)
        count += ::fcntl(descriptor, F_GETFD) >= 0;
    return count;
}

/// The descriptors and threads of this process at one moment; an input must leave as many.
class Surroundings {
  public:
    // Threads are the links of their directory (proc(5)). The leak detector overlooks what a
    // starting thread owns, so the threads of an input must have ended when it looks.
    void requireRestored() const {
        requireSoon([&] { return openDescriptors() == _descriptors; });
        requireSoon([&] { return runningThreads() == _threads; });
    }

  private:
    static nlink_t runningThreads() {
        struct stat directory {};
        require(::stat("/proc/self/task", &directory) == 0);
        return directory.st_nlink;
    }

    int _descriptors = openDescriptors();
    nlink_t _threads = runningThreads();
};

inline constexpr unsigned kStreamHalf = 2;

/// A descriptor of a kind that an untrusted peer may send.
inline UniqueFd someDescriptor(unsigned kind) {
    switch (kind % 4) {
        case 0:
            return UniqueFd(::memfd_create("input", MFD_CLOEXEC));
        case 1:
            return std::move(makeSocketPair(SOCK_SEQPACKET).first);
        case kStreamHalf:
            return std::move(makeSocketPair(SOCK_STREAM).first);
        default:
            return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
}

/// Sends without blocking, with at most four descriptors. Returns false if nothing was sent.
inline bool sendWith(Descriptor socket, std::string_view bytes,
                     std::initializer_list<Descriptor> descriptors) {
    return sendSome(socket, bytes, descriptors).has_value();
}

}  // namespace corvalen::fuzz
