// SPDX-License-Identifier: MIT
// search-patterns through the daemon, finds delivered to the client, against find(1) with the same
// rules on the same warm tree, by turns; and the daemon's peak memory on a small and a large tree.
//
// Usage: endtoend_search [objects [large tree's objects]]
#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "endtoend_daemon.hpp"
#include "operations/feedback.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr int kRounds = 5;
constexpr std::uint64_t kSmallTree = 20000;
constexpr std::uint64_t kNamesOfAFolder = 1000;

std::string makeScratch() {
    std::string folder = (std::filesystem::temp_directory_path() / "corvalen.XXXXXX").string();
    require(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
    return folder;
}

/// A tree in memory measures the walk and not the disk.
void mountMemory(const std::string& folder) {
    require(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "nr_inodes=0,size=75%") == 0, "mount");
}

/// Runs a program with its output thrown away or kept in a file.
void run(const std::vector<std::string>& words, const char* output = "/dev/null") {
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

struct Search {
    const char* what;
    Array rules;
    std::vector<std::string> findTests;
    /// Empty for the names alone.
    std::string findFormat = {};
};

/// What a record tells of an object: path, type, size, date, mode.
constexpr const char* kRecordFormat = "%p\\t%y\\t%s\\t%T@\\t%m\\n";

std::uint64_t searchOnce(Client& client, const std::string& folder, const Array& rules) {
    Array arguments{Value(folder), Value("0")};
    arguments.insert(arguments.end(), rules.begin(), rules.end());
    std::uint64_t found = 0;
    const auto result =
        client.perform("search-patterns", std::move(arguments), [&](const Dictionary& message) {
            const Value* records = message.find(kQRLPORK_FileObjectInfo);
            if (records != nullptr) found += records->array()->size();
        });
    require(result.succeeded() && result.feedbackComplete, "search-patterns");
    return found;
}

std::uint64_t linesOf(const std::string& path) {
    std::ifstream file(path);
    return static_cast<std::uint64_t>(
        std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n'));
}

void compare(Client& client, const std::string& scratch, const Search& search) {
    const std::string tree = scratch + "/tree";
    std::vector<std::string> find{"find", tree, "-mindepth", "1", "("};
    find.insert(find.end(), search.findTests.begin(), search.findTests.end());
    find.emplace_back(")");
    if (!search.findFormat.empty()) find.insert(find.end(), {"-printf", search.findFormat});
    const std::string list = scratch + "/found";
    run(find, list.c_str());
    const std::uint64_t expected = linesOf(list);
    require(searchOnce(client, tree, search.rules) == expected, "finding what find finds");

    std::vector<double> times;
    std::vector<double> findTimes;
    std::vector<double> ratios;
    for (int round = 0; round < kRounds; ++round) {
        findTimes.push_back(secondsOf([&] { run(find); }));
        times.push_back(secondsOf([&] { searchOnce(client, tree, search.rules); }));
        ratios.push_back(times.back() / findTimes.back());
    }
    std::printf("search-patterns, %-16s %8llu found  %7.1f ms   find %7.1f ms   ratio %.2f\n",
                search.what, static_cast<unsigned long long>(expected), median(times) * 1000,
                median(findTimes) * 1000, median(ratios));
}

/// A tree that costs little: names of one file, a thousand in each folder.
void makeLinks(const std::string& folder, std::uint64_t count) {
    const std::string file = folder + "/one.hit";
    require(::close(::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)) == 0, "open");
    for (std::uint64_t i = 1; i < count; ++i) {
        const std::string sub = folder + "/" + std::to_string(i / kNamesOfAFolder);
        if (i == 1 || i % kNamesOfAFolder == 0) {
            require(::mkdir(sub.c_str(), 0700) == 0, "mkdir");
            continue;
        }
        const std::string name = sub + "/" + std::to_string(i) + (i % 100 == 1 ? ".hit" : ".txt");
        require(::link(file.c_str(), name.c_str()) == 0, "link");
    }
}

/// Peak memory of a daemon that walks one tree and nothing else.
long peakMemory(const Daemon& daemon, const std::string& scratch, std::uint64_t count) {
    const std::string folder = scratch + "/memory";
    require(::mkdir(folder.c_str(), 0700) == 0, "mkdir");
    mountMemory(folder);
    makeLinks(folder, count);
    long peak = 0;
    {
        const auto client = Daemon::connect();
        searchOnce(*client, folder, {Value("2"), Value("hit")});
        peak = daemon.peakKilobytes();
    }
    daemon.waitUntilEnded();
    require(::umount(folder.c_str()) == 0 && ::rmdir(folder.c_str()) == 0, "umount");
    return peak;
}

void measureMemory(const Daemon& daemon, const std::string& scratch, std::uint64_t large) {
    daemon.waitUntilEnded();
    const long small = peakMemory(daemon, scratch, kSmallTree);
    const long grown = peakMemory(daemon, scratch, large);
    std::printf("daemon's peak memory  %ld KiB at %llu objects, %ld KiB at %llu: %+ld KiB\n", small,
                static_cast<unsigned long long>(kSmallTree), grown,
                static_cast<unsigned long long>(large), grown - small);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string objects = argc > 1 ? argv[1] : "200000";
    const std::uint64_t large = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 2000000;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const Daemon daemon;
    const std::string scratch = makeScratch();
    mountMemory(scratch);
    run({MAKE_TREE_PROGRAM, scratch + "/tree", objects});
    {
        const auto client = Daemon::connect();
        const Array allRules{"2", "hit", "2", "txt"};
        const std::vector<std::string> allTests{"-name", "*.hit", "-o", "-name", "*.txt"};
        const Search searches[] = {
            {"one in a hundred", {"2", "hit"}, {"-name", "*.hit"}},
            {"three rules",
             {"0", "none", "1", "99", "2", "hit"},
             {"-name", "none", "-o", "-name", "99*", "-o", "-name", "*.hit"}},
            {"all", allRules, allTests, kRecordFormat},
            {"all, find: names", allRules, allTests},
        };
        for (const Search& search : searches)
            compare(*client, scratch, search);
    }
    measureMemory(daemon, scratch, large);
    require(::umount(scratch.c_str()) == 0 && ::rmdir(scratch.c_str()) == 0, "umount");
    return 0;
}
