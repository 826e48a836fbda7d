// SPDX-License-Identifier: MIT
#include "xpc/user_quotas.hpp"

#include <utility>

#include "xpc/wire_limits.hpp"

namespace corvalen {

std::size_t UserQuotas::limit(Resource resource) noexcept {
    switch (resource) {
        case Resource::connections:
            return wire::kMaximumConnectionsPerUser;
        case Resource::unfinishedBytes:
            return wire::kMaximumUnfinishedBytesPerUser;
        case Resource::decodedBytes:
            return wire::kMaximumDecodedBytesPerUser;
        case Resource::endpoints:
            return wire::kMaximumEndpointsPerUser;
    }
    return 0;
}

bool UserQuotas::charge(Resource resource, std::size_t amount) noexcept {
    std::atomic<std::size_t>& charged = _charged[static_cast<std::size_t>(resource)];
    const std::size_t most = limit(resource);
    std::size_t now = charged.load();
    do {
        if (amount > most || now > most - amount) return false;
    } while (!charged.compare_exchange_weak(now, now + amount));
    return true;
}

void UserQuotas::giveBack(Resource resource, std::size_t amount) noexcept {
    _charged[static_cast<std::size_t>(resource)] -= amount;
}

std::size_t UserQuotas::charged(Resource resource) const noexcept {
    return _charged[static_cast<std::size_t>(resource)].load();
}

QuotaCharge& QuotaCharge::operator=(QuotaCharge&& other) noexcept {
    if (this != &other) {
        (void)setAmount(0);
        _quotas = std::move(other._quotas);
        _resource = other._resource;
        _amount = std::exchange(other._amount, 0);
    }
    return *this;
}

bool QuotaCharge::setAmount(std::size_t amount) noexcept {
    if (!_quotas || amount == _amount) return true;
    if (amount < _amount) {
        _quotas->giveBack(_resource, _amount - amount);
    } else if (!_quotas->charge(_resource, amount - _amount)) {
        return false;
    }
    _amount = amount;
    return true;
}

std::shared_ptr<UserQuotas> UserQuotaTable::quotasForUser(uid_t user) {
    if (user == 0) return nullptr;
    const std::lock_guard lock(_mutex);
    std::weak_ptr<UserQuotas>& known = _quotas[user];
    std::shared_ptr<UserQuotas> quotas = known.lock();
    if (!quotas) {
        std::erase_if(_quotas, [user](const auto& entry) {
            return entry.first != user && entry.second.expired();
        });
        quotas = std::make_shared<UserQuotas>();
        known = quotas;
    }
    return quotas;
}

}  // namespace corvalen
