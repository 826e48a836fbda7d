// SPDX-License-Identifier: MIT
#include "platform/processes/processes.hpp"

#include <cerrno>
#include <csignal>

namespace corvalen {
namespace {

class HostProcesses final : public Processes {
  public:
    int terminate(pid_t processIdentifier) override {
        if (processIdentifier < 1) return EINVAL;
        return ::kill(processIdentifier, SIGTERM) == 0 ? 0 : errno;
    }
};

}  // namespace

std::unique_ptr<Processes> makeProcesses() {
    return std::make_unique<HostProcesses>();
}

}  // namespace corvalen
