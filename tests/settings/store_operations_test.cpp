// SPDX-License-Identifier: MIT
#include <sys/fsuid.h>
#include <sys/ptrace.h>

#include <functional>
#include <map>
#include <thread>

#include "platform/files/atomic_file.hpp"
#include "settings/settings_files.hpp"
#include "support/child.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;

constexpr const char* kAnyHost = "kCFPreferencesAnyHost";

/// A machine with the users alice and mallory, whose user database only this process sees.
class StoreOperations : public SettingsTest {
  protected:
    void SetUp() override {
        const std::string passwd =
            file("passwd", "alice:x:61001:61001::" + at("alice:/bin/sh\n") +
                               "mallory:x:61002:61002::" + at("mallory:/bin/sh\n"));
        if (!test::enterOwnMounts({}) ||
            ::mount(passwd.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0)
            GTEST_SKIP() << "no private mount namespace";
        ASSERT_TRUE(
            inside("mkdir -m 700 alice mallory && chown 61001:61001 alice && "
                   "chown 61002:61002 mallory"));
        SettingsServices services = hostSettingsServices();
        services.preferences = makePreferences(at("xdg/preferences"));
        services.systemConfiguration = makeSystemConfiguration(at("store"), at("run"));
        operations = std::make_unique<SettingsOperations>(std::move(services), [](auto) {});
        operations->registerMethods(table);
    }
    void TearDown() override { ::umount2("/etc/passwd", MNT_DETACH); }

    /// Key, domain, user, host, text.
    std::int64_t setPreference(const Array& arguments) {
        return codeOf(error =
                          operations->performOperationModifyPreferencesWithArguments(arguments));
    }
    std::int64_t setConfiguration(const char* identifier, const char* key, const char* text) {
        return codeOf(error = operations->performOperationModifySysconfWithArguments(
                          {"test", identifier, key, text}));
    }

    std::string aliceFolder = at("alice/.config/preferences/");
    std::string malloryFolder = at("mallory/.config/preferences/");
    std::string storeFolder = at("store/system-configuration/");
    std::string stored = storeFolder + "preferences.plist";
    std::string view = at("run/system-configuration/preferences.plist");
    std::unique_ptr<SettingsOperations> operations;
    ErrorRef error;
};

TEST_F(StoreOperations, WriteTheFilesOfTheirDomainsAndTheView) {
    ASSERT_TRUE(::unshare(CLONE_NEWUTS) == 0 && ::sethostname("mill", 4) == 0);
    const mode_t mask = ::umask(027);
    auto all = steps();
    all["restore"] = [this](const auto&) {
        restoreRunningConfiguration(at("store"), at("run"));
        return "";
    };
    test::expectSteps("store_files.txt", _top, all);
    ::umask(mask);
    EXPECT_EQ(::setfsuid(static_cast<uid_t>(-1)), 0) << "the thread is root again";
}

TEST_F(StoreOperations, ChangeNothingForBadArgumentsAndFollowNoLink) {
    expectOperations("stores.txt");
}

TEST_F(StoreOperations, AcceptTheLargestValuesOfAStore) {
    const auto set = [this](const std::string& text) {
        return setPreference({"k", "d", "alice", kAnyHost, text});
    };
    const std::string deepest = std::string(127, '(') + "x" + std::string(127, ')');
    std::string many = "(";
    for (int i = 0; i < 99'998; ++i)
        many += "1,";
    EXPECT_EQ(set(deepest), 0);
    EXPECT_EQ(set(many + ")"), 0);
    EXPECT_EQ(set(std::string("bplist00\t\x8\0\0\0\0\0\0"
                              "\1\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\t",
                              42)),
              0);
    for (const std::string& text : {"(" + deepest + ")", many + "1)", std::string("\"\\U0001\"")}) {
        EXPECT_EQ(set(text), 22) << text.size();
        EXPECT_TRUE(error->underlyingError());
        EXPECT_EQ(setConfiguration("", "k", text.c_str()), 22) << text.size();
    }
    EXPECT_EQ(readWithOracle(aliceFolder + "d.plist"), "{'k': True}");
    EXPECT_EQ(setPreference({"k\1", "d", "alice", kAnyHost, "v"}), 22);
    EXPECT_EQ(set("{a=1"), 22);
    EXPECT_NE(error->underlyingError()->localizedDescription().find("line 1"), -1UL);
}

TEST_F(StoreOperations, ConcurrentWritersLoseNothing) {
    const auto write = [this](const char* user, int first) {
        for (int i = first; i < first + 8; ++i) {
            const std::string key = std::to_string(i);
            EXPECT_FALSE(operations->performOperationModifyPreferencesWithArguments(
                {key, "d", user, kAnyHost, "1"}));
            EXPECT_FALSE(
                operations->performOperationModifySysconfWithArguments({"t", "", key, "1"}));
        }
    };
    std::thread writers[] = {std::thread(write, "alice", 0), std::thread(write, "alice", 8),
                             std::thread(write, "mallory", 16)};
    for (std::thread& writer : writers)
        writer.join();
    for (const auto& [path, keys] :
         {std::pair{aliceFolder + "d.plist", 16}, {malloryFolder + "d.plist", 8}, {stored, 24}}) {
        const std::string found = readWithOracle(path);
        EXPECT_EQ(std::count(found.begin(), found.end(), ':'), keys);
    }

    const UniqueFd folder(::open(storeFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string lockName = ".preferences.plist.lock";
    const Result<UniqueFd> lock = lockFile(folder, lockName, std::nullopt);
    EXPECT_TRUE(failedWith(lockFile(folder, lockName, 30ms), EAGAIN)) << "waits with a limit";
    std::filesystem::remove(storeFolder + lockName);
    std::filesystem::create_directory(storeFolder + lockName);
    EXPECT_EQ(setConfiguration("", "k", "3"), 16) << "no lock can be had";
}

TEST_F(StoreOperations, AFullDiskKeepsTheOldFile) {
    std::filesystem::create_directories(storeFolder);
    ASSERT_EQ(::mount("small", storeFolder.c_str(), "tmpfs", 0, "size=64k"), 0);
    ASSERT_EQ(setConfiguration("", "k", "1"), 0);
    EXPECT_EQ(setConfiguration("", "k", std::string(100'000, 'x').c_str()), -13);
    EXPECT_EQ(readWithOracle(stored), "{'k': '1'}");
    EXPECT_EQ(entriesOf(storeFolder), 2);
    ::umount2(storeFolder.c_str(), MNT_DETACH);
}

/// Runs `write` in a child and kills it at its system call number `last`. Returns false if the
/// child finished before.
bool killedAtCall(int last, const std::function<void()>& write) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        write();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    for (int stop = 0; WIFSTOPPED(status) && stop < last; ++stop) {
        ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        ::waitpid(child, &status, 0);
    }
    const bool isStopped = WIFSTOPPED(status);
    if (isStopped) ::kill(child, SIGKILL);
    if (isStopped) ::waitpid(child, &status, 0);
    return isStopped;
}

TEST_F(StoreOperations, ACrashLeavesTheOldConfigurationOrTheNew) {
    ASSERT_EQ(setConfiguration("", "k", "old"), 0);
    const std::string old = textOf(stored);
    ASSERT_EQ(setConfiguration("", "k", "new"), 0);
    const std::string fresh = textOf(stored);
    std::map<std::pair<std::string, std::string>, int> seen;
    std::ptrdiff_t leftovers = 0;
    for (int call = 1;; ++call) {
        test::putFile(stored, old);
        test::putFile(view, old);
        if (!killedAtCall(call, [this] { (void)setConfiguration("", "k", "new"); })) break;
        ++seen[{textOf(view), textOf(stored)}];
        leftovers += entriesOf(storeFolder) + entriesOf(at("run/system-configuration")) - 3;
    }
    // The view changes before the store; no other state occurs.
    EXPECT_TRUE((seen[{old, old}] > 20 && seen[{fresh, old}] > 0 && seen[{fresh, fresh}] > 0));
    EXPECT_EQ(seen.size(), 3U);
    // New contents have a temporary name between linkat(2) and rename(2). The next writer removes
    // it after a crash.
    if (UniqueFd(::open(storeFolder.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600))) {
        EXPECT_LE(leftovers, 8);
    }
    // The lock ended with its holder, and the next writer cleans up.
    EXPECT_EQ(setConfiguration("", "k", "new"), 0);
    EXPECT_EQ(entriesOf(storeFolder), 2) << "the file and its lock";
    EXPECT_EQ(entriesOf(at("run/system-configuration")), 1);
}

}  // namespace
}  // namespace corvalen
