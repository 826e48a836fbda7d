// SPDX-License-Identifier: MIT
// Runs the command line on another machine.
#pragma once

#include <string>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

/// The host of -H or --remote, empty without one, and the other words.
struct RemoteRequest {
    std::string host;
    std::vector<std::string> words;
    /// Whether --json was given.
    bool wantsJson = false;
};

/// Takes the host out of the words. Ignores words after "--" and after the name of a command that
/// passes words on. Throws UsageError for a missing host, and for one that ssh would read as an
/// option.
[[nodiscard]] RemoteRequest takeHost(const std::vector<std::string>& words);

/// Runs corvalenctl with these words on the host by ssh(1); returns its exit code, and 3 if the
/// host cannot be reached. The remote side gets a terminal if all standard streams are one here.
/// Blocks.
int runRemotely(const RemoteRequest& request);

}  // namespace corvalen::cli
