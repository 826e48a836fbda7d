// SPDX-License-Identifier: MIT
// The owner of directories exchanges them, or the objects in them, for links while root works
// there. Each row also runs with calls by path, which shows that the attack hits.
// CORVALEN_EXCHANGES sets how many rounds and exchanges a row lasts at least (default 300).
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/xattr.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "fileops/file_object_info.hpp"
#include "fileops/operations_fixture.hpp"
#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "support/acl_bytes.hpp"
#include "support/child.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

constexpr uid_t kAttacker = 1234;
/// Calls by path lose within far fewer rounds.
constexpr int kRoundsThatHit = 30'000;

int wanted() {
    const char* text = std::getenv("CORVALEN_EXCHANGES");
    return text != nullptr ? std::max(1, std::atoi(text)) : 300;
}

std::chrono::seconds longest() {
    return std::chrono::seconds(std::max(60, wanted() / 20));
}

struct Exchange {
    const char* what;
    const char* one;
    const char* other;
};
const std::vector<Exchange> kExchanges = {
    {"the last directory", "his/above/dir", "his/above/link"},
    {"the directory above", "his/above", "his/link"},
    {"the object", "his/above/dir/object", "his/above/dir/link"},
};

struct SilentLog : SystemLog {
    std::string_view destination() const noexcept override { return "test"; }
    void log(LogLevel /*level*/, std::string_view /*line*/, const LogFields& /*fields*/) override {}
};

/// In a tmpfs, "his" belongs to the attacker and "root" to root. Each has a directory "dir" with an
/// object "object"; the links lead from the attacker's side to root's.
class Race : public testing::OperationsTest {
  protected:
    /// What a test fills in.
    struct {
        std::function<void()> layOut;  // makes the objects in the empty directories
        std::function<void()> byPath;  // does the work of the operation as if it were alone
        std::function<bool()> isWhole;
        std::vector<Exchange> exchanges = kExchanges;
    } row;

    void SetUp() override {
        OperationsTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
        void* shared = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(shared, MAP_FAILED);
        _exchanges = new (shared) std::atomic<int>(0);
        ASSERT_TRUE(inside("cd mnt && mkdir other && mount -t tmpfs none other"));
    }

    [[nodiscard]] std::string in(const std::string& name) const { return at("mnt/" + name); }
    void make(const std::string& name, mode_t mode, uid_t owner) {
        const bool isDirectory = S_ISDIR(mode);
        const int result = isDirectory ? ::mkdir(in(name).c_str(), 0700)
                                       : ::mknod(in(name).c_str(), S_IFREG | 0600, 0);
        ASSERT_EQ(result, 0) << name;
        ASSERT_EQ(::lchown(in(name).c_str(), owner, owner), 0);
        ASSERT_EQ(::chmod(in(name).c_str(), mode & 07777U), 0);
    }
    void makeHis(mode_t mode) { make("root/build/above/dir/object", mode, kAttacker); }
    void makeRoots(mode_t mode, uid_t owner = 0) { make("root/dir/object", mode, owner); }
    void lead(const std::string& name, const char* target) {
        ASSERT_EQ(::symlink(target, in(name).c_str()), 0) << name;
        ASSERT_EQ(::lchown(in(name).c_str(), kAttacker, kAttacker), 0);
    }
    /// Gives the attacker time before and between the calls of a control.
    static void letHimIn() { ::usleep(20); }
    /// Flags of ioctl_iflags(2); false where the file system keeps none.
    static bool setFlags(const std::string& path, unsigned flags) {
        const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        return file && ::ioctl(file.get(), FS_IOC_SETFLAGS, &flags) == 0;
    }
    static unsigned flagsOf(const std::string& path) {
        const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        unsigned flags = 0;
        (void)!::ioctl(file.get(), FS_IOC_GETFLAGS, &flags);
        return flags & (FS_IMMUTABLE_FL | FS_APPEND_FL);
    }
    static bool hasAttribute(const std::string& path, const char* name) {
        return ::lgetxattr(path.c_str(), name, nullptr, 0) >= 0;
    }
    /// For rows that need what tmpfs has only since Linux 6.6.
    [[nodiscard]] bool keepsFlagsAndAttributes() const {
        const std::string probe = in("other/probe");
        std::ofstream(probe) << "";
        return setFlags(probe, FS_APPEND_FL) && setFlags(probe, 0) &&
               ::setxattr(probe.c_str(), "user.probe", "", 0, 0) == 0;
    }
    void layOut() {
        // The attacker goes on exchanging, so one try may not remove everything.
        std::error_code error;
        for (const char* side : {"his", "root"}) {
            while (exists(in(side))) {
                // An exchange may have moved the locked object.
                for (const char* name :
                     {"root/dir/object", "his/above/dir/object", "his/above/link/object",
                      "his/link/dir/object", "his/above/dir/link"})
                    (void)setFlags(in(name), 0);
                std::filesystem::remove_all(in(side), error);
            }
        }
        std::filesystem::remove_all(in("other/moved"), error);
        for (const auto& [name, owner] : {std::pair("root", 0U),
                                          {"root/dir", 0U},
                                          {"root/build", 0U},
                                          {"root/build/above", kAttacker},
                                          {"root/build/above/dir", kAttacker}})
            make(name, S_IFDIR | 0700, owner);
        lead("root/build/above/link", "../../root/dir");
        lead("root/build/link", "../root");
        lead("root/build/above/dir/link", "../../../root/dir/object");
        row.layOut();
        _his.reset(::open(in("root/build/above/dir").c_str(), O_DIRECTORY | O_CLOEXEC));
        ASSERT_EQ(::lchown(in("root/build").c_str(), kAttacker, kAttacker), 0);
        ASSERT_EQ(::rename(in("root/build").c_str(), in("his").c_str()), 0);
    }

