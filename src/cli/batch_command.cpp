// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <corvalen/catalogue.hpp>
#include <utility>

#include "cli/command_table.hpp"
#include "cli/operation_runner.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"

namespace corvalen::cli {
namespace {

/// Splits a line into words like a shell: at blanks outside of '...', "..." and backslash escapes.
/// Returns no words for an empty line or a comment, which begins with '#'. Throws UsageError for an
/// open quote.
std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    bool isOpen = false;
    char quote = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char letter = line[i];
        const bool isBlank = letter == ' ' || letter == '\t' || letter == '\r';
        if (quote == 0 && isBlank) {
            isOpen = false;
            continue;
        }
        if (!isOpen && letter == '#' && words.empty()) return {};
        if (!std::exchange(isOpen, true)) words.emplace_back();
        if (letter == quote)
            quote = 0;
        else if (quote == 0 && (letter == '\'' || letter == '"'))
            quote = letter;
        else if (letter == '\\' && quote != '\'' && i + 1 < line.size())
            words.back() += line[++i];
        else
            words.back() += letter;
    }
    if (quote != 0) throw UsageError("a quote has no end");
    return words;
}

struct BatchLine {
    std::size_t number;
    const Command* command;
    Arguments arguments;
    /// Built once: it may hold what was read from a pipe.
    Request request;
};

/// Options of the batch that apply to every line.
constexpr std::string_view kInheritedOptions[] = {"json", "quiet", "no-ask-password", "no-pager",
                                                  "yes"};

bool isCall(const Command& command) noexcept {
    return command.name == "call";
}

/// Parses a line and builds its request, to find faults before any operation. Throws UsageError.
BatchLine checkedLine(std::size_t number, const std::vector<std::string>& words,
                      const Arguments& batch) {
    ParsedCommandLine parsed = parseCommandLine(words);
    if (parsed.command == nullptr)
        throw UsageError(parsed.errorText.empty() ? "a batch has no use for help"
                                                  : parsed.errorText);
    const bool isOperation =
        isCall(*parsed.command) || findOperation(parsed.command->name) != nullptr;
    if (!isOperation) throw UsageError(std::string(parsed.command->name) + " is no operation");
    if (parsed.arguments.has("socket"))
        throw UsageError("all lines use one connection: give --socket to the batch");
    if (parsed.arguments.has("remote"))
        throw UsageError("all lines use one machine: give --remote to the batch");
    for (const std::string_view key : kInheritedOptions)
        if (batch.has(key) && !parsed.arguments.has(key)) parsed.arguments.add(key, {});
    Request request = isCall(*parsed.command) ? requestOfCall(parsed.arguments)
                                              : checkedRequest(*parsed.command, parsed.arguments);
    return {number, parsed.command, std::move(parsed.arguments), std::move(request)};
}

std::vector<BatchLine> readLines(std::string_view text, const Arguments& batch) {
    std::vector<BatchLine> lines;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        try {
            const std::vector<std::string> words = splitWords(line);
            if (!words.empty()) lines.push_back(checkedLine(number, words, batch));
        } catch (const UsageError& error) {
            throw UsageError(fmt::format("line {}: {}", number, error.what()));
        }
    }
    return lines;
}

int perform(const BatchLine& line) {
    try {
        if (isCall(*line.command)) return performCall(line.request, line.arguments);
        if (line.command->run != nullptr) return line.command->run(line.arguments);
        return runOperation(*line.command, line.arguments, line.request);
    } catch (const UsageError& error) {
        return report({std::string(line.command->name), {}, error.what(), {}, kExitUsage});
    }
}

/// Whether all following lines would fail the same way.
bool endsBatch(int code) noexcept {
    return code >= kExitSignal || code == kExitNotReachable;
}

}  // namespace

int runBatch(const Arguments& arguments) {
    const std::string file = arguments.text("FILE", "-");
    const Data content = readContent(file);
    const std::vector<BatchLine> lines = readLines(content.view(), arguments);
    int worst = kExitSuccess;
    const SharedSession session(arguments, worst);
    if (!session) return worst;
    std::size_t failed = 0;
    for (const BatchLine& line : lines) {
        const int code = perform(line);
        if (arguments.has("json")) {
            const int written =
                writeOutput(fmt::format("{{\"line\":{},\"command\":{},\"exitCode\":{}}}\n",
                                        line.number, jsonString(line.command->name), code));
            if (written != kExitSuccess) return written;
        }
        if (code == kExitSuccess) continue;
        ++failed;
        worst = std::max(worst, code);
        if (arguments.has("keep-going") && !endsBatch(code)) continue;
        return report({"batch", {}, fmt::format("stopped at line {}", line.number), {}, code});
    }
    if (failed == 0) return kExitSuccess;
    return report(
        {"batch", {}, fmt::format("{} of {} operations failed", failed, lines.size()), {}, worst});
}

}  // namespace corvalen::cli
