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

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <set>

#include "exec/utility_operations.hpp"
#include "faults/failing_calls.hpp"
#include "fileops/file_operations.hpp"
#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "settings/settings_operations.hpp"
#include "support/child.hpp"
#include "support/operations_test.hpp"
#include "support/silent_log.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen::test {
namespace {

/// The short run tries the first kEachUntil faults of an operation, then each kStep-th one.
constexpr int kEachUntil = 40;
constexpr int kStep = 37;
constexpr OperationCode kDefineRights =
    ~OperationCode{0};  // what `corvalenctl install-rights` does
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

/// What may have become of an object.
enum : unsigned {
    kBefore = 1,       // nothing
    kAfter = 2,        // what a faultless run makes of it
    kGone = 4,         // it was removed
    kUnlocked = 8,     // only its flags are others
    kUnfinished = 16,  // a new object, perhaps without all of its attributes
    kChanged = 32,     // there as before, in whatever state
    kLeaving = 64,     // an object that a faultless run removes, in whatever state
};

const ObjectState* find(const TreeState& state, const std::string& path) {
    const auto found = state.find(path);
    return found != state.end() ? &found->second : nullptr;
}

bool same(const ObjectState* one, const ObjectState* other) {
    return one == nullptr || other == nullptr ? one == other : *one == *other;
}

bool isAllowed(unsigned allowed, const ObjectState* before, const ObjectState* after,
               const ObjectState* now) {
    const auto may = [allowed](unsigned change) { return (allowed & change) != 0; };
    const bool wasThere = before != nullptr, isThere = now != nullptr;
    return (may(kBefore) && same(now, before)) || (may(kAfter) && same(now, after)) ||
           (may(kGone) && !isThere) ||
           (may(kUnlocked) && wasThere && isThere && now->text == before->text) ||
           (may(kUnfinished) && !wasThere && after != nullptr) ||
           (may(kChanged) && wasThere == isThere) ||
           (may(kLeaving) && wasThere && after == nullptr);
}

/// Returns the first path with another ending; empty for none.
std::string otherThan(unsigned allowed, const Ending& ending) {
    std::set<std::string> paths;
    for (const TreeState* state : {&ending.before, &ending.after, &ending.now})
        for (const auto& [path, object] : *state)
            paths.insert(path);
    for (const std::string& path : paths)
        if (!isAllowed(allowed, find(ending.before, path), find(ending.after, path),
                       find(ending.now, path)))
            return path;
    return "";
}

/// The old content is whole under one of its names. A write that fails is not told, but keeps the
/// backup.
std::string systemFile(const Ending& ending) {
    constexpr const char* kTarget = "a/hosts";
    constexpr const char* kBackup = "a/hosts.backup";
    for (const auto& [path, now] : ending.now)
        if (path != kTarget && path != kBackup && !same(&now, find(ending.before, path)))
            return path;
    const ObjectState* old = find(ending.before, kTarget);
    const ObjectState* target = find(ending.now, kTarget);
    const bool isOldKept = same(find(ending.now, kBackup), old);
    const bool isWhole = ending.succeeded
                             ? isOldKept || same(target, find(ending.after, kTarget))
                             : isOldKept || same(target, old) || ending.now == ending.after;
    return isWhole ? "" : kBackup;
}

/// The tree is whole in one of its places, and in that one only, unless its removal at the old
/// place had begun.
std::string moved(const Ending& ending) {
    if (ending.now == ending.before) return "";
    const bool isAllThere =
        std::all_of(ending.before.begin(), ending.before.end(),
                    [&](const auto& object) { return ending.now.contains(object.first); });
    return isAllThere ? "a copy beside the source" : otherThan(kAfter | kLeaving, ending);
}

struct Rule {
    /// What an error may leave of each object.
    unsigned afterError;
    unsigned afterSuccess = kAfter;
    /// Judges errors in its place, and successes if they may be partial.
    std::string (*judge)(const Ending&) = nullptr;