    struct Outcome {
        int rounds = 0;
        int exchanges = 0;
        bool whole = true;
    };
    /// Runs until there were enough rounds and exchanges, or root's side was changed.
    Outcome fight(const Exchange& exchange, const std::function<void()>& work, int least) {
        *_exchanges = 0;
        const std::string one = in(exchange.one);
        const std::string other = in(exchange.other);
        test::Child attacker(kAttacker, [&] {
            while (true) {
                if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) ==
                    0)
                    ++*_exchanges;
            }
            return true;
        });
        Outcome outcome;
        const auto end = std::chrono::steady_clock::now() + longest();
        while (outcome.whole && (outcome.rounds < least || *_exchanges < least) &&
               std::chrono::steady_clock::now() < end) {
            layOut();
            work();
            outcome.whole = row.isWhole();
            ++outcome.rounds;
        }
        outcome.exchanges = *_exchanges;
        return outcome;
    }
    /// Without the control, for an attack that has been shown to hit.
    void fightOnly(const std::function<void()>& operate) {
        for (const Exchange& exchange : row.exchanges) {
            const Outcome outcome = fight(exchange, operate, wanted());
            EXPECT_TRUE(outcome.whole) << exchange.what << ", round " << outcome.rounds;
            std::printf("%s: %d rounds, %d exchanges\n", exchange.what, outcome.rounds,
                        outcome.exchanges);
            if (outcome.whole && std::min(outcome.rounds, outcome.exchanges) < wanted())
                GTEST_SKIP() << exchange.what << ": the machine is too busy, " << outcome.exchanges
                             << " exchanges";
        }
    }
    void fightOnly(const char* operation, const Array& arguments) {
        fightOnly([&] { (void)call(operation, arguments); });
    }
    /// First the operation, then the same work by path, which the attack has to spoil.
    void fightAll(const std::function<void()>& operate) {
        fightOnly(operate);
        if (IsSkipped()) return;
        const auto byPath = [this] {
            letHimIn();
            row.byPath();
        };
        const Outcome control = fight(row.exchanges[0], byPath, 1'000'000);
        if (control.whole && control.rounds < kRoundsThatHit)
            GTEST_SKIP() << "the machine is too busy: no hit in " << control.rounds << " rounds";
        EXPECT_FALSE(control.whole) << "the attack does not hit";
        std::printf("by path: hit in round %d\n", control.rounds);
    }
    void fightAll(const char* operation, const Array& arguments) {
        fightAll([&] { (void)call(operation, arguments); });
    }

    [[nodiscard]] bool is(const std::string& name, const std::string& described) const {
        return exists(in(name)) && describedAt(in(name)) == described;
    }
    /// Whether root owns the attacker's file or a replacement of it.
    [[nodiscard]] bool rootOwnsHisFile() const {
        for (const char* name : {"object", "link", "object.backup"}) {
            struct stat status {};
            if (::fstatat(_his.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISREG(status.st_mode) && status.st_uid == 0)
                return true;
        }
        return false;
    }
    static struct stat statusIfThere(const std::string& path) {
        struct stat status {};
        (void)!::stat(path.c_str(), &status);
        return status;
    }

    UniqueFd _his;
    const std::string _path = at("mnt/his/above/dir/object");
    std::atomic<int>* _exchanges = nullptr;
};

