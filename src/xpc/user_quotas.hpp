// SPDX-License-Identifier: MIT
// Quotas on what one user can make this process hold.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace corvalen {

enum class Resource : std::uint8_t {
    connections,
    unfinishedBytes,
    decodedBytes,
    endpoints,
    registrations
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
    std::array<std::atomic<std::size_t>, 5> _charged{};
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
