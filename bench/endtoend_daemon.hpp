// SPDX-License-Identifier: MIT
// Runs the built daemon behind its socket in private mounts, for the end-to-end benchmarks.
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

/// A daemon that the first connection starts, with all rights defined as after an installation.
/// Construct it before other threads exist (it enters a mount namespace, unshare(2)).
class Daemon {
  public:
    Daemon() : _activator(start()) { require(defineRights(), "defining the rights"); }

    /// Returns a registered client; the daemon ends with the last one.
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

    /// The process of the last started daemon.
    [[nodiscard]] pid_t process() const noexcept { return _activator.lastProcess(); }

    /// The daemon's peak resident memory (VmHWM, proc(5)), in KiB; 0 if it cannot be read.
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
