// SPDX-License-Identifier: MIT
// What keeps the daemon running: the clients that are registered, and the running requests.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/cancellation.hpp"
#include "xpc/limits.hpp"

namespace corvalen {

/// A set of numbers that clients choose. Each is charged to the user that registered it first, and
/// stays until any client unregisters it, even after its connection has ended. Thread-safe.
class ClientRegistry {
  public:
    /// Returns false if the number is new and the quota of `account` (null: no limits) is used up.
    [[nodiscard]] bool add(std::int32_t pid, const std::shared_ptr<UserQuotas>& account);
    /// Returns how many numbers are left. Ignores an unknown number.
    std::size_t remove(std::int32_t pid);
    [[nodiscard]] std::unordered_set<std::int32_t> pids() const;
    /// If no number is registered, calls `action` with the registry locked, so that none can be
    /// added meanwhile.
    void ifEmpty(const std::function<void()>& action) const;

  private:
    std::unordered_map<std::int32_t, QuotaCharge> _clients;
    mutable std::mutex _mutex;
};

class RunningRequest;

/// All requests of the daemon object. Thread-safe.
class RunningRequests {
  public:
    /// Blocks new requests permanently and returns true; returns false if one is running. A thread
    /// that begins one afterwards sleeps for ever, so the process must end.
    [[nodiscard]] bool closeIfNone() noexcept;
    /// Stops every operation before its next object; later ones do not begin.
    void cancelAll();
    /// Returns true once `cancelAll` was called.
    [[nodiscard]] bool areCancelled() const noexcept { return _cancelled; }
    /// Returns true while an operation is performed; requests that wait for authorization do not
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

/// One request, from arrival to result. Cancelled by `cancelAll`, and when the client closes its
/// connection or its sending side. Belongs to one thread; worker threads may read the cancellation.
class RunningRequest final : public Cancellation {
  public:
    /// Borrows `socket`, the request's connection, if there is one to watch. `user` is the peer.
    RunningRequest(RunningRequests& all, Descriptor socket, std::uint32_t user) noexcept
        : Cancellation(user), _all(all), _socket(socket) {
        _all.enter();
    }
    ~RunningRequest() override { _all.leave(); }

    /// Registers the operation as being performed, while it lives.
    class Performing {
      public:
        explicit Performing(RunningRequest& request)
            : _request(request), _allowed(request._all.beginPerforming(request)) {}
        ~Performing() {
            if (_allowed) _request._all.endPerforming(_request);
        }
        Performing(const Performing&) = delete;
        Performing& operator=(const Performing&) = delete;

        /// False if the daemon is about to end: the operation must not begin.
        explicit operator bool() const noexcept { return _allowed; }

      private:
        RunningRequest& _request;
        bool _allowed;
    };

  protected:
    [[nodiscard]] bool probe() noexcept override;

  private:
    RunningRequests& _all;
    Descriptor _socket;
};

}  // namespace corvalen
