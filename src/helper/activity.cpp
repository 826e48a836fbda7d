// SPDX-License-Identifier: MIT
#include "helper/activity.hpp"

#include <poll.h>

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

void ClientRegistry::ifEmpty(const std::function<void()>& action) const {
    const std::lock_guard lock(_mutex);
    if (_clients.empty()) action();
}

void RunningRequests::enter() noexcept {
    std::uint32_t count = _count.load();
    do {
        while ((count & kClosed) != 0) {
            _count.wait(count);
            count = _count.load();
        }
    } while (!_count.compare_exchange_weak(count, count + 1));
}

bool RunningRequests::closeIfNone() noexcept {
    std::uint32_t none = 0;
    return _count.compare_exchange_strong(none, kClosed);
}

void RunningRequests::cancelAll() {
    const std::lock_guard lock(_mutex);
    _cancelled = true;
    for (RunningRequest* request : _performing)
        request->requestForEnd();
}

bool RunningRequests::isPerforming() const {
    const std::lock_guard lock(_mutex);
    return !_performing.empty();
}

bool RunningRequests::beginPerforming(RunningRequest& request) {
    const std::lock_guard lock(_mutex);
    return !_cancelled && _performing.insert(&request).second;
}

void RunningRequests::endPerforming(RunningRequest& request) {
    const std::lock_guard lock(_mutex);
    _performing.erase(&request);
}

bool RunningRequest::probe() noexcept {
    pollfd connection{_socket.get(), POLLRDHUP, 0};
    return ::poll(&connection, 1, 0) > 0;
}

}  // namespace corvalen