TEST_F(Race, ARewrittenFileKeepsItsOwnAttributes) {
    row.layOut = [this] {
        makeRoots(S_IFREG | 04755);
        makeHis(S_IFREG | 04777);
    };
    row.byPath = [this] {
        const struct stat old = statusIfThere(_path);
        letHimIn();
        (void)::rename(_path.c_str(), (_path + ".backup").c_str());
        std::ofstream(_path) << "new";
        (void)!::chown(_path.c_str(), old.st_uid, old.st_gid);
        (void)::chmod(_path.c_str(), old.st_mode & 07777U);
    };
    row.isWhole = [this] { return is("root/dir/object", "0:0 4755") && !rootOwnsHisFile(); };
    fightAll("ModifySystemfile", {_path, Data::copy("new"), true});
}

TEST_F(Race, ANewDirectoryOpensNoOther) {
    row.layOut = [this] { makeRoots(S_IFDIR | 0700); };
    row.byPath = [this] {
        if (exists(_path) || ::mkdir(_path.c_str(), 0700) != 0) return;
        letHimIn();
        (void)::chmod(_path.c_str(), 0755);
    };
    row.isWhole = [this] { return is("root/dir/object", "0:0 700"); };
    fightAll("CreateFileobject", {_path, "D"});
}

TEST_F(Race, ANewFileTakesNobodysFile) {
    row.layOut = [this] { makeRoots(S_IFREG | 0600, 7); };
    row.byPath = [this] {
        if (exists(_path)) return;
        std::ofstream(_path) << "";
        letHimIn();
        (void)::chmod(_path.c_str(), 0755);
        (void)!::chown(_path.c_str(), 0, 0);
    };
    row.isWhole = [this] { return is("root/dir/object", "7:7 600"); };
    fightAll("CreateFileobject", {_path, "X"});
}

TEST_F(Race, AMovedTreeIsAtItsOldOrItsNewPath) {
    row.layOut = [this] {
        makeRoots(S_IFDIR | 0700);
        make("root/dir/object/precious", S_IFREG | 0600, 0);
        makeHis(S_IFDIR | 0700);
        make("root/build/above/dir/object/worthless", S_IFREG | 0600, kAttacker);
    };
    row.byPath = [this] {
        std::error_code error;
        std::filesystem::copy(_path, in("other/moved"), std::filesystem::copy_options::recursive,
                              error);
        letHimIn();
        if (!error) std::filesystem::remove_all(_path, error);
    };
    row.isWhole = [this] {
        return exists(in("root/dir/object/precious")) || exists(in("other/moved/precious"));
    };
    fightAll("RenameFileobject", {_path, in("other/moved")});
}

