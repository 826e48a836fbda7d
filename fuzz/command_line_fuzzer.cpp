// SPDX-License-Identifier: MIT
// Fuzzes the command line of corvalenctl, one word per line, and the request that a command makes
// of it.
#include "cli/command_table.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    // "-" stands for the standard input in some commands.
    static const int nowhere = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    static const bool isReplaced = ::dup2(nowhere, STDIN_FILENO) == STDIN_FILENO;
    require(isReplaced);
    std::vector<std::string> words;
    for (Input input(data, size); !input.empty();)
        words.emplace_back(input.until('\n'));
    const cli::ParsedCommandLine parsed = cli::parseCommandLine(words);
    if (parsed.command == nullptr || parsed.command->request == nullptr) {
        require(parsed.command != nullptr || parsed.exitCode != 0 || !parsed.outputText.empty());
        return 0;
    }
    try {
        (void)parsed.command->request(parsed.arguments);
    } catch (const cli::UsageError& error) {
        require(error.what()[0] != '\0');
    }
    return 0;
}
