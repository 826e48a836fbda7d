// SPDX-License-Identifier: MIT
// Alternates every walk through the daemon, finds delivered to the client, and tools that do the
// same on the same warm tree. Also measures the daemon's peak memory on each tree.
//
// Usage: endtoend_walks [objects of a tree...]
#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "endtoend_daemon.hpp"
#include "operations/feedback.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr int kRounds = 5;
/// Larger trees get fewer rounds.
constexpr std::uint64_t kLargeTree = 500000;
constexpr int kRoundsOfLargeTree = 3;

/// One object in a hundred has at least this age in days and this unknown owner.
constexpr int kDaysOfHits = 300;
constexpr const char* kUnknownUser = "3999999";
constexpr int kModeBits = 0x0E;
constexpr int kGroup = 0x10;

std::string makeScratch() {
    std::string folder = (std::filesystem::temp_directory_path() / "corvalen.XXXXXX").string();
    require(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
    return folder;
}

/// Mounts a tmpfs, to measure the walk without the disk.
void mountMemory(const std::string& folder) {
    require(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "nr_inodes=0,size=75%") == 0, "mount");
}

using Words = std::vector<std::string>;

/// Runs a program with its standard output in a file.
void run(const Words& words, const char* output = "/dev/null") {
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

bool isInstalled(const std::string& program) {
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

std::vector<Comparison> comparisons(const std::string& tree) {
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

std::uint64_t performOnce(Client& client, const std::string& tree, const Comparison& comparison) {
    Array arguments{Value(tree)};
    arguments.insert(arguments.end(), comparison.arguments.begin(), comparison.arguments.end());
    std::uint64_t found = 0;
    const auto result =
        client.perform(comparison.operation, std::move(arguments), [&](const Dictionary& message) {
            const Value* records = message.find(kQRLPORK_FileObjectInfo);
            if (records != nullptr) found += records->array()->size();
        });
    require(result.succeeded() && result.feedbackComplete, comparison.operation);
    return found;
}

std::uint64_t linesOf(const std::string& path) {
    std::ifstream file(path);
    return static_cast<std::uint64_t>(
        std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n'));
}

std::string joined(const Words& words) {
    std::string text;
    for (const std::string& word : words)
        text.append(text.empty() ? "" : " ").append(word == kRecord ? "RECORD" : word);
    return text;
}

/// The first run of each side warms the tree, and checks that both find the same number.
void compare(Client& client, const std::string& scratch, const Comparison& comparison, int rounds) {
    const std::string tree = scratch + "/tree";
    const std::uint64_t found = performOnce(client, tree, comparison);
    if (comparison.finds) {
        const std::string list = scratch + "/found";
        run(comparison.tools[0], list.c_str());
        require(linesOf(list) == found, "finding what find finds");
    }
    std::vector<double> own;
    std::vector<std::vector<double>> beside(comparison.tools.size());
    std::vector<std::vector<double>> ratios(comparison.tools.size());
    for (int round = 0; round < rounds; ++round) {
        own.push_back(secondsOf([&] { performOnce(client, tree, comparison); }));
        for (std::size_t tool = 0; tool < ratios.size(); ++tool) {
            if (!isInstalled(comparison.tools[tool][0])) continue;
            beside[tool].push_back(secondsOf([&] { run(comparison.tools[tool]); }));
            ratios[tool].push_back(own.back() / beside[tool].back());
        }
    }
    std::printf("%s %s: %.1f ms, %llu found\n", comparison.operation, comparison.what,
                median(own) * 1000, static_cast<unsigned long long>(found));
    for (std::size_t tool = 0; tool < ratios.size(); ++tool) {
        const Words& words = comparison.tools[tool];
        if (ratios[tool].empty()) {
            std::printf("    -     %s is not installed\n", words[0].c_str());
            continue;
        }
        std::string shown = joined(words);
        shown.replace(shown.find(tree), tree.size(), "TREE");
        std::printf("    %.2f of %7.1f ms  %s\n", median(ratios[tool]), median(beside[tool]) * 1000,
                    shown.c_str());
    }
}

/// Peak memory of a daemon that performed every walk on this tree and nothing else.
long peakMemory(const Daemon& daemon, const std::string& tree) {
    daemon.waitUntilEnded();
    long peak = 0;
    {
        const auto client = Daemon::connect();
        for (const Comparison& comparison : comparisons(tree))
            performOnce(*client, tree, comparison);
        peak = daemon.peakKilobytes();
    }
    daemon.waitUntilEnded();
    return peak;
}

void measure(const Daemon& daemon, const std::string& objects) {
    const std::string scratch = makeScratch();
    const std::string tree = scratch + "/tree";
    mountMemory(scratch);
    run({MAKE_TREE_PROGRAM, tree, objects});
    const bool large = std::strtoull(objects.c_str(), nullptr, 10) >= kLargeTree;
    const int rounds = large ? kRoundsOfLargeTree : kRounds;
    std::printf("-- %s objects\n", objects.c_str());
    {
        const auto client = Daemon::connect();
        for (const Comparison& comparison : comparisons(tree))
            compare(*client, scratch, comparison, rounds);
    }
    std::printf("daemon's peak memory: %ld KiB\n", peakMemory(daemon, tree));
    // Directories keep a known owner, so that each orphan is a find of its own.
    run({"find", tree, "!", "-type", "d", "-exec", "chown", "-h", kUnknownUser, "{}", "+"});
    const Comparison orphans{"search-fileorphans",
                             "nearly all",
                             {false},
                             {{"find", tree, "-mindepth", "1", "-nouser", "-printf", kRecord}}};
    const auto client = Daemon::connect();
    compare(*client, scratch, orphans, large ? 1 : rounds);
    require(::umount(scratch.c_str()) == 0 && ::rmdir(scratch.c_str()) == 0, "umount");
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Words sizes(argv + 1, argv + argc);
    if (sizes.empty()) sizes = {"10000", "200000", "1000000"};
    const Daemon daemon;
    for (const std::string& objects : sizes)
        measure(daemon, objects);
    return 0;
}
