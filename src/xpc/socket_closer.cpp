// SPDX-License-Identifier: MIT
#include "xpc/socket_closer.hpp"

#include <sched.h>

#include <chrono>
#include <mutex>
#include <semaphore>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace corvalen {

namespace {

// Batches a flood of sockets: a round closes all that arrived since the last one.
constexpr std::chrono::milliseconds kPauseBetweenRounds{5};

using Sockets = std::vector<UniqueFd>;

/// Never destroyed: its thread may outlive static objects.
struct Closer {
    std::mutex mutex;
    Sockets waiting;
    bool running = false;
};

Closer& closer() {
    static Closer& one = *new Closer;
    return one;
}

/// An exiting thread holds the last references, so the close(2) here is never the last one. The
/// kernel does not let an exiting task linger (PF_EXITING in inet_release()).
void closeWithoutLingering(Sockets& sockets) {
    std::binary_semaphore referenced(0);
    std::binary_semaphore closed(0);
    std::thread holder([&] {
        (void)::unshare(CLONE_FILES);
        referenced.release();
        closed.acquire();
    });
    referenced.acquire();
    sockets.clear();
    closed.release();
    holder.join();
}

void closeInRounds(Closer& shared) {
    for (;;) {
        Sockets round;
        {
            const std::lock_guard lock(shared.mutex);
            shared.running = !shared.waiting.empty();
            if (!shared.running) return;
            round.swap(shared.waiting);
        }
        try {
            closeWithoutLingering(round);
        } catch (const std::system_error&) {
            // No second thread: this one closes the sockets, which may block.
        }
        round.clear();
        std::this_thread::sleep_for(kPauseBetweenRounds);
    }
}

}  // namespace

void closeElsewhere(UniqueFd socket) noexcept {
    if (!socket) return;
    Closer& shared = closer();
    const std::lock_guard lock(shared.mutex);
    try {
        shared.waiting.push_back(std::move(socket));
        if (shared.running) return;
        std::thread([&shared] { closeInRounds(shared); }).detach();
        shared.running = true;
    } catch (...) {
        // Without memory the socket stays open; without a thread it waits for the next call.
        (void)socket.release();
    }
}

}  // namespace corvalen
