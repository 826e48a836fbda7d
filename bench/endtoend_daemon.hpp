// SPDX-License-Identifier: MIT
// The built daemon behind its socket in mounts of the benchmark's own, and what the measurements of
// the whole system share.
#pragma once

#include <algorithm>
#include <chrono>
#include <corvalen/client.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "operations/names.hpp"
#include "support/activator.hpp"

namespace corvalen::bench {

using Clock = std::chrono::steady_clock;

inline void require(bool done, const char* what) {
    if (done) return;
    std::fprintf(stderr, "benchmark: %s failed\n", what);
    std::exit(1);
}

inline double secondsOf(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// A daemon that is started by the first connection, with the rights defined as an installation
/// does. Made before there are other threads.
class Daemon {
  public:
    Daemon() : _activator(start()) { require(defineRights(), "defining the rights"); }

    /// A registered client; the daemon ends with the last of them.
    static std::unique_ptr<Client> connect() {
        ErrorRef error;
        auto client = Client::connect({}, &error);
        const bool registered = client && client->registerClient(0, &error);
        if (!registered) std::fprintf(stderr, "%s\n", describeFailure(error).c_str());
        require(registered, "connecting to the daemon");
        return client;
    }

    void waitUntilEnded() const {
        require(test::eventually([&] { return _activator.ends() == _activator.starts(); }),
                "the end of the daemon");
    }

    /// The daemon that was started last.
    [[nodiscard]] pid_t process() const noexcept { return _activator.lastProcess(); }

    /// VmHWM of /proc/PID/status (proc(5)): the most memory it ever held, in KiB.
    [[nodiscard]] long peakKilobytes() const {
        std::ifstream status("/proc/" + std::to_string(_activator.lastProcess()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
        return 0;
    }

  private:
    static test::Activator start() {
        require(test::enterPrivateMounts(), "entering private mounts (this needs root)");
        return {CORVALEN_HELPER_PROGRAM, std::string(kServiceSocketPath), std::string(kServiceName),
                "/dev/null"};
    }

    test::Activator _activator;
};

}  // namespace corvalen::bench