TEST_F(Race, AMovedTreeGrowsWhereTheAttackerCannotRead) {
    row.exchanges = {{"the new directory", "his/above/dir/object", "his/above/dir/trap"}};
    row.layOut = [this] {
        if (!exists(in("other/secret"))) make("other/secret", S_IFDIR | 0700, 0);
        if (!exists(in("other/secret/key"))) make("other/secret/key", S_IFREG | 0600, 0);
        make("root/build/above/dir/trap", S_IFDIR | 0700, kAttacker);
    };
    row.byPath = [this] {
        std::error_code error;
        if (::mkdir(_path.c_str(), 0700) != 0) return;
        letHimIn();
        std::filesystem::copy(in("other/secret/key"), _path + "/key", error);
    };
    row.isWhole = [this] {
        for (const char* name : {"object", "trap"}) {
            const UniqueFd found(::openat(_his.get(), name, O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            struct stat status {};
            if (found && ::fstat(found.get(), &status) == 0 && status.st_uid != 0 &&
                ::faccessat(found.get(), "key", F_OK, 0) == 0)
                return false;
        }
        return true;
    };
    fightAll("RenameFileobject", {in("other/secret"), _path});
}

TEST_F(Race, ARenamedObjectReplacesNothing) {
    row.layOut = [this] {
        makeRoots(S_IFREG | 0600, 7);
        make("root/from", S_IFREG | 0600, 0);
    };
    row.byPath = [this] {
        if (exists(_path)) return;
        letHimIn();
        (void)::rename(in("root/from").c_str(), _path.c_str());
    };
    row.isWhole = [this] { return is("root/dir/object", "7:7 600"); };
    fightAll("RenameFileobject", {in("root/from"), _path});
}

TEST_F(Race, ATouchedObjectIsNotMade) {
    row.layOut = [this] { makeHis(S_IFREG | 0600); };
    row.byPath = [this] {
        if (!exists(_path)) return;
        letHimIn();
        std::ofstream(_path, std::ios::app) << "";
    };
    row.isWhole = [this] { return !exists(in("root/dir/object")); };
    fightAll("TouchFileobject", {_path});
}

TEST_F(Race, ARecordDescribesASingleObject) {
    Array records;
    struct stat first {
    }, second{};
    // The attacker's objects have mode 04777 and text, root's 0600 and none; links have text.
    const auto belongs = [](unsigned mode, bool isEmpty) {
        return isEmpty ? mode == 0600U : mode == 04777U || mode == 0777U;
    };
    row.layOut = [&] {
        makeRoots(S_IFREG | 0600);
        makeHis(S_IFREG | 04777);
        std::ofstream(in("root/build/above/dir/object")) << "text";
        (void)::chmod(in("root/build/above/dir/object").c_str(), 04777);
        records.clear();
        first = second = {};
    };
    row.byPath = [&] {
        const int result = ::lstat(_path.c_str(), &first);
        letHimIn();
        if (result != 0 || ::lstat(_path.c_str(), &second) != 0) first = second = {};
    };
    row.isWhole = [&] {
        if (first.st_mode != 0) return belongs(first.st_mode & 07777U, second.st_size == 0);
        if (records.empty()) return true;
        const Dictionary& record = *records[0].dictionary();
        return belongs(static_cast<unsigned>(
                           record.find(kKeyObjectPOSIXMode)->number()->unsignedIntegerValue()),
                       record.find(kKeyObjectSize)->number()->longLongValue() == 0);
    };
    fightAll([&] { addFileSystemObjectInfoDictionaryToArray(&records, _path); });
}

TEST_F(Race, BothListsGoToOneObject) {
    const std::string list = test::aclBytes({{1, 7}, {2, 7, 7}, {4, 5}, {16, 7}, {32, 0}});
    const char* access = "system.posix_acl_access";
    const char* inheritable = "system.posix_acl_default";
    row.layOut = [this] {
        makeRoots(S_IFDIR | 0700);
        makeHis(S_IFDIR | 0700);
    };
    row.byPath = [&] {
        for (const char* name : {access, inheritable}) {
            (void)::setxattr(_path.c_str(), name, list.data(), list.size(), 0);
            letHimIn();
        }
    };
    row.isWhole = [&] {
        const std::string object = in("root/dir/object");
        return hasAttribute(object, access) == hasAttribute(object, inheritable);
    };
    fightAll("ModifyAcl", {_path, Data::copy(list + list)});
}

TEST_F(Race, ClassicAttributesGoToOneObject) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no attributes on tmpfs";
    constexpr const char* kName = "user.com.apple.FinderInfo";
    row.layOut = [this] {
        makeRoots(S_IFREG | 0600);
        makeHis(S_IFREG | 0600);
    };
    row.byPath = [&] {
        std::string bytes = std::string(8, '\1') + std::string(24, '\0');
        (void)::setxattr(_path.c_str(), kName, bytes.data(), bytes.size(), 0);
        bytes[8] = 0x40;
        letHimIn();
        (void)::setxattr(_path.c_str(), kName, bytes.data(), bytes.size(), XATTR_REPLACE);
    };
    row.isWhole = [&] {
        char bytes[32];
        return ::getxattr(in("root/dir/object").c_str(), kName, bytes, sizeof bytes) != 32 ||
               (bytes[0] == 1 && bytes[8] == 0x40);
    };
    fightAll("ModifyHfsattr", {_path, 0x01010101, 0x01010101, true});
}

TEST_F(Race, AnUnlockedObjectKeepsItsOtherFlags) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no flags on tmpfs";
    row.layOut = [this] {
        makeHis(S_IFREG | 0600);
        makeRoots(S_IFREG | 0600);
        (void)setFlags(in("root/dir/object"), FS_APPEND_FL | FS_IMMUTABLE_FL);
    };
    row.byPath = [this] {
        const unsigned left = flagsOf(_path) & ~unsigned{FS_IMMUTABLE_FL};
        letHimIn();
        (void)setFlags(_path, left);
    };
    row.isWhole = [this] { return (flagsOf(in("root/dir/object")) & FS_APPEND_FL) != 0; };
    fightAll("ModifyProtection", {_path, false, false, false});
}

