// SPDX-License-Identifier: MIT
// The same command on another machine.
#pragma once

#include <string>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

/// The host of -H or --remote and the words without it; the host is empty when there is none. Looks
/// only at options of all commands, before the command's name and, unless the command hands its
/// words on, behind it. A UsageError for an option without its host, or a host that ssh would take
/// for an option.
struct RemoteRequest {
    std::string host;
    std::vector<std::string> words;
};
[[nodiscard]] RemoteRequest takeHost(const std::vector<std::string>& words);

/// Runs corvalenctl with these words on the host, by ssh(1), and gives its exit code: 3 when the
/// host cannot be reached. With a terminal in front of this program the other one has a terminal
/// too; standard streams are passed on as they are otherwise.
int runRemotely(const RemoteRequest& request);

}  // namespace corvalen::cli
