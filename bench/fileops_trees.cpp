// SPDX-License-Identifier: MIT
// Alternates recursive removal and "rm -rf", locking and "chattr -R", on the same fresh trees.
//
// Usage: fileops_trees [folder [objects [rounds]]]
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "fileops/file_operations.hpp"

namespace {

using namespace corvalen;

constexpr int kFoldersOfOneFolder = 10;
constexpr int kFilesOfOneFolder = 90;

void check(bool done, const char* what) {
    if (done) return;
    std::perror(what);
    std::exit(1);
}

/// Makes 90 files and 10 directories per directory, breadth first, up to this number of objects.
void makeTree(const std::string& top, int objects) {
    std::vector<std::string> folders = {top};
    check(::mkdir(top.c_str(), 0755) == 0, "mkdir");
    for (std::size_t next = 0; objects > 0; ++next) {
        const std::string folder = folders[next];
        for (int i = 0; i < kFilesOfOneFolder && objects > 0; ++i, --objects) {
            const std::string path = folder + "/file-" + std::to_string(i);
            const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            check(fd >= 0, "open");
            ::close(fd);
        }
        for (int i = 0; i < kFoldersOfOneFolder && objects > 0; ++i, --objects) {
            folders.push_back(folder + "/folder-" + std::to_string(i));
            check(::mkdir(folders.back().c_str(), 0755) == 0, "mkdir");
        }
    }
}

void makeFlat(const std::string& top, int objects) {
    check(::mkdir(top.c_str(), 0755) == 0, "mkdir");
    for (int i = 0; i < objects; ++i) {
        const std::string path = top + "/a-longer-file-name-" + std::to_string(i * 7919 % objects);
        const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        check(fd >= 0, "open");
        ::close(fd);
    }
}

void run(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t child = 0;
    int status = 0;
    check(::posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) == 0, argv[0]);
    check(::waitpid(child, &status, 0) == child && status == 0, argv[0]);
}

double seconds(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Contest {
    const char* name;
    std::vector<double> ours;
    std::vector<double> theirs;

    void report() {
        std::sort(ours.begin(), ours.end());
        std::sort(theirs.begin(), theirs.end());
        const double our = ours[ours.size() / 2];
        const double their = theirs[theirs.size() / 2];
        std::printf("%-28s ours %7.3f s   tool %7.3f s   ratio %5.2f\n", name, our, their,
                    our / their);
    }
};

void expectSuccess(const ErrorRef& error) {
    if (!error) return;
    std::fprintf(stderr, "%s\n", error->localizedDescription().c_str());
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string top = std::string(argc > 1 ? argv[1] : "/tmp") + "/fileops-bench";
    const int objects = argc > 2 ? std::atoi(argv[2]) : 100000;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    const auto flags = makeFileFlags();
    const auto acl = makeExtendedAcl();
    const auto manager = makeFileManager(*flags);
    FileOperations operations(*manager, *flags, *acl);

    const auto remove = [&] {
        expectSuccess(
            operations.performOperationDeleteFileobjectsWithArguments({"1", "1", top}, nullptr));
    };
    const auto protect = [&](bool lock) {
        expectSuccess(
            operations.performOperationModifyProtectionWithArguments({top, lock, true, false}));
    };
    const auto rm = [&] { run({"rm", "-rf", top}); };
    const auto chattr = [&](const char* change) { run({"chattr", "-R", change, top}); };

    Contest tree{"remove, tree", {}, {}};
    Contest flat{"remove, one flat folder", {}, {}};
    Contest lock{"lock, tree", {}, {}};
    Contest lockAgain{"lock, already locked", {}, {}};
    Contest unlock{"unlock, tree", {}, {}};
    for (int round = 0; round < rounds; ++round) {
        makeTree(top, objects);
        lock.ours.push_back(seconds([&] { protect(true); }));
        lockAgain.ours.push_back(seconds([&] { protect(true); }));
        unlock.ours.push_back(seconds([&] { protect(false); }));
        lock.theirs.push_back(seconds([&] { chattr("+i"); }));
        lockAgain.theirs.push_back(seconds([&] { chattr("+i"); }));
        unlock.theirs.push_back(seconds([&] { chattr("-i"); }));
        rm();
        makeTree(top, objects);
        tree.ours.push_back(seconds(remove));
        makeTree(top, objects);
        tree.theirs.push_back(seconds(rm));
        makeFlat(top, objects);
        flat.ours.push_back(seconds(remove));
        makeFlat(top, objects);
        flat.theirs.push_back(seconds(rm));
    }
    std::printf("%d objects, medians of %d rounds\n", objects, rounds);
    for (Contest* contest : {&tree, &flat, &lock, &lockAgain, &unlock})
        contest->report();
    return 0;
}
