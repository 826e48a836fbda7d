// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "foundation/error.hpp"
#include "operations/names.hpp"
#include "platform/atomic_file.hpp"
#include "settings/scratch_folder.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

constexpr uid_t kAlice = 61001;
constexpr uid_t kMallory = 61002;
constexpr const char* kAnyHost = "kCFPreferencesAnyHost";

/// A machine with the users alice and mallory, whose user database only this process sees.
class StoreOperations : public testing::Test {
  protected:
    void SetUp() override {
        writeText(scratch / "passwd",
                  "root:x:0:0::/root:/bin/sh\nalice:x:61001:61001::" + home("alice") +
                      ":/bin/sh\nmallory:x:61002:61002::" + home("mallory") + ":/bin/sh\n");
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount((scratch / "passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0) {
            GTEST_SKIP() << "no private mount namespace";
        }
        makeHome("alice", kAlice);
        makeHome("mallory", kMallory);
        SettingsServices services = hostSettingsServices();
        services.preferences = makePreferences(scratch / "xdg/preferences");
        services.systemConfiguration = makeSystemConfiguration(scratch / "store", scratch / "run");
        operations = std::make_unique<SettingsOperations>(std::move(services), [](auto) {});
    }
    void TearDown() override { ::umount2("/etc/passwd", MNT_DETACH); }

    [[nodiscard]] std::string home(const std::string& user) const { return scratch / user; }
    void makeHome(const std::string& user, uid_t uid) const {
        std::filesystem::create_directory(home(user));
        ASSERT_EQ(::chown(home(user).c_str(), uid, uid), 0);
        ::chmod(home(user).c_str(), 0700);
    }

    /// The code of the error, 0 for none; a code below 0 is one of our own domain.
    std::int64_t setPreference(const std::string& key, const std::string& domain,
                               const std::string& user, const std::string& host,
                               const std::string& text) {
        return code(operations->performOperationModifyPreferencesWithArguments(
            {key, domain, user, host, text}));
    }
    std::int64_t setConfiguration(const std::string& identifier, const std::string& key,
                                  const std::string& text) {
        return code(operations->performOperationModifySysconfWithArguments(
            {"test", identifier, key, text}));
    }
    std::int64_t code(const ErrorRef& result) {
        error = result;
        if (!result) return 0;
        return result->domain() == kErrorDomain ? -result->code() : result->code();
    }

    ScratchFolder scratch;
    std::string aliceFolder = scratch / "alice/.config/preferences";
    std::string stored = scratch / "store/system-configuration/preferences.plist";
    std::string view = scratch / "run/system-configuration/preferences.plist";
    std::unique_ptr<SettingsOperations> operations;
    ErrorRef error;
};

TEST_F(StoreOperations, PreferencesLieWhereTheirDomainSays) {
    std::array<char, 256> hostName{};
    ASSERT_EQ(::gethostname(hostName.data(), hostName.size() - 1), 0);
    const std::string anyUser = scratch / "xdg/preferences/";
    const struct {
        const char* domain;
        const char* user;
        const char* host;
        std::string path;
        uid_t owner;
        mode_t mode;
    } kPlaces[] = {
        {"org.app", "alice", kAnyHost, aliceFolder + "/org.app.plist", kAlice, 0600},
        {"org.app", "alice", "h1", aliceFolder + "/ByHost/org.app.h1.plist", kAlice, 0600},
        {"NSGlobalDomain", "kCFPreferencesAnyUser", kAnyHost, anyUser + ".GlobalPreferences.plist",
         0, 0644},
        {"org.app", "kCFPreferencesAnyUser", "kCFPreferencesCurrentHost",
         anyUser + "ByHost/org.app." + hostName.data() + ".plist", 0, 0644},
    };
    const mode_t mask = ::umask(027);
    for (const auto& place : kPlaces) {
        EXPECT_EQ(setPreference("k", place.domain, place.user, place.host, "{a=(1,<0aff>);}"), 0);
        EXPECT_EQ(readWithOracle(place.path), "{'k': {'a': ['1', b'\\n\\xff']}}") << place.path;
        const struct stat attributes = attributesOf(place.path);
        EXPECT_EQ(attributes.st_uid, place.owner);
        EXPECT_EQ(attributes.st_mode, S_IFREG | place.mode);
        const struct stat folder = attributesOf(std::filesystem::path(place.path).parent_path());
        EXPECT_EQ(folder.st_uid, place.owner);
        EXPECT_EQ(folder.st_mode, S_IFDIR | (place.owner == 0 ? 0755U : 0700U));
        // Removing the key leaves the others; what is not there can be removed as well.
        EXPECT_EQ(setPreference("l", place.domain, place.user, place.host, "<true/>"), 0);
        EXPECT_EQ(setPreference("k", place.domain, place.user, place.host, ""), 0);
        EXPECT_EQ(setPreference("k", place.domain, place.user, place.host, ""), 0);
        EXPECT_EQ(readWithOracle(place.path), "{'l': True}");
    }
    ::umask(mask);
    EXPECT_EQ(setPreference("k", "none", "mallory", kAnyHost, ""), 0);
    EXPECT_FALSE(std::filesystem::exists(home("mallory") + "/.config"));
    EXPECT_EQ(::setfsuid(static_cast<uid_t>(-1)), 0) << "the thread is root again";
}

TEST_F(StoreOperations, BadArgumentsChangeNothing) {
    ASSERT_EQ(setPreference("k", "d", "alice", kAnyHost, "old"), 0);
    const std::string path = aliceFolder + "/d.plist";
    const std::string before = readText(path);
    for (const char* text : {"<plist><dict><key>k</key>", "{a=1", "<dict><key>a</key></dict>"}) {
        EXPECT_EQ(setPreference("k", "d", "alice", kAnyHost, text), 22) << text;
        ASSERT_TRUE(error->underlyingError()) << text;
        EXPECT_NE(error->underlyingError()->localizedDescription().find("line 1"),
                  std::string::npos);
        EXPECT_EQ(setConfiguration("", "k", text), 22);
        EXPECT_TRUE(error->underlyingError());
    }
    const std::string nul("d\0", 2);
    const struct {
        std::string key, domain, user, host;
        std::int64_t code;
    } kRefused[] = {
        {"", "d", "alice", kAnyHost, 22},
        {"k", "", "alice", kAnyHost, 22},
        {"k", "d", "", kAnyHost, 22},
        {"k", "d", "alice", "", 22},
        {"k", "d", "nobody-here", kAnyHost, -12},
        {"k", "d", "alice" + nul, kAnyHost, -12},
        {"k", "../d", "alice", kAnyHost, -12},
        {"k", "..", "alice", kAnyHost, -12},
        {"k", nul, "alice", kAnyHost, -12},
        {"k", "d\n", "alice", kAnyHost, -12},
        {"k", "d", "alice", "../../h", -12},
        {"k", std::string(201, 'd'), "alice", kAnyHost, -12},
        {"k\1", "d", "alice", kAnyHost, -12},
    };
    for (const auto& bad : kRefused)
        EXPECT_EQ(setPreference(bad.key, bad.domain, bad.user, bad.host, "new"), bad.code)
            << bad.key << '|' << bad.domain << '|' << bad.user << '|' << bad.host;
    EXPECT_EQ(readText(path), before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(aliceFolder), {}), 2);
    for (const char* identifier : {"../x", "a/b", ".x", "..", "a\n"})
        EXPECT_EQ(setConfiguration(identifier, "k", "v"), -13) << identifier;
    EXPECT_EQ(setConfiguration("", "", "v"), 22);
    EXPECT_EQ(code(operations->performOperationModifySysconfWithArguments({"", "", "k", "v"})), 22);
}

