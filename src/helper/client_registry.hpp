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

/// A set of numbers that clients choose. Each is charged to the user who registered it first and
/// stays until anybody unregisters it, also when its connection has ended. Any thread may call.
class ClientRegistry {
  public:
    /// False when the number is not there and `account` (null without limits) has no room for it.
    [[nodiscard]] bool add(std::int32_t pid, const std::shared_ptr<UserQuotas>& account);
    /// How many are left. A number that is not there changes nothing.
    std::size_t remove(std::int32_t pid);
    [[nodiscard]] std::unordered_set<std::int32_t> pids() const;
    /// Calls `action` when nobody is registered, and keeps everybody from registering meanwhile.
    /// False when somebody is.
    bool ifEmpty(const std::function<void()>& action) const;

  private:
    std::unordered_map<std::int32_t, QuotaCharge> _clients;
    mutable std::mutex _mutex;
};

}  // namespace corvalen
