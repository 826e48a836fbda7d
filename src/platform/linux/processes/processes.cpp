// SPDX-License-Identifier: MIT
#include "platform/processes/processes.hpp"

#include <cerrno>
#include <csignal>

namespace corvalen {
namespace {

class HostProcesses final : public Processes {
  public:
    Result<> terminate(pid_t processIdentifier) override {
        if (processIdentifier < 1) return failure(EINVAL);
        return resultOf(::kill(processIdentifier, SIGTERM));
    }
};

}  // namespace

std::unique_ptr<Processes> makeProcesses() {
    return std::make_unique<HostProcesses>();
}

}  // namespace corvalen
