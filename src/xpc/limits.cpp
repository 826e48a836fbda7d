// SPDX-License-Identifier: MIT
#include "xpc/limits.hpp"

#include <ctime>
#include <utility>

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
        case Resource::registrations:
            return wire::kMaximumRegistrationsPerUser;
        case Resource::feedback:
            return wire::kMaximumFeedbackPerUser;
    }
    return 0;
}

bool UserQuotas::charge(Resource resource, std::size_t amount) noexcept {
    std::atomic<std::size_t>& charged = _charged[static_cast<std::size_t>(resource)];
    const std::size_t maximum = limit(resource);
    std::size_t now = charged.load();
    do {
        if (amount > maximum || now > maximum - amount) return false;
    } while (!charged.compare_exchange_weak(now, now + amount));
    return true;
}

void UserQuotas::release(Resource resource, std::size_t amount) noexcept {
    _charged[static_cast<std::size_t>(resource)] -= amount;
}

std::size_t UserQuotas::charged(Resource resource) const noexcept {
    return _charged[static_cast<std::size_t>(resource)].load();
}

namespace {

constexpr unsigned kSecondShift = 32;

std::uint32_t secondOf(std::uint64_t packed) noexcept {
    return static_cast<std::uint32_t>(packed >> kSecondShift);
}

}  // namespace

bool LogLineQuota::admit(std::uint32_t now) noexcept {
    std::uint64_t packed = _second.load();
    std::uint64_t next = 0;
    do {
        const bool sameSecond = secondOf(packed) == now;
        if (sameSecond &&
            static_cast<std::uint32_t>(packed) >= wire::kMaximumLogLinesPerUserAndSecond) {
            ++_leftOut;
            return false;
        }
        next = sameSecond ? packed + 1 : (std::uint64_t{now} << kSecondShift) + 1;
    } while (!_second.compare_exchange_weak(packed, next));
    return true;
}

std::uint64_t LogLineQuota::takeLeftOut(std::uint32_t now) noexcept {
    return secondOf(_second.load()) == now ? 0 : _leftOut.exchange(0);
}

bool LogLineQuota::isIdle(std::uint32_t now) const noexcept {
    return secondOf(_second.load()) != now && _leftOut.load() == 0;
}

std::uint32_t quotaSecond() noexcept {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint32_t>(now.tv_sec);
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
        _quotas->release(_resource, _amount - amount);
    } else if (!_quotas->charge(_resource, amount - _amount)) {
        return false;
    }
    _amount = amount;
    return true;
}

std::shared_ptr<UserQuotas> UserQuotaTable::quotasForUser(uid_t user) {
    if (user == 0) return nullptr;
    const std::lock_guard lock(_mutex);
    if (const auto known = _quotas.find(user); known != _quotas.end()) return known->second;
    dropUnused();
    return _quotas.emplace(user, std::make_shared<UserQuotas>(user)).first->second;
}

std::vector<std::shared_ptr<UserQuotas>> UserQuotaTable::accounts() {
    const std::lock_guard lock(_mutex);
    dropUnused();
    std::vector<std::shared_ptr<UserQuotas>> accounts;
    accounts.reserve(_quotas.size());
    for (const auto& [user, quotas] : _quotas)
        accounts.push_back(quotas);
    return accounts;
}

void UserQuotaTable::dropUnused() {
    const std::uint32_t now = quotaSecond();
    std::erase_if(_quotas, [now](const auto& entry) {
        return entry.second.use_count() == 1 && entry.second->logLines().isIdle(now);
    });
}

}  // namespace corvalen
