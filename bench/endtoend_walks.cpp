// SPDX-License-Identifier: MIT
// Alternates every walk through the daemon, finds delivered to the client, and tools that do the
// same on the same warm tree. Also measures the daemon's peak memory on each tree.
//
// Usage: endtoend_walks [objects of a tree...]
#include <sys/mount.h>

#include "walk_comparisons.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr int kRounds = 5;
/// Larger trees get fewer rounds.
constexpr std::uint64_t kLargeTree = 500000;
constexpr int kRoundsOfLargeTree = 3;

std::string makeScratch() {
    std::string folder = (std::filesystem::temp_directory_path() / "corvalen.XXXXXX").string();
    require(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
    return folder;
}

/// Mounts a tmpfs, to measure the walk without the disk.
void mountMemory(const std::string& folder) {
    require(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "nr_inodes=0,size=75%") == 0, "mount");
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
    Measured measured(comparison.tools);
    for (int round = 0; round < rounds; ++round)
        measured.round([&] { performOnce(client, tree, comparison); }, [] {});
    std::ostringstream title;
    title << comparison.operation << ' ' << comparison.what;
    if (comparison.finds) title << " (" << found << " found)";
    measured.report(title.str(), tree);
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
    compare(*client, scratch, orphans, 1);  // find reads the user database for each file
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
