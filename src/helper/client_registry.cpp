// SPDX-License-Identifier: MIT
#include "helper/client_registry.hpp"

#include <utility>

namespace corvalen {

bool ClientRegistry::add(std::int32_t pid, const std::shared_ptr<UserQuotas>& account) {
    const std::lock_guard lock(_mutex);
    if (_clients.contains(pid)) return true;
    QuotaCharge charge(account, Resource::registrations);
    if (!charge.setAmount(1)) return false;
    _clients.emplace(pid, std::move(charge));
    return true;
}

std::size_t ClientRegistry::remove(std::int32_t pid) {
    const std::lock_guard lock(_mutex);
    _clients.erase(pid);
    return _clients.size();
}

std::unordered_set<std::int32_t> ClientRegistry::pids() const {
    const std::lock_guard lock(_mutex);
    std::unordered_set<std::int32_t> pids;
    for (const auto& [pid, charge] : _clients)
        pids.insert(pid);
    return pids;
}

bool ClientRegistry::ifEmpty(const std::function<void()>& action) const {
    const std::lock_guard lock(_mutex);
    if (!_clients.empty()) return false;
    action();
    return true;
}

}  // namespace corvalen
