// SPDX-License-Identifier: MIT
// The requests under way: what the end of the daemon waits for, and what ends with its client.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_set>

#include "foundation/cancellation.hpp"

namespace corvalen {

class RunningRequest;

/// All requests of the daemon object. Any thread may call.
class RunningRequests {
  public:
    /// Lets no further request begin, for good, unless one is under way: then false. A thread that
    /// begins one afterwards sleeps for ever, so the process has to end.
    [[nodiscard]] bool closeIfNone() noexcept;
    /// Asks every operation to stop before its next object, those that begin later included.
    void cancelAll();
    /// Whether `cancelAll` was called.
    [[nodiscard]] bool areCancelled() const noexcept { return _cancelled; }
    /// Whether an operation is performed right now; requests that wait for authorization do not
    /// count.
    [[nodiscard]] bool isPerforming() const;

  private:
    friend class RunningRequest;

    void enter() noexcept;
    void leave() noexcept { --_count; }
    [[nodiscard]] bool beginPerforming(RunningRequest& request);
    void endPerforming(RunningRequest& request);

    static constexpr std::uint32_t kClosed = 1U << 31U;

    std::atomic<std::uint32_t> _count{0};
    std::atomic<bool> _cancelled{false};
    mutable std::mutex _mutex;
    std::unordered_set<RunningRequest*> _performing;
};

/// One request, from its arrival until its result is known. Its cancellation is requested when the
/// client has closed its connection or its sending side, and by `cancelAll`. Belongs to one thread;
/// the cancellation may be read by the threads that help it.
class RunningRequest final : public Cancellation {
  public:
    /// `socket` is the request's connection, borrowed; -1 when there is none to watch.
    RunningRequest(RunningRequests& all, int socket) noexcept : _all(all), _socket(socket) {
        _all.enter();
    }
    ~RunningRequest() override { _all.leave(); }

    /// The time during which the operation is performed.
    class Performing {
      public:
        explicit Performing(RunningRequest& request)
            : _request(request), _allowed(request._all.beginPerforming(request)) {}
        ~Performing() {
            if (_allowed) _request._all.endPerforming(_request);
        }
        Performing(const Performing&) = delete;
        Performing& operator=(const Performing&) = delete;

        /// False when the daemon is about to end: nothing may begin any more.
        explicit operator bool() const noexcept { return _allowed; }

      private:
        RunningRequest& _request;
        bool _allowed;
    };

  protected:
    [[nodiscard]] bool probe() noexcept override;

  private:
    RunningRequests& _all;
    int _socket;
};

}  // namespace corvalen
