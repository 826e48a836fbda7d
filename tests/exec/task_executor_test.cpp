// SPDX-License-Identifier: MIT
#include "exec/task_executor.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <thread>

#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;
using Words = std::vector<std::string>;

struct Recorder : QRLTaskExecutorDelegate {
    void receiveTaskOutput(Data data, bool isError) override {
        deliveries.emplace_back((isError ? "E:" : "O:") + std::string(data.view()));
        (isError ? error : output).append(data.view());
        if (onOutput) onOutput();
    }
    void taskWillExecute(QRLTaskExecutor& executor) override {
        EXPECT_EQ(executor.subTaskOutputHandle(), -1);
        deliveries.emplace_back("will");
    }
    void taskDidLaunch(QRLTaskExecutor& executor) override {
        EXPECT_GE(executor.subTaskInputHandle(), 0);
        deliveries.emplace_back("did");
        if (onLaunch) onLaunch();
    }
    Words deliveries;
    std::string output;
    std::string error;
    std::function<void()> onOutput;
    std::function<void()> onLaunch;
};

class TaskExecutor : public testing::Test {
  protected:
    TaskExecutor() { executor.setDelegate(&recorder); }
    ~TaskExecutor() override {
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
        EXPECT_EQ(executor.subTaskOutputHandle(), -1);
    }

    std::string put(const std::string& name, std::string_view contents, mode_t mode) const {
        std::ofstream(folder.path(name), std::ios::binary) << contents;
        EXPECT_EQ(::chmod(folder.path(name).c_str(), mode), 0);
        return folder.path(name);
    }
    std::int32_t run(const std::string& path, const Words& arguments) {
        return executor.executeProgramAtPath(path, arguments);
    }
    std::int32_t shell(const std::string& script, Words arguments = {}) {
        arguments.insert(arguments.begin(), {"-c", script, "sh"});
        return run("/bin/sh", arguments);
    }

    test::ScratchFolder folder;
    Recorder recorder;
    QRLTaskExecutor executor;
};

std::ptrdiff_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

TEST_F(TaskExecutor, GivesTheStatusAndLeavesNothingBehind) {
    const auto before = openDescriptors();
    EXPECT_EQ(shell("exit 200"), 200);
    EXPECT_EQ(shell("kill -9 $$"), 9);
    EXPECT_EQ(executor.executeProgramAtPath(std::nullopt, Words()), -1);
    EXPECT_EQ(executor.executeProgramAtPath("/bin/true", std::nullopt), -1);
    EXPECT_EQ(run("/bin/true", {std::string(1 << 20, 'x')}), -1) << "too long an argument";
    for (const std::string& path :
         {std::string(), folder.path(), folder.path("missing"), put("plain", "echo", 0644),
          put("garbage", "no program", 0755), put("lost", "#!/no/such/interpreter\n", 0755)}) {
        EXPECT_EQ(run(path, {}), -1) << path;
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TaskExecutor, PassesArgumentsAsTheyStand) {
    const Words odd = {"two words", "", "$HOME `id` ; *", "a\nb", "\xFF", "-n"};
    EXPECT_EQ(shell("printf '<%s>' \"$@\"", odd), 0);
    fs::create_symlink("/bin/sh", folder.path("own-name"));
    EXPECT_EQ(run(folder.path("own-name"), {"-c", "echo $0 $#"}), 0);
    EXPECT_EQ(recorder.output,
              "<two words><><$HOME `id` ; *><a\nb><\xFF><-n>" + folder.path("own-name") + " 0\n");
}

TEST_F(TaskExecutor, DeliversWhileTheChildRuns) {
    const std::string go = folder.path("go");
    recorder.onOutput = [&] { std::ofstream(go) << 1; };
    EXPECT_EQ(shell("echo first; until [ -e " + go + " ]; do sleep 0.01; done; echo then >&2"), 0);
    ASSERT_GE(recorder.deliveries.size(), 3U);
    EXPECT_EQ(recorder.deliveries[2], "O:first\n");
    EXPECT_EQ(recorder.output + recorder.error, "first\nthen\n");
}

TEST_F(TaskExecutor, DrainsOutputBeforeErrorAndAlsoWhatIsEmpty) {
    recorder.onLaunch = [] { std::this_thread::sleep_for(300ms); };
    EXPECT_EQ(shell("echo e >&2; echo o"), 0);
    EXPECT_EQ(run("/bin/true", {}), 0);
    EXPECT_THAT(recorder.deliveries,
                ElementsAre("will", "did", "O:o\n", "E:e\n", "will", "did", "O:", "E:"));
}

TEST_F(TaskExecutor, GivesTheChildCleanSurroundings) {
    const UniqueFd leaked(::open("/dev/null", O_RDONLY));  // NOLINT: meant to be inherited
    sigset_t blocked;
    sigset_t saved;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &saved);
    auto* const oldHandler = ::signal(SIGPIPE, SIG_IGN);
    QRLTaskExecutor limited({{"A=b"}, rlimit{77, 78}});
    limited.setDelegate(&recorder);
    const std::string script =
        "ls /proc/self/fd | wc -l; ulimit -n; ulimit -Hn; tr '\\0' ' ' < /proc/$$/environ; echo; "
        "grep -E 'Sig(Blk|Ign)' /proc/self/status; [ $(cut -d' ' -f5 /proc/$$/stat) = $$ ] && echo "
        "g";
    EXPECT_EQ(limited.executeProgramAtPath("/bin/sh", Words{"-c", script}), 0);
    ::signal(SIGPIPE, oldHandler);
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    // Four descriptors: the three streams, and the folder that is being listed.
    EXPECT_EQ(recorder.output,
              "4\n77\n78\nA=b \nSigBlk:\t0000000000000000\n"
              "SigIgn:\t0000000000000000\ng\n");
}

