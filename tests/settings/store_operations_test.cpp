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

TEST_F(StoreOperations, PreferencesLieWhereTheirDomainSays) {
    char hostName[256]{};
    ASSERT_EQ(::gethostname(hostName, sizeof hostName - 1), 0);
    const std::string shared = at("xdg/preferences/");
    const char* currentHost = "kCFPreferencesCurrentHost";
    const char* anyUser = "kCFPreferencesAnyUser";
    const std::tuple<const char*, const char*, const char*, std::string> kPlaces[] = {
        {"app", "alice", "h.o%", aliceFolder + "ByHost/app.h%2Eo%25.plist"},
        {"NSGlobalDomain", anyUser, kAnyHost, shared + ".GlobalPreferences.plist"},
        {"app", anyUser, currentHost, shared + "ByHost/app." + hostName + ".plist"},
    };
    const mode_t mask = ::umask(027);
    for (const auto& [domain, user, host, path] : kPlaces) {
        const bool isShared = user == anyUser;
        EXPECT_EQ(setPreference({"k", domain, user, host, "{a=(1,<0aff>);}"}), 0);
        EXPECT_EQ(readWithOracle(path), "{'k': {'a': ['1', b'\\n\\xff']}}") << path;
        EXPECT_EQ(describedAt(path), isShared ? "0:0 644" : "61001:61001 600");
        EXPECT_EQ(describedAt(std::filesystem::path(path).parent_path()),
                  isShared ? "0:0 755" : "61001:61001 700");
        EXPECT_EQ(setPreference({"l", domain, user, host, "<true/>"}), 0);
        for (const char* what : {"there", "gone"})
            EXPECT_EQ(setPreference({"k", domain, user, host, ""}), 0) << what;
        EXPECT_EQ(readWithOracle(path), "{'l': True}");
    }
    ::umask(mask);
    EXPECT_EQ(setPreference({"k", "none", "mallory", kAnyHost, ""}), 0);
    EXPECT_FALSE(std::filesystem::exists(malloryFolder));
    EXPECT_EQ(::setfsuid(static_cast<uid_t>(-1)), 0) << "the thread is root again";
}

