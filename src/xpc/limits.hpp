// SPDX-License-Identifier: MIT
// Limits of the wire protocol (corvalen-protocol(7)), and quotas of the users. Exceeding one
// affects no other client.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace corvalen {
namespace wire {

/// Bytes per message.
inline constexpr std::size_t kMaximumMessageSize = std::size_t{16} * 1024 * 1024;
/// Nested arrays and maps, including the array of the message itself.
inline constexpr std::size_t kMaximumNesting = 32;
/// Endpoint values per message, and descriptors that come with it.
inline constexpr std::size_t kMaximumEndpoints = 4;
/// Bytes of memory of one decoded message; see docs/decisions/decoded-footprint.md.
inline constexpr std::size_t kMaximumDecodedSize = std::size_t{64} * 1024 * 1024;

/// Held at the same time for one user other than root.
inline constexpr std::size_t kMaximumConnectionsPerUser = 64;
/// Capacity of the buffers of unfinished messages, less kBufferPerConnection each.
inline constexpr std::size_t kMaximumUnfinishedBytesPerUser = std::size_t{64} * 1024 * 1024;
/// Decoded messages, and encoded ones larger than kBufferPerConnection.
inline constexpr std::size_t kMaximumDecodedBytesPerUser = std::size_t{256} * 1024 * 1024;
inline constexpr std::size_t kMaximumEndpointsPerUser = 64;
inline constexpr std::size_t kMaximumRegistrationsPerUser = 1024;
/// Feedback connections that are open, or of which the client has not read all.
inline constexpr std::size_t kMaximumFeedbackPerUser = 128;
/// Log lines per user and second; lines of granted operations do not count.
inline constexpr std::uint32_t kMaximumLogLinesPerUserAndSecond = 100;

/// Bytes of each of the two buffers that a connection keeps between messages; kept notifications
/// have a third of this size at most. Not charged: the number of connections bounds them.
inline constexpr std::size_t kBufferPerConnection = std::size_t{64} * 1024;

/// Messages that a connection queues while a call on it waits for its reply.
inline constexpr std::size_t kMaximumQueuedMessages = 64;

/// Time from the first byte of a message to its last.
inline constexpr std::chrono::milliseconds kArrivalTimeout{30000};
/// Time without progress after which a client that does not read its replies is dropped.
inline constexpr std::chrono::milliseconds kReplyTimeout{30000};
/// A new connection counts as busy for this long until its first message arrives.
inline constexpr std::chrono::milliseconds kFirstMessageTime{100};

/// Extension types.
inline constexpr std::int8_t kTimestampType = -1;
inline constexpr std::int8_t kEndpointType = 1;
inline constexpr std::int8_t kErrorType = 2;

inline constexpr std::uint32_t kNanosecondsPerSecond = 1000000000;

}  // namespace wire

enum class Resource : std::uint8_t {
    connections,
    unfinishedBytes,
    decodedBytes,
    endpoints,
    registrations,
    feedback
};

/// Counts one user's log lines per second, and those left out. Thread-safe; does not block.
class LogLineQuota {
  public:
    /// Counts a line in the second `now`. Returns false if it must be left out.
    [[nodiscard]] bool admit(std::uint32_t now) noexcept;
    /// Returns and resets the number of lines left out in the seconds before `now`.
    [[nodiscard]] std::uint64_t takeLeftOut(std::uint32_t now) noexcept;
    /// Returns true if the object holds no count that is still needed.
    [[nodiscard]] bool isIdle(std::uint32_t now) const noexcept;

  private:
    /// The second in the high 32 bits, the number of its lines in the low ones.
    std::atomic<std::uint64_t> _second{0};
    std::atomic<std::uint64_t> _leftOut{0};
};

/// The account of one user. Thread-safe; charges never exceed a limit.
class UserQuotas {
  public:
    explicit UserQuotas(uid_t user = 0) noexcept : _user(user) {}

    [[nodiscard]] uid_t user() const noexcept { return _user; }
    /// Returns false and charges nothing if `amount` more would exceed the limit.
    [[nodiscard]] bool charge(Resource resource, std::size_t amount) noexcept;
    void release(Resource resource, std::size_t amount) noexcept;
    [[nodiscard]] std::size_t charged(Resource resource) const noexcept;
    [[nodiscard]] static std::size_t limit(Resource resource) noexcept;
    [[nodiscard]] LogLineQuota& logLines() noexcept { return _logLines; }

  private:
    uid_t _user;
    std::array<std::atomic<std::size_t>, 6> _charged{};
    LogLineQuota _logLines;
};

/// Owns a charge and gives it back when destroyed. Without an account there are no limits. Movable,
/// not synchronised.
class QuotaCharge {
  public:
    QuotaCharge() noexcept = default;
    QuotaCharge(std::shared_ptr<UserQuotas> quotas, Resource resource) noexcept
        : _quotas(std::move(quotas)), _resource(resource) {}
    QuotaCharge(QuotaCharge&& other) noexcept
        : _quotas(std::move(other._quotas)),
          _resource(other._resource),
          _amount(std::exchange(other._amount, 0)) {}
    QuotaCharge& operator=(QuotaCharge&& other) noexcept;
    QuotaCharge(const QuotaCharge&) = delete;
    QuotaCharge& operator=(const QuotaCharge&) = delete;
    ~QuotaCharge() { (void)setAmount(0); }

    /// Changes the charge to `amount`. Returns false and changes nothing if that exceeds the limit.
    [[nodiscard]] bool setAmount(std::size_t amount) noexcept;

  private:
    std::shared_ptr<UserQuotas> _quotas;
    Resource _resource = Resource::connections;
    std::size_t _amount = 0;
};

/// Seconds of the monotonic clock, for `LogLineQuota`.
[[nodiscard]] std::uint32_t quotaSecond() noexcept;

/// The accounts by user. An account stays while it is in use, and until its left-out log lines are
/// reported. Thread-safe.
class UserQuotaTable {
  public:
    /// Returns null for root, which has no limits.
    [[nodiscard]] std::shared_ptr<UserQuotas> quotasForUser(uid_t user);
    /// Returns all current accounts.
    [[nodiscard]] std::vector<std::shared_ptr<UserQuotas>> accounts();

  private:
    void dropUnused();

    std::mutex _mutex;
    std::map<uid_t, std::shared_ptr<UserQuotas>> _quotas;
};

}  // namespace corvalen
