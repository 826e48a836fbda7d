// SPDX-License-Identifier: MIT
#include "exec/task_executor.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <ctime>

#include "support/golden.hpp"
#include "support/missing_calls.hpp"
#include "support/open_descriptors.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
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

class TaskExecutor : public testing::Scratch {
  protected:
    TaskExecutor() { executor.setDelegate(&recorder); }
    ~TaskExecutor() override {
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
        EXPECT_EQ(executor.subTaskOutputHandle(), -1);
    }

    std::string put(const std::string& name, std::string_view contents, mode_t mode = 0755) const {
        return test::putFile(at(name), contents, mode);
    }
    std::int32_t run(const std::string& path, const Words& arguments) {
        return executor.executeProgramAtPath(path, arguments);
    }
    /// The child stays for the executor to reap.
    static void waitForChild() {
        siginfo_t ended{};
        EXPECT_EQ(::waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT), 0);
    }
    std::int32_t shell(const std::string& script) { return run("/bin/sh", {"-c", script}); }

    Recorder recorder;
    QRLTaskExecutor executor;
};

TEST_F(TaskExecutor, GivesTheStatusAndLeavesNothingBehind) {
    const auto before = test::openDescriptors();
    EXPECT_EQ(shell("exit 200"), 200);
    EXPECT_EQ(shell("kill -9 $$"), 9);
    EXPECT_EQ(executor.executeProgramAtPath(std::nullopt, Words()), -1);
    EXPECT_EQ(executor.executeProgramAtPath("/bin/true", std::nullopt), -1);
    EXPECT_EQ(run("/bin/true", {std::string(1 << 20, 'x')}), -1) << "too long an argument";
    for (const std::string& path :
         {std::string(), _top, at("missing"), put("plain", "echo", 0644),
          put("garbage", "no program"), put("lost", "#!/no/such/interpreter\n")})
        EXPECT_EQ(run(path, {}), -1) << path;
    EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(TaskExecutor, DeliversWhileTheChildRuns) {
    const std::string go = at("go");
    recorder.onOutput = [&] { std::ofstream(go) << 1; };
    EXPECT_EQ(shell("echo first; until [ -e " + go + " ]; do sleep 0.01; done; echo then >&2"), 0);
    EXPECT_EQ(recorder.deliveries.at(2), "O:first\n");
    EXPECT_EQ(recorder.output + recorder.error, "first\nthen\n");
}

TEST_F(TaskExecutor, DrainsOutputBeforeErrorAndDeliversEmptyStreams) {
    recorder.onLaunch = waitForChild;
    EXPECT_EQ(shell("echo e >&2; echo o"), 0);
    EXPECT_EQ(run("/bin/true", {}), 0);
    EXPECT_THAT(recorder.deliveries,
                ElementsAre("will", "did", "O:o\n", "E:e\n", "will", "did", "O:", "E:"));
}

TEST_F(TaskExecutor, DeliversTheErrorsOfAChildThatLeavesAFlood) {
    recorder.onLaunch = waitForChild;
    recorder.onOutput = [this] { recorder.output.clear(); };
    QRLTaskExecutor limited({inheritedEnvironment(), std::nullopt}, {60000, 300});
    limited.setDelegate(&recorder);
    EXPECT_EQ(limited.executeProgramAtPath("/bin/sh", Words{"-c", "yes & echo $! >&2"}), 0);
    ASSERT_FALSE(recorder.error.empty());
    ::kill(std::stoi(recorder.error), SIGKILL);
}

TEST_F(TaskExecutor, NeedsNeitherPollNorADelegate) {
    const auto runAlone = [] {
        std::vector<long> calls{SYS_ppoll};
#ifdef SYS_poll
        calls.push_back(SYS_poll);
#endif
        EXPECT_TRUE(test::loseCalls(calls, ENOMEM));
        QRLTaskExecutor alone;
        const Words script{"-c",
                           "echo begin; sleep 0.1; echo bad >&2; sleep 0.1; echo end; exit 3"};
        const int status = alone.executeProgramAtPath("/bin/sh", script);
        ::_exit(HasFailure() ? 1 : status);
    };
    EXPECT_EXIT(runAlone(), ::testing::ExitedWithCode(3), "^bad\n$");
    ::testing::internal::CaptureStdout();
    QRLTaskExecutor().executeProgramAtPath("/bin/echo", Words{"said"});
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "said\n");
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

TEST_F(TaskExecutor, ReadsTheOutputOfLeftoverProcessesForALimitedTime) {
    // The time without output, which starts anew with each byte, and the total time.
    const std::tuple<const char*, std::string, DrainLimits, bool> rows[] = {
        // Holds the pipes; floods; floods later, and only one of them.
        {"sleep 100 & echo $! >&2; echo done", "done\n", {1000, 60000}, false},
        {"yes >&2 & echo $! >&2; echo done", "done\n", {60000, 2000}, true},
        {"(exec 2>&-; sleep 2; exec yes) & echo $! >&2; echo done", "done\n", {1000, 60000}, false},
        {"(for i in 1 2 3 4; do sleep 1.2; echo $i; done) & echo $! >&2",
         "1\n2\n3\n4\n",
         {4000, 60000},
         false},
        {"(sleep 2.2; echo; exec 2>&-; sleep 2.2; echo) & echo $! >&2",
         "\n\n",
         {4000, 60000},
         false},
    };
    const auto openBefore = test::openDescriptors();
    for (const auto& [script, expected, limits, cutOff] : rows) {
        QRLTaskExecutor limited({inheritedEnvironment(), std::nullopt}, limits);
        limited.setDelegate(&recorder);
        recorder = Recorder();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(limited.executeProgramAtPath("/bin/sh", Words{"-c", script}), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 20s) << script;
        EXPECT_EQ(recorder.output, expected);
        EXPECT_EQ(limited.wasOutputCutOff(), cutOff) << script;
        const auto digits = recorder.error.find_first_of("123456789");
        ASSERT_NE(digits, std::string::npos);
        const pid_t left = std::stoi(recorder.error.substr(digits));
        if (std::string_view(script).find("yes") != std::string_view::npos) {
            // Still writing, and neither ended by SIGPIPE nor stopped by a full pipe.
            const auto written = [left] {
                std::ifstream counters("/proc/" + std::to_string(left) + "/io");
                std::string name;
                long long bytes = 0;
                while (counters >> name >> bytes && name != "wchar:")
                    continue;
                return bytes;
            };
            const auto before = written();
            EXPECT_TRUE(test::eventually([&] { return written() > before + (4 << 20); }));
        }
        ::kill(left, SIGKILL);
        ASSERT_TRUE(test::eventually([&] { return test::openDescriptors() == openBefore; }));
    }
}

TEST_F(TaskExecutor, WaitsWithoutWorkForAChildThatClosedItsStreams) {
    const std::clock_t before = std::clock();
    EXPECT_EQ(shell("exec >&- 2>&-; sleep 0.5; exit 5"), 5);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
}

TEST_F(TaskExecutor, ReadsAFloodInBoundedMemory) {
    std::size_t bytes[2] = {0, 0};
    recorder.onOutput = [&] {
        bytes[0] += std::exchange(recorder.output, {}).size();
        bytes[1] += std::exchange(recorder.error, {}).size();
        EXPECT_LE(std::exchange(recorder.deliveries, {}).back().size(), kLargestTaskOutput + 2);
    };
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(shell("head -c 200000000 /dev/zero & head -c 100000000 /dev/zero >&2; wait"), 0);
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(bytes[0], 200'000'000U);
    EXPECT_EQ(bytes[1], 100'000'000U);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB";
}

TEST_F(TaskExecutor, KillsTheProcessGroupWhenItEndsEarly) {
    recorder.onOutput = [] { throw std::runtime_error("no more"); };
    EXPECT_THROW(shell("sleep 100 & echo $!; wait"), std::runtime_error);
    const std::string process = "/proc/" + std::to_string(std::stoi(recorder.output));
    EXPECT_TRUE(test::eventually([&] {
        const std::string state = test::textOf(process + "/stat");
        return state.empty() || state.find(") Z ") != std::string::npos;
    }));
}

TEST_F(TaskExecutor, RunsTheVeryFileThatWasOpenedAndScriptsByTheirPath) {
    fs::copy_file("/bin/echo", at("native"));
    const auto native = ExecutableFile::open(at("native"));
    ASSERT_TRUE(native);
    fs::rename(at("native"), at("moved"));
    put("native", "#!/bin/sh\necho exchanged\n");
    EXPECT_EQ(executor.executeProgram(*native, {"said"}), 0);
    fs::create_symlink("/bin/sh", at("own-name"));
    EXPECT_EQ(run(at("own-name"), {"-c", "echo $0 $#"}), 0);
    put("bin/script", "#!/bin/sh\necho $0 $1\n. \"${0%/*}/beside\"\n");
    put("bin/beside", "ls /proc/self/fd | wc -l\n");
    fs::create_symlink(at("bin/script"), at("link"));
    EXPECT_EQ(run(at("link"), {"said"}), 0);
    EXPECT_EQ(recorder.output,
              "said\n" + at("own-name") + " 0\n" + at("bin/script") + " said\n4\n");
}

TEST_F(TaskExecutor, TrustsOnlyProgramsOfTheSystem) {
    ASSERT_TRUE(
        inside("mkdir -p bin/within && touch bin/file && ln -s bin/file link && "
               "chown -h 1:1 link && chmod 777 ."));  // not the folder of the program
    const auto isSafe = QRLTaskExecutor::hasExecutableSafePermissionsAtPath;
    const auto trust = [&](const std::string& attributes) {
        EXPECT_TRUE(inside("set " + attributes +
                           " && chown $1 bin/file && chmod $2 bin/file && "
                           "chown $3 bin && chmod $4 bin"));
        EXPECT_EQ(isSafe(at("bin/file")), isSafe(at("link")));
        return isSafe(at("link")) ? "trusted" : "refused";
    };
    test::expectRows("trusted_programs.txt", {{"program", trust}});
    EXPECT_FALSE(isSafe("") || isSafe(at("bin/within")) || isSafe(at("none")));
}

}  // namespace
}  // namespace corvalen
