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
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace corvalen {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

/// Notes what it is told; `onOutput` and `onLaunch` act in between.
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
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "exec-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        _base = pattern;
        fs::permissions(_base, fs::perms(0755));
        executor.setDelegate(&recorder);
    }
    void TearDown() override {
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
        EXPECT_EQ(executor.subTaskOutputHandle(), -1);
        fs::remove_all(_base);
    }

    std::string put(const std::string& name, std::string_view contents, mode_t mode) const {
        std::string path = _base + "/" + name;
        std::ofstream(path, std::ios::binary) << contents;
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    }

    std::int32_t run(const std::string& path, const Words& arguments) {
        return executor.executeProgramAtPath(path, arguments);
    }
    std::int32_t shell(const std::string& script, Words arguments = {}) {
        arguments.insert(arguments.begin(), {"-c", script, "sh"});
        return run("/bin/sh", arguments);
    }

    std::string _base;
    Recorder recorder;
    QRLTaskExecutor executor;
};

std::size_t openDescriptors() {
    const fs::directory_iterator list("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(fs::begin(list), fs::end(list)));
}

TEST_F(TaskExecutor, GivesTheStatusAndLeavesNothingBehind) {
    const std::size_t before = openDescriptors();
    EXPECT_EQ(shell("exit 0"), 0);
    EXPECT_EQ(shell("exit 200"), 200);
    EXPECT_EQ(shell("kill -9 $$"), 9);
    EXPECT_EQ(executor.executeProgramAtPath(std::nullopt, Words()), -1);
    EXPECT_EQ(executor.executeProgramAtPath("/bin/true", std::nullopt), -1);
    EXPECT_EQ(run("/bin/true", Words(1, std::string(1 << 20, 'x'))), -1) << "too long an argument";
    for (const std::string& path :
         {std::string(), _base, _base + "/missing", put("plain", "echo", 0644),
          put("garbage",
              "\x7F"
              "ELF",
              0755),
          put("lost", "#!/no/such/interpreter\n", 0755)}) {
        EXPECT_EQ(run(path, {}), -1) << path;
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TaskExecutor, PassesArgumentsAsTheyStand) {
    const Words odd = {"two words", "", "$HOME `id` ; *", "a\nb", "\xFF", "-n"};
    EXPECT_EQ(shell("printf '<%s>' \"$@\"", odd), 0);
    EXPECT_EQ(recorder.output, "<two words><><$HOME `id` ; *><a\nb><\xFF><-n>");
    fs::create_symlink("/bin/sh", _base + "/own-name");
    EXPECT_EQ(run(_base + "/own-name", {"-c", "echo $0 $#"}), 0);
    EXPECT_THAT(recorder.output, HasSubstr("/own-name 0\n"));
}

TEST_F(TaskExecutor, DeliversWhileTheChildRuns) {
    const std::string go = _base + "/go";
    recorder.onOutput = [&] { std::ofstream(go) << 1; };
    EXPECT_EQ(shell("echo first; until [ -e " + go + " ]; do sleep 0.01; done; echo then >&2"), 0);
    ASSERT_GE(recorder.deliveries.size(), 4U);
    recorder.deliveries.resize(4);
    EXPECT_THAT(recorder.deliveries, ElementsAre("will", "did", "O:first\n", "E:then\n"));
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
        "ls /proc/self/fd | wc -l; ulimit -n; ulimit -Hn; cut -d' ' -f5 /proc/$$/stat; echo $$; "
        "tr '\\0' ' ' < /proc/$$/environ; echo; grep -E 'Sig(Blk|Ign)' /proc/self/status";
    EXPECT_EQ(limited.executeProgramAtPath("/bin/sh", Words{"-c", script}), 0);
    ::signal(SIGPIPE, oldHandler);
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);

    std::istringstream lines(recorder.output);
    const Words found{std::istream_iterator<std::string>(lines), {}};
    ASSERT_EQ(found.size(), 10U) << recorder.output << recorder.error;
    EXPECT_EQ(found[0], "4") << "its three streams and the folder that it lists";
    EXPECT_EQ(found[1] + " " + found[2], "77 78");
    EXPECT_EQ(found[3], found[4]) << "no process group of its own";
    EXPECT_EQ(found[5], "A=b");
    EXPECT_EQ(found[7], "0000000000000000") << "blocked";
    EXPECT_EQ(found[9], "0000000000000000") << "ignored";
}

TEST_F(TaskExecutor, DoesNotWaitForEverForWhatTheChildLeftBehind) {
    struct Row {
        const char* script;
        const char* expected;
    };
    const Row rows[] = {
        {"sleep 100 & echo $! >&2; echo done", "done\n"},    // holds the pipes
        {"yes >&2 & echo $! >&2; echo done", "done\n"},      // floods the one drained last
        {"(sleep 0.3; echo late) & echo $! >&2", "late\n"},  // in time
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.script);
        recorder = Recorder();
        const auto start = Clock::now();
        EXPECT_EQ(shell(row.script), 0);
        EXPECT_LT(Clock::now() - start, 10s);
        EXPECT_EQ(recorder.output, row.expected);
        const pid_t left =
            std::stoi(recorder.error.substr(recorder.error.find_first_of("123456789")));
        if (left > 1) ::kill(left, SIGKILL);
    }
}