TEST_F(StoreOperations, BadArgumentsChangeNothing) {
    const Array good = {"k", "d", "alice", kAnyHost, "old"};
    ASSERT_EQ(setPreference(good), 0);
    const std::string before = textOf(aliceFolder + "d.plist");
    for (const char* text : {"<plist><dict><key>k</key>", "{a=1"}) {
        EXPECT_EQ(setPreference({"k", "d", "alice", kAnyHost, text}), 22) << text;
        EXPECT_NE(error->underlyingError()->localizedDescription().find("line 1"), -1UL);
        EXPECT_EQ(setConfiguration("", "k", text), 22);
        EXPECT_TRUE(error->underlyingError());
    }
    // The largest values that a store holds, and then the smallest that it does not.
    const std::string deepest = std::string(127, '(') + "x" + std::string(127, ')');
    std::string many = "(";
    for (int i = 0; i < 99'998; ++i)
        many += "1,";
    EXPECT_EQ(setPreference({"k", "fits", "alice", kAnyHost, deepest}), 0);
    EXPECT_EQ(setPreference({"k", "fits", "alice", kAnyHost, many + ")"}), 0);
    EXPECT_EQ(setPreference({"k", "fits", "alice", kAnyHost,
                             std::string("bplist00\t\x8\0\0\0\0\0\0"
                                         "\1\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\t",
                                         42)}),
              0);
    EXPECT_EQ(readWithOracle(aliceFolder + "fits.plist"), "{'k': True}");
    std::filesystem::remove(aliceFolder + "fits.plist");
    for (const std::string& text : {"(" + deepest + ")", many + "1)", std::string("\"\\U0001\"")}) {
        EXPECT_EQ(setPreference({"k", "d", "alice", kAnyHost, text}), 22) << text.size();
        EXPECT_TRUE(error->underlyingError());
        EXPECT_EQ(setConfiguration("", "k", text.c_str()), 22) << text.size();
    }
    const std::tuple<std::size_t, std::string, std::int64_t> kBad[] = {
        {0, "", 22},          {1, "", 22},      {2, "", 22},
        {3, "", 22},          {0, "k\1", 22},   {1, "../d", -12},
        {2, "nobody-x", -12}, {3, "../h", -12}, {2, std::string("alice\0", 6), -12},
    };
    for (const auto& [position, text, code] : kBad) {
        Array arguments = good;
        arguments[position] = text;
        arguments[4] = "new";
        EXPECT_EQ(setPreference(arguments), code) << position << ' ' << text;
    }
    EXPECT_EQ(textOf(aliceFolder + "d.plist"), before);
    EXPECT_EQ(entriesOf(aliceFolder), 2);
    for (const char* identifier : {"../x", ".x", "a\n"})
        EXPECT_EQ(setConfiguration(identifier, "k", "v"), -13) << identifier;
    EXPECT_EQ(setConfiguration("", "", "v"), 22);
    const Array anonymous{"", "", "k", "v"};
    EXPECT_EQ(codeOf(operations->performOperationModifySysconfWithArguments(anonymous)), 22);
    EXPECT_FALSE(std::filesystem::exists(stored));
}

TEST_F(StoreOperations, NothingInAHomeFolderLeadsElsewhere) {
    // Open to all users: only the refusal to follow links protects it.
    ASSERT_TRUE(
        inside("mkdir safe && printf '{k = safe;}' >safe/d.plist && chmod 777 safe safe/d.plist"));
    for (const std::string trap :
         {"rm -r .config && ln -s ../safe .config", "rmdir $there && ln -s ../../safe $there",
          "ln -s ../../../safe/d.plist $file", "ln -s ../../../safe/new $file",
          "ln -s ../../../safe/new $there/.lock", "mkfifo -m 666 $file", "chown 0:0 $there",
          "printf '{ broken' >$file"}) {
        ASSERT_TRUE(
            inside("cd mallory && there=.config/preferences && file=$there/d.plist && "
                   "rm -rf .config && mkdir -p $there && chmod 700 .config $there && "
                   "chown -R 61002:61002 .config && " +
                   trap));
        EXPECT_EQ(setPreference({"k", "d", "mallory", kAnyHost, "new"}), -12) << trap;
        EXPECT_EQ(entriesOf(at("safe")), 1) << trap;
    }
    EXPECT_EQ(textOf(malloryFolder + "d.plist"), "{ broken");
    EXPECT_EQ(textOf(at("safe/d.plist")), "{k = safe;}");
}

TEST_F(StoreOperations, WritersOfOnePlaceLoseNothing) {
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

TEST_F(StoreOperations, TheConfigurationIsAppliedAndThenCommitted) {
    EXPECT_EQ(setConfiguration("", "k", "<array><date>2020-01-02T03:04:05Z</date></array>"), 0);
    EXPECT_EQ(readWithOracle(view), "{'k': [datetime.datetime(2020, 1, 2, 3, 4, 5)]}");
    EXPECT_EQ(describedAt(view) + " " + describedAt(stored), "0:0 644 0:0 600");
    EXPECT_EQ(setConfiguration("other.plist", "k", "v"), 0);
    EXPECT_EQ(setConfiguration("", "k", ""), 0);
    EXPECT_EQ(readWithOracle(stored) + readWithOracle(view), "{}{}");

    // A reboot empties the view. Existing files of the view stay.
    std::filesystem::remove(view);
    test::putFile(at("run/system-configuration/other.plist"), "{k = applied;}");
    restoreRunningConfiguration(at("store"), at("run"));
    EXPECT_EQ(readWithOracle(view), "{}");
    EXPECT_EQ(describedAt(view), "0:0 644");
    EXPECT_EQ(textOf(at("run/system-configuration/other.plist")), "{k = applied;}");
    EXPECT_EQ(entriesOf(at("run/system-configuration")), 2);

    std::filesystem::remove_all(at("run"));
    test::putFile(at("run"), "in the way");
    EXPECT_EQ(setConfiguration("other.plist", "k", "w"), -13);
    EXPECT_EQ(readWithOracle(storeFolder + "other.plist"), "{'k': 'v'}");
    std::filesystem::remove(at("run"));
    test::putFile(stored, "{ broken");
    EXPECT_EQ(setConfiguration("", "k", "w"), -13);
    EXPECT_EQ(textOf(stored), "{ broken");
}

TEST_F(StoreOperations, AFileIsReplacedWholeOrNotAtAll) {
    ASSERT_EQ(setConfiguration("", "k", "1"), 0);
    ASSERT_TRUE(inside("cd store/* && chown 61001:61002 *.plist && chmod 4751 *.plist"));
    EXPECT_EQ(setConfiguration("", "k", "2"), 0);
    EXPECT_EQ(describedAt(stored), "61001:61002 751") << "set-id bits do not survive";
    // The group has less than the mask; the directory has a default list.
    ASSERT_TRUE(
        inside("cd store/* && chmod 640 *.plist && setfacl -m u:61001:rw *.plist && "
               "setfattr -n user.mine -v kept *.plist && setfacl -d -m u:61002:rwx ."));
    const std::string attributes =
        "getfacl -cn *.plist; getfattr -d -m user *.plist; stat -c %A *.plist";
    ASSERT_TRUE(inside("cd store/*; { " + attributes + "; } >../../before"));
    EXPECT_EQ(setConfiguration("", "k", "3"), 0);
    ASSERT_TRUE(
        inside("cd store/*; { " + attributes + "; } >../../after; grep -q kept ../../after"));
    EXPECT_EQ(textOf(at("after")), textOf(at("before")));
    ASSERT_TRUE(inside("cd store/* && setfacl -b *.plist && chmod 600 *.plist"));
    EXPECT_EQ(setConfiguration("", "k", "4"), 0);
    EXPECT_TRUE(inside("! getfacl -cn store/*/*.plist | grep 61002"));
    test::putFile(stored, "");
    EXPECT_EQ(setConfiguration("", "k", "5"), 0) << "what another writer's crash left";
    std::filesystem::create_symlink(stored, storeFolder + "link");
    EXPECT_EQ(setConfiguration("link", "k", "3"), -13);

    // A full disk.
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
