// SPDX-License-Identifier: MIT
// Times every walk of the daemon and the deletion of a tree with cold caches, by turns with the
// tools that do the same work. Drops the caches of the WHOLE MACHINE before each run.
//
// Usage: endtoend_cold [directory on the disk [objects [rounds]]]
#include "walk_comparisons.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr int kRounds = 5;
constexpr int kRoundsOfDeletion = 3;
constexpr const char* kManyThreads = "16";

void dropCaches() {
    ::sync();
    std::ofstream file("/proc/sys/vm/drop_caches");
    file << "3\n";
    file.flush();
    require(file.good(), "dropping the caches (this needs root)");
}

/// Adds the tools with many threads, and the lower bound: a pool that makes only the system calls.
void addPools(const std::string& tree, Comparison* comparison) {
    const std::string operation = comparison->operation;
    const bool byName = operation == "search-patterns";
    if (byName && comparison->tools.size() > 1)
        comparison->tools.push_back({"fdfind", "-u", "-j", kManyThreads, "-e", "hit", ".", tree});
    if (operation.starts_with("prop-")) return;
    comparison->tools.push_back(
        {BARE_POOL_PROGRAM, tree, kManyThreads, byName ? "names" : "statx"});
}

void compare(Client& client, const std::string& tree, Comparison comparison, int rounds) {
    addPools(tree, &comparison);
    Measured measured(comparison.tools);
    std::vector<double> silences;
    for (int round = 0; round < rounds; ++round) {
        measured.round([&] { performOnce(client, tree, comparison, &silences.emplace_back()); },
                       dropCaches);
    }
    measured.report(std::string(comparison.operation) + " " + comparison.what, tree);
    std::printf("    longest time without a message: %.1f ms\n", median(silences) * 1000);
}

void compareDeletion(Client& client, const std::string& tree, const std::string& objects,
                     int rounds) {
    const std::vector<Words> tools{{"rm", "-rf", tree}};
    Measured measured(tools);
    const auto prepare = [&] {
        run({MAKE_TREE_PROGRAM, tree, objects});
        dropCaches();
    };
    const auto remove = [&] {
        require(client.perform("delete-fileobjects", {"1", "1", tree}).succeeded(), "deletion");
    };
    for (int round = 0; round < rounds; ++round)
        measured.round(remove, prepare);
    measured.report("delete-fileobjects recursive", tree);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string top = argc > 1 ? argv[1] : std::filesystem::temp_directory_path().string();
    const std::string objects = argc > 2 ? argv[2] : "182000";
    const int rounds = argc > 3 ? std::atoi(argv[3]) : kRounds;
    std::printf("drops the caches of the whole machine before each run\n");
    std::string scratch = top + "/corvalen.XXXXXX";
    require(::mkdtemp(scratch.data()) != nullptr, "mkdtemp");
    const std::string tree = scratch + "/tree";
    run({MAKE_TREE_PROGRAM, tree, objects});
    const Daemon daemon;
    std::printf("-- %s objects, cold\n", objects.c_str());
    {
        const auto client = Daemon::connect();
        for (const Comparison& comparison : comparisons(tree))
            compare(*client, tree, comparison, rounds);
        run({"rm", "-rf", tree});
        compareDeletion(*client, tree, objects, std::min(rounds, kRoundsOfDeletion));
        std::printf("daemon's peak memory: %ld KiB\n", daemon.peakKilobytes());
    }
    std::filesystem::remove_all(scratch);
    return 0;
}