/// Both operations that remove single objects remove the object that they unlocked.
TEST_F(Race, ARemovedObjectIsTheUnlockedOne) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no flags on tmpfs";
    const QRLPrivilegedOperationSetKVX set;
    const auto helper = QRLPrivilegedHelper::initForOperationSet(
        &set, {std::make_shared<SilentLog>(), makeBuiltInAuthorizationService(at("rights")),
               makeFileFlags(), UniqueFd()});
    row.layOut = [this] {
        makeHis(S_IFREG | 0600);
        makeRoots(S_IFREG | 0600);
        (void)setFlags(in("root/dir/object"), FS_IMMUTABLE_FL);
    };
    row.byPath = [this] {
        (void)setFlags(_path, 0);
        letHimIn();
        (void)::unlink(_path.c_str());
    };
    row.isWhole = [this] {
        const std::string object = in("root/dir/object");
        return !exists(object) || flagsOf(object) == FS_IMMUTABLE_FL;
    };
    fightAll("DeleteFileobjects", {"0", "1", _path});
    fightOnly([&] { (void)helper->deleteFileSystemObjectsWithPaths({_path}); });
}

/// A tree whose directories are exchanged for links while root works in it.
TEST_F(Race, AWalkNeverLeavesItsTree) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no flags on tmpfs";
    const std::string top = in("his/above");
    unsigned kept = 0;
    row.exchanges = {kExchanges[0]};
    row.layOut = [&] {
        // The target of a link in the tree is unlocked, by design.
        ASSERT_EQ(::unlink(in("root/build/above/dir/link").c_str()), 0);
        makeHis(S_IFREG | 0600);
        makeRoots(S_IFREG | 0600);
        (void)setFlags(in("root/dir/object"), kept);
    };
    row.byPath = [&] {
        (void)setFlags(top + "/dir/object", 0);
        if (kept == 0) (void)::unlink((top + "/dir/object").c_str());
    };
    row.isWhole = [&] {
        const std::string object = in("root/dir/object");
        return exists(object) && flagsOf(object) == kept;
    };
    fightAll("DeleteFileobjects", {"1", "0", top});
    fightOnly("DeleteFoldercontents", {top});
    kept = FS_IMMUTABLE_FL;
    fightOnly("ModifyProtection", {top, false, true, false});
}

TEST_F(Race, APropagationNeverLeavesItsTree) {
    row.exchanges = {kExchanges[0]};
    row.layOut = [this] {
        makeHis(S_IFREG | 0600);
        makeRoots(S_IFREG | 0600);
    };
    row.byPath = [this] { (void)!::chown(_path.c_str(), kAttacker, kAttacker); };
    row.isWhole = [this] { return is("root/dir/object", "0:0 600") && is("root/dir", "0:0 700"); };
    fightAll([this] { walk("PropPermissions", {in("his/above"), 0, false, 0x3e}); });
}

/// The attacker has a hard link to a file of root.
TEST_F(Race, APropagatedModeGivesNoOtherFileSetIDBits) {
    row.exchanges = {{"the object", "his/above/dir/object", "his/above/dir/hard"}};
    row.layOut = [this] {
        makeHis(S_IFREG | 06777);
        makeRoots(S_IFREG | 0755);
        ASSERT_EQ(::link(in("root/dir/object").c_str(), in("root/build/above/dir/hard").c_str()),
                  0);
    };
    row.byPath = [this] {
        const struct stat old = statusIfThere(_path);
        letHimIn();
        (void)::chmod(_path.c_str(), old.st_mode & 07777U);
    };
    row.isWhole = [this] { return (modeOf(in("root/dir/object")) & 06000U) == 0; };
    // One call is much shorter than laying out the objects, which it leaves as they are.
    fightAll([&] {
        for (int i = 0; i < 100 && row.isWhole(); ++i)
            walk("PropPermissions", {in("his/above/dir"), 0, false, 8});
    });
}

/// With the thread that reads ahead.
TEST_F(Race, ASearchNeverLeavesItsTree) {
    testing::Finds finds;
    const std::string top = in("his/above");
    row.exchanges = {kExchanges[0]};
    row.layOut = [this] {
        makeHis(S_IFREG | 0600);
        make("root/dir/secret", S_IFREG | 0600, 0);
    };
    row.byPath = [&] {
        if (exists(top + "/dir/secret")) finds.names.insert("secret");
    };
    row.isWhole = [&] { return finds.names.count("secret") == 0; };
    for (const auto& [operation, arguments] :
         {std::pair<const char*, Array>("SearchAgedfiles", {top, 0, true}),
          {"SearchPatterns", {top, "0", "1", "s"}}}) {
        finds.names.clear();
        fightAll([&, &name = operation, &list = arguments] { walk(name, list, &finds); });
    }
}

}  // namespace
}  // namespace corvalen