    /// Returns the path that is wrong; empty for none.
    [[nodiscard]] std::string wrongIn(const Ending& ending) const {
        if (judge != nullptr && (!ending.succeeded || afterSuccess == 0)) return judge(ending);
        return otherThan(ending.succeeded ? afterSuccess : afterError, ending);
    }
};

const std::map<std::string, Rule> kRules = {
    {"whole",
     {0, kAfter,
      [](const Ending& ending) {
          return ending.now == ending.after ? "" : otherThan(kBefore, ending);
      }}},
    {"each object", {kBefore | kAfter}},
    {"partly gone", {kBefore | kGone | kUnlocked}},
    {"perhaps made", {kBefore | kUnfinished}},
    {"perhaps changed", {kChanged}},
    {"system file", {0, 0, systemFile}},
    {"moved", {0, kAfter, moved}},
    // What cannot be listed is passed over, by design. An error may leave an object half changed.
    {"propagated", {kChanged, kBefore | kAfter}},
    // Nothing changes; what cannot be read is left out of the answer, by design.
    {"unchanged", {kBefore, kBefore | kUnfinished}},
    // Failures are not told, by design.
    {"same objects", {kChanged, kChanged}},
};

struct Row {
    std::string name;
    OperationCode code;
    Array arguments;
    std::string tree;
    Rule rule;
};

/// The rows of a section of rows.txt: "NAME: RULE: TREE: REQUEST". "tree NAME: OBJECTS" lines name
/// the trees before.
std::vector<Row> rowsOf(const std::string& wanted) {
    std::map<std::string, std::string> trees{{"none", ""}};
    std::vector<Row> rows;
    std::istringstream file(textOf(goldenPath("rows.txt")));
    std::string section;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') section = line.substr(1, line.size() - 2);
        std::vector<std::string> fields;
        for (std::size_t at = 0, end = 0; end != line.npos; at = end + 2) {
            end = line.find(": ", at);
            fields.push_back(line.substr(at, end - at));
        }
        if (line.starts_with("tree ")) trees[fields[0].substr(5)] = fields[1];
        if (section != wanted || fields.size() != 4) continue;
        const auto [code, arguments] = requestOf(fields[3]);
        rows.push_back({fields[0], static_cast<OperationCode>(code), arguments, trees.at(fields[2]),
                        kRules.at(fields[1])});
    }
    EXPECT_FALSE(rows.empty()) << wanted;
    return rows;
}

struct NoStandby final : DiskStandby {
    void setTimer(const std::string& /*drive*/, std::uint8_t /*ataTimer*/) override {}
};

/// The daemon object with all its operations, whose stores are in the folder of the test.
class Faults : public testing::Scratch, public ::testing::WithParamInterface<const char*> {
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
        _authority =
            makeBuiltInAuthorizationService(in("a/store/rights"), _set->rightDefinitions());
        int sockets[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
        _client.reset(sockets[0]);
        _connection.reset(sockets[1]);
        _peer = peerIdentityOfSocket(_connection);
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
        // The authority holds its file open once it has judged.
        (void)_authority->rightGet("net.corvalen.kvx.nop");
        return placed(row.arguments);
    }

    /// With what the operation answered and the signals of the process, as if they were objects.
    [[nodiscard]] TreeState stateWith(const std::string& answer) const {
        TreeState state = stateOf(at("mnt"));
        if (!answer.empty()) state[kAnswer] = {answer, ""};
        if (_process) {
            const std::string status =
                textOf("/proc/" + std::to_string(_process->pid()) + "/status");
            state[kProcess] = {status.substr(status.find("ShdPnd:"), 24), ""};
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
        if (wrong.empty() && judged)
            wrong = row.rule.wrongIn({before, after, now, outcome.code == 0});
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
        std::printf("%s: %d runs\n", row.name.c_str(), runs);
    }

    std::unique_ptr<FileFlags> _flags = makeFileFlags();
    std::unique_ptr<FileManager> _manager = makeFileManager(*_flags);
    std::unique_ptr<ExtendedAcl> _acl = makeExtendedAcl();
    testing::Users _users;
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

TEST_P(Faults, LeaveWhatTheRowAllows) {
    // More output than its pipes hold comes from a script; its effect comes last.
    if (std::string_view(GetParam()) == "programs") {
        if (::mount(in("a").c_str(), "/proc/sys", nullptr, MS_BIND, nullptr) != 0 ||
            ::mount("tmpfs", kUtilities, "tmpfs", 0, "mode=0755") != 0)
            GTEST_SKIP() << "cannot mount";
        putFile(std::string(kUtilities) + "/xpchelper",
                "#!/bin/sh\n/bin/dd if=/dev/zero bs=1200k count=1\nexec /bin/chmod 600 \"$1\"\n",
                0755);
    }
    for (const Row& row : rowsOf(GetParam()))
        run(row);
}

INSTANTIATE_TEST_SUITE_P(Each, Faults,
                         ::testing::Values("objects", "deletion", "moves", "trees", "stores",
                                           "programs", "reads"),
                         [](const auto& section) { return std::string(section.param); });

}  // namespace
}  // namespace corvalen::test
