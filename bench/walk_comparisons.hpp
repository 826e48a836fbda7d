// SPDX-License-Identifier: MIT
// Times every walk of the daemon, and the tools that do the same work.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "endtoend_daemon.hpp"
#include "operations/names.hpp"

namespace corvalen::bench {

/// One object in a hundred has at least this age in days and this unknown owner.
constexpr int kDaysOfHits = 300;
constexpr const char* kUnknownUser = "3999999";
constexpr int kModeBits = 0x0E;
constexpr int kGroup = 0x10;

using Words = std::vector<std::string>;

/// Runs a program with its standard output redirected to a file.
inline void run(const Words& words, const char* output = "/dev/null") {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output,
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t child = 0;
    int status = -1;
    require(::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0,
            arguments[0]);
    ::posix_spawn_file_actions_destroy(&actions);
    require(::waitpid(child, &status, 0) == child && status == 0, arguments[0]);
}

inline bool isInstalled(const std::string& program) {
    if (program.find('/') != std::string::npos) return ::access(program.c_str(), X_OK) == 0;
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (::access(folder.append("/").append(program).c_str(), X_OK) == 0) return true;
    return false;
}

struct Comparison {
    const char* operation;
    const char* what;
    /// Arguments after the first, which is the tree.
    Array arguments;
    std::vector<Words> tools;
    /// Whether the first tool prints one line per find.
    bool finds = true;
};

/// The fields of a record, in find(1)'s format: path, type, size, date, mode.
constexpr const char* kRecord = "%p\\t%y\\t%s\\t%T@\\t%m\\n";

inline std::vector<Comparison> comparisons(const std::string& tree) {
    const auto find = [&tree](const Words& tests) {
        Words words{"find", tree, "-mindepth", "1"};
        words.insert(words.end(), tests.begin(), tests.end());
        return words;
    };
    const Words any{"(", "-name", "*.hit", "-o", "-name", "*.txt", ")"};
    const Words three{"-name", "none", "-o", "-name", "99*", "-o", "-name", "*.hit"};
    Words records = find(any);
    records.insert(records.end(), {"-printf", kRecord});
    Words bfs = find(any);
    bfs[0] = "bfs";
    const std::string days = "+" + std::to_string(kDaysOfHits - 1);
    return {
        {"search-patterns",
         "one in a hundred",
         {"0", "2", "hit"},
         {find({"-name", "*.hit", "-printf", kRecord}),
          {"bfs", tree, "-name", "*.hit"},
          {"fdfind", "-u", "-e", "hit", ".", tree}}},
        {"search-patterns",
         "three rules",
         {"0", "0", "none", "1", "99", "2", "hit"},
         {find(three)}},
        {"search-patterns",
         "all",
         {"0", "2", "hit", "2", "txt"},
         {records, find(any), bfs, {"fdfind", "-u", "-e", "hit", "-e", "txt", ".", tree}}},
        {"search-agedfiles",
         "one in a hundred",
         {kDaysOfHits, false},
         {find({"-mtime", days, "-printf", kRecord})}},
        {"search-agedfiles", "all", {0, false}, {find({"-mtime", "-99999", "-printf", kRecord})}},
        {"search-fileorphans",
         "one in a hundred",
         {false},
         {find({"-nouser", "-printf", kRecord})}},
        {"inspect-storagesize", "", {}, {{"du", "-sb", "--count-links", tree}}, false},
        {"prop-permissions", "mode", {0, false, kModeBits}, {{"chmod", "-R", "0755", tree}}, false},
        {"prop-permissions", "group", {0, false, kGroup}, {{"chown", "-R", ":0", tree}}, false},
    };
}

/// Returns the number of finds. Sets `*silence` to the longest time in seconds without a message,
/// from the request to the reply.
inline std::uint64_t performOnce(Client& client, const std::string& tree,
                                 const Comparison& comparison, double* silence = nullptr) {
    Array arguments{Value(tree)};
    arguments.insert(arguments.end(), comparison.arguments.begin(), comparison.arguments.end());
    std::uint64_t found = 0;
    double longest = 0;
    auto last = Clock::now();
    const auto end = [&] {
        const auto now = Clock::now();
        longest = std::max(longest, std::chrono::duration<double>(now - last).count());
        last = now;
    };
    const auto result =
        client.perform(comparison.operation, std::move(arguments), [&](const Dictionary& message) {
            end();
            const Value* records = message.find(kQRLPORK_FileObjectInfo);
            if (records != nullptr) found += records->array()->size();
        });
    end();
    require(result.succeeded() && result.feedbackComplete, comparison.operation);
    if (silence != nullptr) *silence = longest;
    return found;
}

inline std::uint64_t linesOf(const std::string& path) {
    std::ifstream file(path);
    return static_cast<std::uint64_t>(
        std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n'));
}

inline std::string joined(const Words& words) {
    std::string text;
    for (const std::string& word : words) {
        const bool isProgram = text.empty();
        if (!isProgram) text.append(" ");
        text.append(isProgram         ? word.substr(word.rfind('/') + 1)
                    : word == kRecord ? "RECORD"
                                      : word);
    }
    return text;
}

/// Times of the daemon and of each tool, and their ratio in each round.
class Measured {
  public:
    explicit Measured(const std::vector<Words>& tools)
        : _tools(tools), _beside(tools.size()), _ratios(tools.size()) {}

    /// Runs the daemon, then each tool, once; calls `prepare` before each run, untimed.
    void round(const std::function<void()>& work, const std::function<void()>& prepare) {
        prepare();
        _own.push_back(secondsOf(work));
        for (std::size_t tool = 0; tool < _tools.size(); ++tool) {
            if (!isInstalled(_tools[tool][0])) continue;
            prepare();
            _beside[tool].push_back(secondsOf([&] { run(_tools[tool]); }));
            _ratios[tool].push_back(_own.back() / _beside[tool].back());
        }
    }

    void report(const std::string& title, const std::string& tree) const {
        std::printf("%s: %.1f ms\n", title.c_str(), median(_own) * 1000);
        for (std::size_t tool = 0; tool < _tools.size(); ++tool) {
            const Words& words = _tools[tool];
            if (_ratios[tool].empty()) {
                std::printf("    -     %s is not installed\n", words[0].c_str());
                continue;
            }
            std::string shown = joined(words);
            shown.replace(shown.find(tree), tree.size(), "TREE");
            std::printf("    %.2f of %7.1f ms  %s\n", median(_ratios[tool]),
                        median(_beside[tool]) * 1000, shown.c_str());
        }
    }

  private:
    const std::vector<Words>& _tools;
    std::vector<double> _own;
    std::vector<std::vector<double>> _beside;
    std::vector<std::vector<double>> _ratios;
};

}  // namespace corvalen::bench
