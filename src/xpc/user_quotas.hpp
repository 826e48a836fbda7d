// SPDX-License-Identifier: MIT
// What one user may make this process hold, and the receipts for it.
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

/// Log lines of one second: how many were written, and how many were left out so far. Any thread
/// may call; nothing waits.
class LogLineQuota {
  public:
    /// Whether one more line may be written in the second `now`. Counts it either way.
    [[nodiscard]] bool admit(std::uint32_t now) noexcept;
    /// How many lines were left out in the seconds before `now`, each told once.
    [[nodiscard]] std::uint64_t takeLeftOut(std::uint32_t now) noexcept;
    /// Whether nothing would be lost with this object.
    [[nodiscard]] bool isIdle(std::uint32_t now) const noexcept;

  private:
    /// The second above, the number of its lines below.
    std::atomic<std::uint64_t> _second{0};
    std::atomic<std::uint64_t> _leftOut{0};
};

/// The account of one user. Any thread may charge; nothing is ever charged past its limit.
class UserQuotas {
  public:
    explicit UserQuotas(uid_t user = 0) noexcept : _user(user) {}

    [[nodiscard]] uid_t user() const noexcept { return _user; }
    /// False, and nothing is charged, when `amount` more would pass the limit.
    [[nodiscard]] bool charge(Resource resource, std::size_t amount) noexcept;
    void giveBack(Resource resource, std::size_t amount) noexcept;
    [[nodiscard]] std::size_t charged(Resource resource) const noexcept;
    [[nodiscard]] static std::size_t limit(Resource resource) noexcept;
    [[nodiscard]] LogLineQuota& logLines() noexcept { return _logLines; }

  private:
    uid_t _user;
    std::array<std::atomic<std::size_t>, 5> _charged{};
    LogLineQuota _logLines;
};

/// A receipt: gives back what it charged when it ends. Without an account everything is free.
/// Movable, not synchronised.
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

    /// Charges or gives back the difference to what is charged now. False, with nothing changed,
    /// when the limit forbids it.
    [[nodiscard]] bool setAmount(std::size_t amount) noexcept;

  private:
    std::shared_ptr<UserQuotas> _quotas;
    Resource _resource = Resource::connections;
    std::size_t _amount = 0;
};

/// Seconds of a clock that never goes back, for `LogLineQuota`.
[[nodiscard]] std::uint32_t quotaSecond() noexcept;

/// The accounts by user. An account lives as long as something is charged to it or holds it, and
/// until its log lines have been told of. Any thread may call.
class UserQuotaTable {
  public:
    /// Null for root, who has no limits.
    [[nodiscard]] std::shared_ptr<UserQuotas> quotasForUser(uid_t user);
    /// Every account that is there now.
    [[nodiscard]] std::vector<std::shared_ptr<UserQuotas>> accounts();

  private:
    void dropUnused();

    std::mutex _mutex;
    std::map<uid_t, std::shared_ptr<UserQuotas>> _quotas;
};

}  // namespace corvalen
