// SPDX-License-Identifier: MIT
// Every system call and every allocation of an operation fails once. However it ends, the operation
// answers and the process lives, loses no descriptor, and keeps its state; what it answers with
// success is done, and what it answers with an error has left nothing behind. Each row says what an
// error may leave.
//
// By default calls fail with EIO, and allocations once. CORVALEN_FAULTS=all takes every call with
// EIO, ENOSPC, EINTR, ENOMEM and ENFILE, and also lets all allocations fail from one on.
#include <sys/mount.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdlib>
#include <optional>
#include <set>

#include "exec/utility_operations.hpp"
#include "faults/failing_calls.hpp"
#include "faults/tree_state.hpp"
#include "fileops/file_operations.hpp"
#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "settings/settings_operations.hpp"
#include "support/child.hpp"
#include "support/scratch.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen::test {
namespace {

/// In the short run all of the first faults of an operation are tried, and then one of so many.
constexpr int kEachUntil = 40;
constexpr int kStep = 37;
constexpr OperationCode kDefineRights = -1;  // what `corvalenctl install-rights` does
constexpr OperationCode kTerminateProcess = 21;
/// Where one of the permitted utilities can be put.
constexpr const char* kUtilities = "/usr/libexec";

constexpr const char* kAnswer = "(answer)";
/// Stands for the number of a process, as an argument, and for the signals sent to it, as an
/// object.
constexpr const char* kProcess = "(process)";

/// What a faulty run left, beside what was there before and what a faultless run makes of it.
struct Ending {
    const TreeState& before;
    const TreeState& after;
    const TreeState& now;
    bool succeeded;
};
/// Empty when the ending is allowed, else the path that is wrong.
using Rule = std::string (*)(const Ending&);

std::set<std::string> pathsOf(const Ending& ending) {
    std::set<std::string> paths;
    for (const TreeState* state : {&ending.before, &ending.after, &ending.now})
        for (const auto& [path, object] : *state)
            paths.insert(path);
    return paths;
}

const ObjectState* find(const TreeState& state, const std::string& path) {
    const auto found = state.find(path);
    return found != state.end() ? &found->second : nullptr;
}

bool same(const ObjectState* one, const ObjectState* other) {
    return one == nullptr || other == nullptr ? one == other : *one == *other;
}

std::string difference(const TreeState& one, const TreeState& other) {
    for (const TreeState* state : {&one, &other})
        for (const auto& [path, object] : *state)
            if (!same(find(one, path), find(other, path))) return path;
    return "";
}

/// All of it or nothing.
std::string whole(const Ending& ending) {
    if (ending.succeeded) return difference(ending.now, ending.after);
    return ending.now == ending.after ? "" : difference(ending.now, ending.before);
}

/// After an error each object may be as before or as it should be.
std::string eachObject(const Ending& ending) {
    if (ending.succeeded) return difference(ending.now, ending.after);
    for (const std::string& path : pathsOf(ending)) {
        const ObjectState* now = find(ending.now, path);
        if (!same(now, find(ending.before, path)) && !same(now, find(ending.after, path)))
            return path;
    }
    return "";
}

/// After an error some objects may be gone, and others unlocked.
std::string partlyGone(const Ending& ending) {
    if (ending.succeeded) return difference(ending.now, ending.after);
    for (const auto& [path, now] : ending.now) {
        const ObjectState* before = find(ending.before, path);
        if (before == nullptr || before->text != now.text) return path;
    }
    return "";
}

/// A new object may be there without all of its attributes.
std::string perhapsMade(const Ending& ending) {
    if (ending.succeeded) return difference(ending.now, ending.after);
    for (const auto& [path, now] : ending.now)
        if (find(ending.after, path) == nullptr) return path;
    return difference(ending.before, ending.now) == "a/new" || ending.before == ending.now ? ""
                                                                                           : "a";
}

/// The old content is whole under one of its names. A write that fails is not told, but keeps the
/// backup.
std::string systemFile(const Ending& ending) {
    const ObjectState* target = find(ending.now, "a/hosts");
    const ObjectState* backup = find(ending.now, "a/hosts.backup");
    for (const auto& [path, now] : ending.now)
        if (path != "a" && path != "b" && path != "a/hosts" && path != "a/hosts.backup")
            return path;
    const ObjectState* old = find(ending.before, "a/hosts");
    const bool oldIsWhole = same(target, old) || same(backup, old);
    const bool newIsWhole = same(target, find(ending.after, "a/hosts"));
    if (!ending.succeeded) return oldIsWhole || ending.now == ending.after ? "" : "a/hosts.backup";
    if (!newIsWhole) return same(backup, old) ? "" : "a/hosts.backup";
    return difference(ending.now, ending.after) == "a/hosts.backup" || ending.now == ending.after
               ? ""
               : "a";
}

/// The tree is whole in one of its places, and in that one only, unless its removal at the old
/// place had begun.
std::string moved(const Ending& ending) {
    if (ending.succeeded) return difference(ending.now, ending.after);
    if (ending.now == ending.before) return "";
    for (const auto& [path, object] : ending.after)
        if (!same(find(ending.now, path), &object)) return path;
    bool someIsGone = false;
    for (const auto& [path, object] : ending.before)
        someIsGone = someIsGone || find(ending.now, path) == nullptr;
    if (!someIsGone) return "a copy beside the source";
    for (const auto& [path, object] : ending.now)
        if (find(ending.before, path) == nullptr && find(ending.after, path) == nullptr)
            return path;
    return "";
}

/// The same objects with the same contents.
std::string perhapsChanged(const Ending& ending) {
    if (ending.succeeded) return difference(ending.now, ending.after);
    for (const std::string& path : pathsOf(ending))
        if ((find(ending.now, path) == nullptr) != (find(ending.before, path) == nullptr))
            return path;
    return "";
}

/// What cannot be listed is passed over, by design. An error may leave an object half changed.
std::string propagated(const Ending& ending) {
    if (!ending.succeeded) return perhapsChanged(ending);
    return eachObject({ending.before, ending.after, ending.now, false});
}

/// Nothing changes; what cannot be read is left out of the answer, by design.
std::string unchanged(const Ending& ending) {
    const std::string path = difference(ending.now, ending.before);
    return path == kAnswer ? "" : path;
}

/// Failures are not told, by design.
std::string sameObjects(const Ending& ending) {
    return perhapsChanged({ending.before, ending.after, ending.now, false});
}

struct Row {
    const char* name;
    OperationCode code;
    Array arguments;
    std::vector<Made> tree;
    Rule rule;
};

struct SilentLog : SystemLog {
    std::string_view destination() const noexcept override { return "test"; }
    bool takesFields() const noexcept override { return true; }
    void log(LogLevel /*level*/, std::string_view /*line*/, const LogFields& /*fields*/) override {}
};

struct NoStandby final : DiskStandby {
    void setTimer(const std::string& /*drive*/, std::uint8_t /*ataTimer*/) override {}
};

struct Users : UserDatabase {
    std::vector<std::uint32_t> listedUserIDs() override { return {1, 2}; }
};

/// Judges by the catalogue alone, whose file is never there, and keeps the definitions elsewhere:
/// an authority holds the file open by which it has judged.
struct Authority : AuthorizationService {
    Authority(const std::string& folder, const std::vector<RightDefinition>& rights)
        : path(folder + "/store/rights"),
          judging(makeBuiltInAuthorizationService(folder + "/none/rights", rights)),
          defining(makeBuiltInAuthorizationService(path)) {}