TEST_F(TaskExecutor, WaitsWithoutWorkForAChildThatClosedItsStreams) {
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_THREAD, &before);
    EXPECT_EQ(shell("exec >&- 2>&-; sleep 0.5; exit 5"), 5);
    ::getrusage(RUSAGE_THREAD, &after);
    const auto used = (after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1'000'000 +
                      (after.ru_utime.tv_usec - before.ru_utime.tv_usec);
    EXPECT_LT(used, 200'000);
}

TEST_F(TaskExecutor, TakesAFloodWithoutGrowing) {
    struct Counter : QRLTaskExecutorDelegate {
        void receiveTaskOutput(Data data, bool isError) override {
            bytes[isError ? 1 : 0] += data.bytes.size();
            largest = std::max(largest, data.bytes.size());
        }
        std::size_t bytes[2] = {0, 0};
        std::size_t largest = 0;
    } counter;
    executor.setDelegate(&counter);
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(shell("head -c 200000000 /dev/zero & head -c 100000000 /dev/zero >&2; wait"), 0);
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(counter.bytes[0], 200'000'000U);
    EXPECT_EQ(counter.bytes[1], 100'000'000U);
    EXPECT_LE(counter.largest, kLargestTaskOutput);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB";
    executor.setDelegate(&recorder);
}

TEST_F(TaskExecutor, KillsTheProcessGroupWhenItEndsEarly) {
    recorder.onOutput = [] { throw std::runtime_error("no more"); };
    EXPECT_THROW(shell("sleep 100 & echo $!; wait"), std::runtime_error);
    const pid_t grandchild = std::stoi(recorder.output);
    const auto gone = [grandchild] {
        std::ifstream stat("/proc/" + std::to_string(grandchild) + "/stat");
        std::string pid;
        std::string name;
        std::string state;
        return !(stat >> pid >> name >> state) || state == "Z";
    };
    for (int i = 0; i < 200 && !gone(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(gone());
}

TEST_F(TaskExecutor, RunsTheVeryFileThatWasOpened) {
    fs::copy_file("/bin/echo", _base + "/native");
    put("script", "#!/bin/sh\necho \"script $1\"\n", 0755);
    for (const auto& [name, expected] :
         {std::pair("native", "said\n"), std::pair("script", "script said\n")}) {
        recorder.output.clear();
        const auto program = ExecutableFile::open(_base + "/" + name);
        ASSERT_TRUE(program);
        fs::rename(_base + "/" + name, _base + "/moved");
        put(name, "#!/bin/sh\necho exchanged\n", 0755);
        EXPECT_EQ(executor.executeProgram(*program, {"said"}), 0);
        EXPECT_EQ(recorder.output, expected);
    }
}

TEST_F(TaskExecutor, TrustsOnlyProgramsOfTheSystem) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    struct Row {
        mode_t mode;
        uid_t owner;
        gid_t group;
        mode_t folderMode;
        uid_t folderOwner;
        gid_t folderGroup;
        bool safe;
    };
    const Row rows[] = {
        {0755, 0, 0, 0755, 0, 0, true},   {0, 0, 0, 0, 0, 0, true},
        {06755, 0, 0, 01755, 0, 0, true}, {0775, 0, 0, 0755, 0, 0, false},
        {0757, 0, 0, 0755, 0, 0, false},  {0755, 1, 0, 0755, 0, 0, false},
        {0755, 0, 1, 0755, 0, 0, false},  {0755, 0, 0, 0775, 0, 0, false},
        {0755, 0, 0, 01777, 0, 0, false}, {0755, 0, 0, 0755, 1, 0, false},
        {0755, 0, 0, 0755, 0, 1, false},
    };
    const std::string folder = _base + "/folder";
    fs::create_directories(folder + "/within");
    const std::string file = put("folder/file", "", 0755);
    const std::string link = _base + "/link";
    fs::create_symlink("folder/file", link);
    ASSERT_EQ(::lchown(link.c_str(), 1, 1), 0);
    ASSERT_EQ(::chmod(_base.c_str(), 0777), 0);  // not the folder of the program
    for (const Row& row : rows) {
        ASSERT_EQ(::chown(file.c_str(), row.owner, row.group), 0);
        ASSERT_EQ(::chmod(file.c_str(), row.mode), 0);
        ASSERT_EQ(::chown(folder.c_str(), row.folderOwner, row.folderGroup), 0);
        ASSERT_EQ(::chmod(folder.c_str(), row.folderMode), 0);
        for (const std::string& path : {file, link}) {
            EXPECT_EQ(QRLTaskExecutor::hasExecutableSafePermissionsAtPath(path), row.safe)
                << path << std::oct << ' ' << row.mode << ' ' << row.folderMode;
        }
    }
    ASSERT_EQ(::chown(folder.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
    for (const std::string& path : {std::string(), folder + "/within", folder + "/none"}) {
        EXPECT_FALSE(QRLTaskExecutor::hasExecutableSafePermissionsAtPath(path)) << path;
    }
}

}  // namespace
}  // namespace corvalen