TEST_F(TaskExecutor, DoesNotWaitForEverForWhatTheChildLeftBehind) {
    const std::pair<const char*, std::string> rows[] = {
        {"sleep 100 & echo $! >&2; echo done", "done\n"},  // holds the pipes
        {"yes >&2 & echo $! >&2; echo done", "done\n"},    // floods the one drained last
        {"(sleep 0.3; echo late) & echo $! >&2", "late\n"},
    };
    for (const auto& [script, expected] : rows) {
        recorder = Recorder();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(shell(script), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << script;
        EXPECT_EQ(recorder.output, expected);
        const auto digits = recorder.error.find_first_of("123456789");
        ASSERT_NE(digits, std::string::npos);
        ::kill(std::stoi(recorder.error.substr(digits)), SIGKILL);
    }
}

TEST_F(TaskExecutor, WaitsWithoutWorkForAChildThatClosedItsStreams) {
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_THREAD, &before);
    EXPECT_EQ(shell("exec >&- 2>&-; sleep 0.5; exit 5"), 5);
    ::getrusage(RUSAGE_THREAD, &after);
    EXPECT_LT((after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1'000'000 +
                  (after.ru_utime.tv_usec - before.ru_utime.tv_usec),
              200'000);
}

TEST_F(TaskExecutor, TakesAFloodWithoutGrowing) {
    struct Counter : QRLTaskExecutorDelegate {
        void receiveTaskOutput(Data data, bool isError) override {
            bytes[isError ? 1 : 0] += data.bytes.size();
            EXPECT_LE(data.bytes.size(), kLargestTaskOutput);
        }
        std::size_t bytes[2] = {0, 0};
    } counter;
    executor.setDelegate(&counter);
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(shell("head -c 200000000 /dev/zero & head -c 100000000 /dev/zero >&2; wait"), 0);
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(counter.bytes[0], 200'000'000U);
    EXPECT_EQ(counter.bytes[1], 100'000'000U);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB";
}

TEST_F(TaskExecutor, KillsTheProcessGroupWhenItEndsEarly) {
    recorder.onOutput = [] { throw std::runtime_error("no more"); };
    EXPECT_THROW(shell("sleep 100 & echo $!; wait"), std::runtime_error);
    const auto ended = [this] {
        std::ifstream stat("/proc/" + std::to_string(std::stoi(recorder.output)) + "/stat");
        const std::string line(std::istreambuf_iterator<char>(stat), {});
        return line.empty() || line.find(") Z ") != std::string::npos;
    };
    for (int i = 0; i < 200 && !ended(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(ended());
}

TEST_F(TaskExecutor, RunsTheVeryFileThatWasOpened) {
    fs::copy_file("/bin/echo", folder.path("native"));
    put("script", "#!/bin/sh\necho \"script $1\"\n", 0755);
    for (const std::string name : {"native", "script"}) {
        const auto program = ExecutableFile::open(folder.path(name));
        ASSERT_TRUE(program);
        fs::rename(folder.path(name), folder.path("moved"));
        put(name, "#!/bin/sh\necho exchanged\n", 0755);
        EXPECT_EQ(executor.executeProgram(*program, {"said"}), 0);
    }
    EXPECT_EQ(recorder.output, "said\nscript said\n");
}

TEST_F(TaskExecutor, TrustsOnlyProgramsOfTheSystem) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    struct Owned {
        mode_t mode;
        uid_t owner;
        gid_t group;
    };
    struct Row {
        Owned file, folder;
        bool safe;
    };
    const Row rows[] = {
        {{0755, 0, 0}, {0755, 0, 0}, true},  {{06755, 0, 0}, {01700, 0, 0}, true},
        {{0775, 0, 0}, {0755, 0, 0}, false}, {{0757, 0, 0}, {0755, 0, 0}, false},
        {{0755, 1, 0}, {0755, 0, 0}, false}, {{0755, 0, 1}, {0755, 0, 0}, false},
        {{0755, 0, 0}, {0775, 0, 0}, false}, {{0755, 0, 0}, {01777, 0, 0}, false},
        {{0755, 0, 0}, {0755, 1, 0}, false}, {{0755, 0, 0}, {0755, 0, 1}, false},
        {{0755, 0, 0}, {0755, 0, 0}, true},
    };
    fs::create_directories(folder.path("bin/within"));
    const std::string file = put("bin/file", "", 0755);
    const std::string link = folder.path("link");
    fs::create_symlink("bin/file", link);
    ASSERT_EQ(::lchown(link.c_str(), 1, 1), 0);
    fs::permissions(folder.path(), fs::perms::all);  // not the folder of the program
    const auto give = [](const std::string& path, const Owned& owned) {
        return ::chown(path.c_str(), owned.owner, owned.group) == 0 &&
               ::chmod(path.c_str(), owned.mode) == 0;
    };
    for (const Row& row : rows) {
        ASSERT_TRUE(give(file, row.file) && give(folder.path("bin"), row.folder));
        for (const std::string& path : {file, link}) {
            EXPECT_EQ(QRLTaskExecutor::hasExecutableSafePermissionsAtPath(path), row.safe)
                << path << std::oct << ' ' << row.file.mode << ' ' << row.folder.mode;
        }
    }
    for (const std::string& path :
         {std::string(), folder.path("bin/within"), folder.path("bin/none")}) {
        EXPECT_FALSE(QRLTaskExecutor::hasExecutableSafePermissionsAtPath(path)) << path;
    }
}

}  // namespace
}  // namespace corvalen