    std::string description() const override { return judging->description(); }
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view externalForm,
                                                          const PeerIdentity& peer,
                                                          AuthorizationStatus* status) override {
        return judging->createFromExternalForm(externalForm, peer, status);
    }
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) override {
        return defining->create(status);
    }
    AuthorizationStatus rightGet(std::string_view rightName) override {
        return makeBuiltInAuthorizationService(path)->rightGet(rightName);
    }
    AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                 const Value& definition, std::string_view prompt,
                                 std::string_view localizationTable) override {
        return defining->rightSet(authorization, rightName, definition, prompt, localizationTable);
    }
    AuthorizationStatus rightRemove(Authorization* authorization,
                                    std::string_view rightName) override {
        return defining->rightRemove(authorization, rightName);
    }

    std::string path;
    std::unique_ptr<AuthorizationService> judging;
    std::unique_ptr<AuthorizationService> defining;
};

/// The daemon object with all its operations, whose stores are in the folder of the test.
class Faults : public testing::Scratch {
  protected:
    void SetUp() override {
        Scratch::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=16m") || !inside("mkdir mnt/a mnt/b && mount -t tmpfs none mnt/b"))
            GTEST_SKIP() << "cannot mount";
        if (!canInterceptCalls()) GTEST_SKIP() << "cannot intercept system calls";
        file("passwd", "alice:x:61001:61001::" + in("a/home") + ":/bin/sh\n");
        if (::mount(at("passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0)
            GTEST_SKIP() << "cannot mount";
        makeHelper();
    }
    void TearDown() override {
        for (const char* covered : {"/etc/passwd", "/proc/sys", kUtilities})
            (void)::umount2(covered, MNT_DETACH);
        if (exists(in("b"))) clearAll();
        Scratch::TearDown();
    }

    [[nodiscard]] std::string in(const std::string& name) const { return at("mnt/" + name); }

    void makeHelper() {
        SettingsServices services = hostSettingsServices();
        services.powerManagement = makePowerManagement(
            {in("a/store"), in("a/supplies"), in("a/block")}, std::make_unique<NoStandby>());
        services.preferences = makePreferences(in("a/xdg"));
        services.systemConfiguration = makeSystemConfiguration(in("a/store"), in("a/run"));
        services.firmwareVariables = makeFirmwareVariables(in("a/efi"));
        std::vector<std::unique_ptr<OperationGroup>> groups;
        groups.push_back(std::make_unique<FileOperations>(*_manager, *_flags, *_acl));
        groups.push_back(std::make_unique<TreeWalkOperations>(_users, *_acl));
        groups.push_back(std::make_unique<SettingsOperations>(std::move(services), [](auto) {}));
        groups.push_back(std::make_unique<UtilityOperations>());
        _set = std::make_unique<QRLPrivilegedOperationSetKVX>(std::move(groups));
        _authority = std::make_shared<Authority>(in("a"), _set->rightDefinitions());
        int sockets[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
        _client.reset(sockets[0]);
        _connection.reset(sockets[1]);
        _peer = peerIdentityOfSocket(_connection.get());
        _helper = QRLPrivilegedHelper::initForOperationSet(
            _set.get(), {std::make_shared<SilentLog>(), _authority, makeFileFlags(), UniqueFd()});
    }

    ErrorRef perform(const Row& row, const Array& arguments) {
        if (row.code == kDefineRights) return defineRights();
        _helper->performPrivilegedOperation({row.code, _authorization, {}, &arguments, _peer},
                                            _reply);
        return _answer;
    }
    /// A failure is only told to the console, by design.
    ErrorRef defineRights() {
        try {
            AuthorizationStatus status = kAuthorizationSuccess;
            const auto reference = _authority->create(&status);
            if (status == kAuthorizationSuccess)
                status = _authority->rightSet(reference.get(), "net.corvalen.kvx.nop", "allow",
                                              "prompt", "");
            return status == kAuthorizationSuccess ? nullptr : makeOSStatusError(status);
        } catch (const std::bad_alloc&) {
            return makePosixError(ENOMEM);
        }
    }

    /// "@" in front of an argument stands for the folder of the test.
    [[nodiscard]] Array placed(const Array& arguments) const {
        Array all;
        for (const Value& one : arguments) {
            const std::string* text = one.string();
            const bool isPath = text != nullptr && text->starts_with("@");
            const bool isProcess = text != nullptr && *text == kProcess;
            all.push_back(isProcess ? Value(_process->pid())
                          : isPath  ? Value(in(text->substr(1)))
                                    : one);
        }
        return all;
    }
    void clearAll() {
        clearTree(in("b"));
        clearTree(in("a"));
    }
    /// Begins a process that SIGTERM does not end, but stays pending for.
    void beginProcess() {
        sigset_t held, before;
        ::sigemptyset(&held);
        ::sigaddset(&held, SIGTERM);
        ::sigprocmask(SIG_BLOCK, &held, &before);
        _process.emplace(0, [] { return ::pause() == 0; });
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
    }
    /// Returns the arguments of the row.
    Array layOut(const Row& row) {
        clearAll();
        makeTree(at("mnt"), row.tree);
        if (row.code == kTerminateProcess) beginProcess();
        return placed(row.arguments);
    }

    /// With what the operation answered and the signals of the process, as if they were objects.
    [[nodiscard]] TreeState stateWith(const std::string& answer) const {
        TreeState state = stateOf(at("mnt"));
        if (!answer.empty()) state[kAnswer] = {answer, false};
        if (_process) {
            const std::string status =
                textOf("/proc/" + std::to_string(_process->pid()) + "/status");
            state[kProcess] = {status.substr(status.find("ShdPnd:"), 24), false};
        }
        return state;
    }

    /// One faulty run. Gives what is wrong with it.
    std::string runOnce(const Row& row, const Fault& fault, const TreeState& after, bool* reached) {
        const Array arguments = layOut(row);
        const TreeState before = stateWith("");
        const Outcome outcome = runWithFault(fault, [&] { return perform(row, arguments); });
        *reached = outcome.reached;
        if (!outcome.reached) return "";
        std::string wrong = outcome.damage;
        if (wrong.empty() && !outcome.answered) wrong = "gave no answer";
        const TreeState now = stateWith(outcome.answer);
        // To clear up needs memory too.
        const bool judged = fault.kind != Fault::Kind::memory || outcome.code == 0;
        if (wrong.empty() && judged) wrong = row.rule({before, after, now, outcome.code == 0});
        if (wrong.empty()) return "";
        return outcome.where + " (" + std::to_string(fault.error) + ") " + outcome.domain + " " +
               std::to_string(outcome.code) + ": " + wrong;
    }

    void run(const Row& row) {
        const Array arguments = layOut(row);
        const Outcome faultless = runWithFault({}, [&] { return perform(row, arguments); });
        ASSERT_TRUE(faultless.answered && faultless.code == 0 && faultless.damage.empty())
            << row.name << ": " << faultless.domain << " " << faultless.code << faultless.damage;
        const TreeState after = stateWith(faultless.answer);
        const char* wanted = std::getenv("CORVALEN_FAULTS");
        const bool all = wanted != nullptr && std::string_view(wanted) == "all";
        std::vector<Fault> kinds = {{Fault::Kind::allocation, 0, 0}, {Fault::Kind::call, 0, EIO}};
        if (all) kinds.push_back({Fault::Kind::memory, 0, 0});
        if (all)
            for (const int error : {ENOSPC, EINTR, ENOMEM, ENFILE})
                kinds.push_back({Fault::Kind::call, 0, error});
        int runs = 0;
        for (Fault fault : kinds) {
            bool reached = true;
            for (; reached; fault.number += all || fault.number < kEachUntil ? 1 : kStep) {
                const std::string wrong = runOnce(row, fault, after, &reached);
                if (!wrong.empty()) ADD_FAILURE() << row.name << ": " << wrong;
                ++runs;
            }
        }
        std::printf("%s: %d runs\n", row.name, runs);
    }

    std::unique_ptr<FileFlags> _flags = makeFileFlags();
    std::unique_ptr<FileManager> _manager = makeFileManager(*_flags);
    std::unique_ptr<ExtendedAcl> _acl = makeExtendedAcl();
    Users _users;
    std::unique_ptr<QRLPrivilegedOperationSetKVX> _set;
    std::shared_ptr<AuthorizationService> _authority;
    std::shared_ptr<QRLPrivilegedHelper> _helper;
    UniqueFd _client;
    UniqueFd _connection;
    PeerIdentity _peer;
    const std::string _authorization =
        std::string(kAuthorizationExternalFormMagic) + std::string(24, 'a');
    ErrorRef _answer;
    std::optional<Child> _process;
    const OperationReply _reply = [this](ErrorRef result) { _answer = std::move(result); };
};

const std::vector<Made> kFile = {
    {'f', "a/file", "old"}, {'s', "a/file"}, {'x', "a/file"}, {'a', "a/file"}};
const std::vector<Made> kLocked = {{'d', "a/top"},
                                   {'d', "a/top/sub"},
                                   {'f', "a/top/x"},
                                   {'f', "a/top/sub/y", "text"},
                                   {'x', "a/top/sub"},
                                   {'l', "a/top/link", "nowhere"},
                                   {'l', "a/top/out", "../other"},
                                   {'f', "a/other"},
                                   {'i', "a/top/sub/y"},
                                   {'i', "a/top"}};
const std::vector<Made> kUnlocked(kLocked.begin(), kLocked.end() - 2);

const std::vector<Made> kModel = {{'d', "a/top"},
                                  {'d', "a/top/sub"},
                                  {'f', "a/top/x"},
                                  {'l', "a/top/link", "x"},
                                  {'f', "a/top/sub/y", "text"},
                                  {'a', "a/top"},
                                  {'o', "a/top"}};

/// Large enough for a second thread.
std::vector<Made> largeTree() {
    std::vector<Made> tree = {{'d', "a/top"}};
    for (int i = 0; i < 34; ++i) {
        const std::string name = "a/top/" + std::to_string(i);
        tree.push_back({'d', name});
        tree.push_back({'f', name + "/f.log"});
    }
    return tree;
}

const std::vector<Made> kStores = {
    {'d', "a/store"}, {'d', "a/run"}, {'d', "a/home"}, {'u', "a/home"}, {'d', "a/efi"}};

std::vector<Made> with(std::vector<Made> tree, const std::vector<Made>& more) {
    tree.insert(tree.end(), more.begin(), more.end());
    return tree;
}

const std::string kModeList(
    "\2\0\0\0\1\0\7\0\xff\xff\xff\xff\4\0\5\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff", 28);

TEST_F(Faults, OfWhatChangesOneObject) {
    const std::vector<Made> hosts = {{'f', "a/hosts", "old"},
                                     {'f', "a/hosts.backup", "older"},
                                     {'x', "a/hosts"},
                                     {'a', "a/hosts"}};
    const Row rows[] = {
        {"modify-systemfile, backup kept",
         0,
         {"@a/hosts", Data::copy("new"), false},
         hosts,
         systemFile},
        {"modify-systemfile", 0, {"@a/hosts", Data::copy("new"), true}, hosts, systemFile},
        {"create-fileobject F", 1, {"@a/new", "F"}, {}, perhapsMade},
        {"create-fileobject D", 1, {"@a/new", "D"}, {}, perhapsMade},
        {"rename-fileobject", 2, {"@a/file", "@a/new"}, kFile, whole},
        {"inspect-fileobject", 5, {"@a/file"}, kFile, whole},
        {"touch-fileobject", 6, {"@a/file"}, kFile, whole},
        {"modify-hfsattr", 8, {"@a/file", 1, 2, true}, {{'f', "a/file"}}, perhapsChanged},
        {"create-link", 9, {"@a/new", "nowhere", false}, {}, whole},
        {"create-link, hard", 9, {"@a/new", "@a/file", true}, kFile, whole},
        {"modify-acl",
         22,
         {"@a/top", Data::copy(kModeList + kModeList)},
         kUnlocked,
         perhapsChanged},
    };
    for (const Row& row : rows)
        run(row);
}

TEST_F(Faults, OfDeletion) {
    const Row rows[] = {
        {"delete-fileobjects",
         3,
         {"0", "1", "@a/top/sub/y"},
         {{'d', "a/top"}, {'d', "a/top/sub"}, {'f', "a/top/sub/y", "text"}, {'i', "a/top/sub/y"}},
         partlyGone},
        {"delete-fileobjects, recursive", 3, {"1", "1", "@a/top"}, kLocked, partlyGone},
        {"delete-fileobjects, large", 3, {"1", "1", "@a/top"}, largeTree(), partlyGone},
        {"delete-foldercontents",
         4,
         {"@a/top"},
         with(kUnlocked, {{'i', "a/top/sub/y"}}),
         partlyGone},
        {"delete-files", 9996, {"@a/other", "@a/top/x"}, kUnlocked, partlyGone},
    };
    for (const Row& row : rows)
        run(row);
}

TEST_F(Faults, OfMovesToAnotherFileSystem) {
    const Row rows[] = {
        {"a file", 2, {"@a/file", "@b/new"}, kFile, moved},
        {"a link", 2, {"@a/top/link", "@b/new"}, kUnlocked, moved},
        {"a tree", 2, {"@a/top", "@b/new"}, kUnlocked, moved},
    };
    for (const Row& row : rows)
        run(row);
}

TEST_F(Faults, OfWhatChangesATree) {
    const Row rows[] = {
        {"modify-protection, lock", 7, {"@a/top", true, true, true}, kUnlocked, eachObject},
        {"modify-protection, unlock", 7, {"@a/top", false, true, false}, kLocked, eachObject},
        {"modify-protection, large", 7, {"@a/top", true, true, false}, largeTree(), eachObject},
        {"prop-permissions", 23, {"@a/top", 5, true, 0x7f}, kModel, propagated},
        {"prop-permissions, large", 23, {"@a/top", 80, true, 0x7f}, largeTree(), propagated},
    };
    for (const Row& row : rows)
        run(row);
}

TEST_F(Faults, OfStores) {
    const Row rows[] = {
        {"modify-powersetting", 15, {"Disk Sleep Timer", 5}, kStores, eachObject},
        {"modify-diskspindown", 16, {5}, kStores, eachObject},
        {"modify-nvram", 18, {"Name", "text"}, kStores, eachObject},
        {"modify-preferences, any user",
         19,
         {"k", "app", "kCFPreferencesAnyUser", "kCFPreferencesAnyHost", "text"},
         kStores,
         eachObject},
        {"modify-preferences",
         19,
         {"k", "app", "alice", "kCFPreferencesAnyHost", "text"},
         kStores,
         eachObject},
        {"modify-sysconf", 20, {"test", "", "k", "text"}, kStores, eachObject},
        {"install-rights", kDefineRights, {}, kStores, eachObject},
        {"prepare-uninstall",
         9995,
         {},
         with(kStores, {{'f', "a/store/rights", "net.corvalen.kvx.nop allow\n"}}),
         sameObjects},
        {"discard-auth", 9997, {}, kStores, whole},
        {"nop", 9998, {}, kStores, whole},
    };
    for (const Row& row : rows)
        run(row);
}

/// More output than its pipes hold comes from a script; its effect comes last.
TEST_F(Faults, OfTheKernelAndOtherPrograms) {
    if (::mount(in("a").c_str(), "/proc/sys", nullptr, MS_BIND, nullptr) != 0 ||
        ::mount("tmpfs", kUtilities, "tmpfs", 0, "mode=0755") != 0)
        GTEST_SKIP() << "cannot mount";
    putFile(std::string(kUtilities) + "/xpchelper",
            "#!/bin/sh\n/bin/dd if=/dev/zero bs=1200k count=1\nexec /bin/chmod 600 \"$1\"\n", 0755);
    const std::vector<Made> file = {{'f', "a/file", "old"}};
    const Row rows[] = {
        {"modify-kernelsetting",
         17,
         {"kernel.level", 7},
         {{'d', "a/kernel"}, {'f', "a/kernel/level", "1"}},
         whole},
        {"terminate-process", kTerminateProcess, {kProcess}, {}, whole},
        {"execute-utility", 24, {"/", "chmod", "600", "@a/file"}, file, whole},
        {"execute-utility, much output", 24, {"/", "xpchelper", "@a/file"}, file, whole},
    };
    for (const Row& row : rows)
        run(row);
}

TEST_F(Faults, OfWhatOnlyReads) {
    const Row rows[] = {
        {"search-agedfiles", 10, {"@a/top", 0, false}, largeTree(), unchanged},
        {"search-filenames", 11, {"@a/top", "", "log", 0}, largeTree(), unchanged},
        {"search-patterns", 12, {"@a/top", "0", "2", "log"}, largeTree(), unchanged},
        {"search-fileorphans", 13, {"@a/top", false}, largeTree(), unchanged},
        {"inspect-storagesize", 14, {"@a/top"}, largeTree(), unchanged},
    };
    for (const Row& row : rows)
        run(row);
}

}  // namespace
}  // namespace corvalen::test