TEST_F(StoreOperations, NothingInAHomeFolderLeadsElsewhere) {
    const std::string victim = scratch / "alice/.config/preferences/d.plist";
    ASSERT_EQ(setPreference("k", "d", "alice", kAnyHost, "secret"), 0);
    const std::string rootFile = scratch / "root-only/d.plist";
    writeText(rootFile, "{k = root;}");
    // Open to everybody: what keeps mallory out is that no link is followed.
    for (const std::string& open : {home("alice"), home("alice") + "/.config", aliceFolder, victim,
                                    scratch / "root-only", rootFile})
        ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
    const std::string config = home("mallory") + "/.config";
    const std::string folder = config + "/preferences";
    const std::string file = folder + "/d.plist";
    const auto link = [](const std::string& target, const std::string& at) {
        std::filesystem::create_directories(std::filesystem::path(at).parent_path());
        std::filesystem::create_symlink(target, at);
    };
    const std::pair<const char*, std::function<void()>> kTraps[] = {
        {"config linked", [&] { link(scratch / "alice/.config", config); }},
        {"folder linked", [&] { link(scratch / "root-only", folder); }},
        {"file linked", [&] { link(rootFile, file); }},
        {"dangling", [&] { link(scratch / "root-only/new", file); }},
        {"lock linked", [&] { link(scratch / "root-only/new", folder + "/.lock"); }},
        {"folder of another", [&] { std::filesystem::create_directories(folder); }},
        {"pipe",
         [&] {
             std::filesystem::create_directories(folder);
             ::mkfifo(file.c_str(), 0666);
         }},
        {"no list", [&] { writeText(file, "{ broken"); }},
        {"other list", [&] { writeText(file, "(1, 2)"); }},
    };
    for (const auto& [name, set] : kTraps) {
        std::filesystem::remove_all(config);
        set();
        if (std::string_view(name) != "folder of another") {
            for (const std::string& path : {config, folder, file}) {
                (void)::lchown(path.c_str(), kMallory, kMallory);
                if (std::filesystem::is_symlink(path)) break;
            }
        }
        const bool pipe = std::filesystem::is_fifo(file);
        const std::string before = pipe ? "" : readText(file);
        EXPECT_EQ(setPreference("k", "d", "mallory", kAnyHost, "new"), -12) << name;
        EXPECT_EQ(pipe ? "" : readText(file), before) << name;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch / "root-only"), {}), 1);
    }
    EXPECT_EQ(readText(rootFile), "{k = root;}");
    EXPECT_EQ(readWithOracle(victim), "{'k': 'secret'}");
    // A hard link is replaced, never written through.
    std::filesystem::remove_all(config);
    std::filesystem::create_directories(folder);
    writeText(scratch / "mine", "{k = mine;}");
    std::filesystem::create_hard_link(scratch / "mine", file);
    for (const std::string& path : {config, folder, file})
        ASSERT_EQ(::chown(path.c_str(), kMallory, kMallory), 0);
    ::chmod(file.c_str(), 0640);
    EXPECT_EQ(setPreference("k", "d", "mallory", kAnyHost, "new"), 0);
    EXPECT_EQ(readText(scratch / "mine"), "{k = mine;}");
    EXPECT_EQ(attributesOf(file).st_mode, S_IFREG | 0640U);
}

