// SPDX-License-Identifier: MIT
// The process ids that clients have registered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "xpc/user_quotas.hpp"

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
    /// added meanwhile. Returns false if one is.
    bool ifEmpty(const std::function<void()>& action) const;

  private:
    std::unordered_map<std::int32_t, QuotaCharge> _clients;
    mutable std::mutex _mutex;
};

}  // namespace corvalen
