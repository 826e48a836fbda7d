// SPDX-License-Identifier: MIT
#include "helper/running_requests.hpp"

#include <poll.h>

namespace corvalen {

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
        request->request();
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
    pollfd connection{_socket, POLLRDHUP, 0};
    return _socket >= 0 && ::poll(&connection, 1, 0) > 0;
}

}  // namespace corvalen
