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

namespace corvalen {

enum class Resource : std::uint8_t { connections, unfinishedBytes, decodedBytes, endpoints };

/// The account of one user. Any thread may charge; nothing is ever charged past its limit.
class UserQuotas {
  public:
    /// False, and nothing is charged, when `amount` more would pass the limit.
    [[nodiscard]] bool charge(Resource resource, std::size_t amount) noexcept;
    void giveBack(Resource resource, std::size_t amount) noexcept;
    [[nodiscard]] std::size_t charged(Resource resource) const noexcept;
    [[nodiscard]] static std::size_t limit(Resource resource) noexcept;

  private:
    std::array<std::atomic<std::size_t>, 4> _charged{};
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

/// The accounts by user; an account lives as long as something is charged to it or holds it.
class UserQuotaTable {
  public:
    /// Null for root, who has no limits.
    [[nodiscard]] std::shared_ptr<UserQuotas> quotasForUser(uid_t user);

  private:
    std::mutex _mutex;
    std::map<uid_t, std::weak_ptr<UserQuotas>> _quotas;
};

}  // namespace corvalen