TEST_F(StoreOperations, WritersOfOnePlaceLoseNothing) {
    constexpr int kThreads = 4;
    constexpr int kKeys = 8;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    std::atomic<int> failures = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([this, thread, &failures] {
            for (int i = 0; i < kKeys; ++i) {
                const std::string key = std::to_string(thread * kKeys + i);
                const auto result = operations->performOperationModifyPreferencesWithArguments(
                    {key, "d", thread % 2 == 0 ? "alice" : "mallory", kAnyHost,
                     "<integer>1</integer>"});
                const auto other = operations->performOperationModifySysconfWithArguments(
                    {"test", "", key, "<integer>1</integer>"});
                failures += (result ? 1 : 0) + (other ? 1 : 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    const auto keysIn = [](const std::string& path) {
        const std::string found = readWithOracle(path);
        return std::count(found.begin(), found.end(), ':');
    };
    EXPECT_EQ(keysIn(aliceFolder + "/d.plist"), kThreads * kKeys / 2);
    EXPECT_EQ(keysIn(home("mallory") + "/.config/preferences/d.plist"), kThreads * kKeys / 2);
    EXPECT_EQ(keysIn(stored), kThreads * kKeys);
}

TEST_F(StoreOperations, TheConfigurationIsAppliedAndThenCommitted) {
    EXPECT_EQ(setConfiguration("", "k", "<array><date>2020-01-02T03:04:05Z</date></array>"), 0);
    EXPECT_EQ(readText(stored), readText(view));
    EXPECT_EQ(readWithOracle(view), "{'k': [datetime.datetime(2020, 1, 2, 3, 4, 5)]}");
    EXPECT_EQ(attributesOf(view).st_mode, S_IFREG | 0644U);
    EXPECT_EQ(attributesOf(stored).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(setConfiguration("other.plist", "k", "v"), 0);
    EXPECT_EQ(setConfiguration("", "k", ""), 0);
    EXPECT_EQ(readWithOracle(stored) + readWithOracle(view), "{}{}");

    // What cannot be applied is not committed; what cannot be committed was applied already.
    const std::string other = scratch / "store/system-configuration/other.plist";
    std::filesystem::rename(scratch / "run", scratch / "run-away");
    writeText(scratch / "run", "in the way");
    EXPECT_EQ(setConfiguration("other.plist", "k", "w"), -13);
    EXPECT_EQ(readWithOracle(other), "{'k': 'v'}");
    std::filesystem::remove(scratch / "run");
    writeText(stored, "{ broken");
    EXPECT_EQ(setConfiguration("", "k", "w"), -13);
    EXPECT_EQ(readText(stored), "{ broken");
    EXPECT_FALSE(std::filesystem::exists(view));
}

TEST_F(StoreOperations, AConfigurationThatIsLockedIsWaitedFor) {
    ASSERT_EQ(setConfiguration("", "k", "1"), 0);
    const std::string folder = scratch / "store/system-configuration";
    const UniqueFd store(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int lockError = 0;
    UniqueFd lock = lockFile(store.get(), ".preferences.plist.lock", std::nullopt, &lockError);
    ASSERT_TRUE(lock);
    EXPECT_FALSE(lockFile(store.get(), ".preferences.plist.lock", std::chrono::milliseconds(30),
                          &lockError));
    EXPECT_EQ(lockError, EAGAIN);
    std::atomic<bool> done = false;
    std::thread writer([this, &done] {
        EXPECT_EQ(setConfiguration("", "k", "2"), 0);
        done = true;
    });
    // A signal in the middle of the wait changes nothing.
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ::pthread_kill(writer.native_handle(), SIGUSR1);
    }
    EXPECT_FALSE(done);
    EXPECT_EQ(readWithOracle(stored), "{'k': '1'}");
    lock.reset();
    writer.join();
    EXPECT_EQ(readWithOracle(stored), "{'k': '2'}");

    std::filesystem::remove(folder + "/.preferences.plist.lock");
    std::filesystem::create_directory(folder + "/.preferences.plist.lock");
    EXPECT_EQ(setConfiguration("", "k", "3"), 16);
    EXPECT_EQ(readWithOracle(stored), "{'k': '2'}");
}

/// Lets a child write until it makes its system call number `last`, and kills it there. False when
/// it had finished before.
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
    if (!WIFSTOPPED(status)) return false;
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return true;
}

TEST_F(StoreOperations, ACrashLeavesTheOldConfigurationOrTheNew) {
    ASSERT_EQ(setConfiguration("", "k", "old"), 0);
    const std::string old = readText(stored);
    ASSERT_EQ(setConfiguration("", "k", "new"), 0);
    const std::string fresh = readText(stored);
    int oldSeen = 0;
    int freshSeen = 0;
    int applied = 0;
    for (int call = 1;; ++call) {
        writeText(stored, old);
        writeText(view, old);
        if (!killedAtCall(call, [this] { (void)setConfiguration("", "k", "new"); })) break;
        const std::string found = readText(stored);
        ASSERT_TRUE(found == old || found == fresh) << "killed at call " << call;
        ASSERT_TRUE(readText(view) == old || readText(view) == fresh);
        oldSeen += found == old ? 1 : 0;
        freshSeen += found == fresh ? 1 : 0;
        applied += found == old && readText(view) == fresh ? 1 : 0;
        ASSERT_FALSE(found == fresh && readText(view) == old) << "committed before it was applied";
    }
    EXPECT_GT(oldSeen, 20);
    EXPECT_GT(freshSeen, 0);
    EXPECT_GT(applied, 0);
    // The lock died with its holder, and leftovers are in nobody's way.
    EXPECT_EQ(setConfiguration("", "k", "new"), 0);
}

}  // namespace
}  // namespace corvalen
