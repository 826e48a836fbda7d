// SPDX-License-Identifier: MIT
// Somebody who owns directories exchanges them, or the objects in them, for links while root works
// there. Each row is also fought with calls by path, which shows that the attack hits.
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
#include "operations/privileged_operation_set_kvx.hpp"
#include "support/child.hpp"

namespace corvalen {
namespace {

constexpr uid_t kAttacker = 1234;
/// Calls by path lose long before.
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

/// In a tmpfs: "his" belongs to the attacker, "root" to root. Each has a directory "dir" with an
/// object "object"; the links lead from his side to root's.
class Race : public testing::OperationsTest {
  protected:
    struct Row {
        std::function<void()> layOut;  // the objects; their directories are there and empty
        std::function<void()> operate;
        std::function<void()> byPath;  // does it as if nobody else were there
        std::function<bool()> isWhole;
    };

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
    void lead(const std::string& name, const char* target) {
        ASSERT_EQ(::symlink(target, in(name).c_str()), 0) << name;
        ASSERT_EQ(::lchown(in(name).c_str(), kAttacker, kAttacker), 0);
    }
    /// Before and between the calls of a control, as in a longer operation.
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
    void layOut(const Row& row) {
        // He goes on meanwhile: what he moved away is removed in another try.
        std::error_code error;
        for (const char* side : {"his", "root"}) {
            while (exists(in(side))) {
                // Wherever an exchange has put what a row has locked.
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
    /// Until he has come to it often enough, or root's side is found changed.
    Outcome fight(const Exchange& exchange, const Row& row, const std::function<void()>& work,
                  int least) {
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
            layOut(row);
            work();
            outcome.whole = row.isWhole();
            ++outcome.rounds;
        }
        outcome.exchanges = *_exchanges;
        return outcome;
    }
    /// Without the control, for a row whose attack has been shown to hit.
    void fightOnly(const Row& row, const std::vector<Exchange>& exchanges = kExchanges) {
        for (const Exchange& exchange : exchanges) {
            const Outcome outcome = fight(exchange, row, row.operate, wanted());
            EXPECT_TRUE(outcome.whole) << exchange.what << ", round " << outcome.rounds;
            std::printf("%s: %d rounds, %d exchanges\n", exchange.what, outcome.rounds,
                        outcome.exchanges);
            if (outcome.whole && std::min(outcome.rounds, outcome.exchanges) < wanted())
                GTEST_SKIP() << exchange.what << ": the machine is too busy, " << outcome.exchanges
                             << " exchanges";
        }
    }
    void fightAll(const Row& row, const std::vector<Exchange>& exchanges = kExchanges) {
        fightOnly(row, exchanges);
        if (IsSkipped()) return;
        const auto byPath = [&] {
            letHimIn();
            row.byPath();
        };
        const Outcome control = fight(exchanges[0], row, byPath, 1'000'000);
        if (control.whole && control.rounds < kRoundsThatHit)
            GTEST_SKIP() << "the machine is too busy: no hit in " << control.rounds << " rounds";
        EXPECT_FALSE(control.whole) << "the attack does not hit";
        std::printf("by path: hit in round %d\n", control.rounds);
    }

    [[nodiscard]] bool is(const std::string& name, const std::string& described) const {
        return exists(in(name)) && describedAt(in(name)) == described;
    }
    /// Whether root owns a file that he made, or that took its place.
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
    fightAll(
        {.layOut =
             [this] {
                 make("root/dir/object", S_IFREG | 04755, 0);
                 make("root/build/above/dir/object", S_IFREG | 04777, kAttacker);
             },
         .operate =
             [this] {
                 call("ModifySystemfile", {_path, Data::copy("new"), true});
             },
         .byPath =
             [this] {
                 const struct stat old = statusIfThere(_path);
                 letHimIn();
                 (void)::rename(_path.c_str(), (_path + ".backup").c_str());
                 std::ofstream(_path) << "new";
                 (void)!::chown(_path.c_str(), old.st_uid, old.st_gid);
                 (void)::chmod(_path.c_str(), old.st_mode & 07777U);
             },
         .isWhole = [this] { return is("root/dir/object", "0:0 4755") && !rootOwnsHisFile(); }});
}

TEST_F(Race, ANewDirectoryOpensNoOther) {
    fightAll({.layOut = [this] { make("root/dir/object", S_IFDIR | 0700, 0); },
              .operate =
                  [this] {
                      call("CreateFileobject", {_path, "D"});
                  },
              .byPath =
                  [this] {
                      if (exists(_path) || ::mkdir(_path.c_str(), 0700) != 0) return;
                      letHimIn();
                      (void)::chmod(_path.c_str(), 0755);
                  },
              .isWhole = [this] { return is("root/dir/object", "0:0 700"); }});
}

TEST_F(Race, ANewFileTakesNobodysFile) {
    fightAll({.layOut = [this] { make("root/dir/object", S_IFREG | 0600, 7); },
              .operate =
                  [this] {
                      call("CreateFileobject", {_path, "X"});
                  },
              .byPath =
                  [this] {
                      if (exists(_path)) return;
                      std::ofstream(_path) << "";
                      letHimIn();
                      (void)::chmod(_path.c_str(), 0755);
                      (void)!::chown(_path.c_str(), 0, 0);
                  },
              .isWhole = [this] { return is("root/dir/object", "7:7 600"); }});
}

TEST_F(Race, AMovedTreeIsInOneOfItsPlaces) {
    fightAll({.layOut =
                  [this] {
                      make("root/dir/object", S_IFDIR | 0700, 0);
                      make("root/dir/object/precious", S_IFREG | 0600, 0);
                      make("root/build/above/dir/object", S_IFDIR | 0700, kAttacker);
                      make("root/build/above/dir/object/worthless", S_IFREG | 0600, kAttacker);
                  },
              .operate =
                  [this] {
                      call("RenameFileobject", {_path, in("other/moved")});
                  },
              .byPath =
                  [this] {
                      std::error_code error;
                      std::filesystem::copy(_path, in("other/moved"),
                                            std::filesystem::copy_options::recursive, error);
                      letHimIn();
                      if (!error) std::filesystem::remove_all(_path, error);
                  },
              .isWhole =
                  [this] {
                      return exists(in("root/dir/object/precious")) ||
                             exists(in("other/moved/precious"));
                  }});
}

TEST_F(Race, WhatIsMovedToHimGrowsWhereHeCannotRead) {
    const Row row{.layOut =
                      [this] {
                          if (!exists(in("other/secret"))) make("other/secret", S_IFDIR | 0700, 0);
                          if (!exists(in("other/secret/key")))
                              make("other/secret/key", S_IFREG | 0600, 0);
                          make("root/build/above/dir/trap", S_IFDIR | 0700, kAttacker);
                      },
                  .operate =
                      [this] {
                          call("RenameFileobject", {in("other/secret"), _path});
                      },
                  .byPath =
                      [this] {
                          std::error_code error;
                          if (::mkdir(_path.c_str(), 0700) != 0) return;
                          letHimIn();
                          std::filesystem::copy(in("other/secret/key"), _path + "/key", error);
                      },
                  .isWhole =
                      [this] {
                          for (const char* name : {"object", "trap"}) {
                              const UniqueFd found(
                                  ::openat(_his.get(), name, O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
                              struct stat status {};
                              if (found && ::fstat(found.get(), &status) == 0 &&
                                  status.st_uid != 0 &&
                                  ::faccessat(found.get(), "key", F_OK, 0) == 0)
                                  return false;
                          }
                          return true;
                      }};
    fightAll(row, {{"the new directory", "his/above/dir/object", "his/above/dir/trap"}});
}

TEST_F(Race, ARenamedObjectReplacesNothing) {
    fightAll({.layOut =
                  [this] {
                      make("root/dir/object", S_IFREG | 0600, 7);
                      make("root/from", S_IFREG | 0600, 0);
                  },
              .operate =
                  [this] {
                      call("RenameFileobject", {in("root/from"), _path});
                  },
              .byPath =
                  [this] {
                      if (exists(_path)) return;
                      letHimIn();
                      (void)::rename(in("root/from").c_str(), _path.c_str());
                  },
              .isWhole = [this] { return is("root/dir/object", "7:7 600"); }});
}

TEST_F(Race, ATouchedObjectIsNotMade) {
    fightAll({.layOut = [this] { make("root/build/above/dir/object", S_IFREG | 0600, kAttacker); },
              .operate = [this] { call("TouchFileobject", {_path}); },
              .byPath =
                  [this] {
                      if (!exists(_path)) return;
                      letHimIn();
                      std::ofstream(_path, std::ios::app) << "";
                  },
              .isWhole = [this] { return !exists(in("root/dir/object")); }});
}

TEST_F(Race, ARecordDescribesOneObject) {
    Array records;
    struct stat first {};
    struct stat second {};
    // His are 04777, root's 0600; root's holds no text, the links do.
    const auto belongs = [](unsigned mode, bool isEmpty) {
        return isEmpty ? mode == 0600U : mode == 04777U || mode == 0777U;
    };
    fightAll({.layOut =
                  [&] {
                      make("root/dir/object", S_IFREG | 0600, 0);
                      make("root/build/above/dir/object", S_IFREG | 04777, kAttacker);
                      std::ofstream(in("root/build/above/dir/object")) << "text";
                      (void)::chmod(in("root/build/above/dir/object").c_str(), 04777);
                      records.clear();
                      first = second = {};
                  },
              .operate = [&] { addFileSystemObjectInfoDictionaryToArray(&records, _path); },
              .byPath =
                  [&] {
                      const int result = ::lstat(_path.c_str(), &first);
                      letHimIn();
                      if (result != 0 || ::lstat(_path.c_str(), &second) != 0) first = second = {};
                  },
              .isWhole =
                  [&] {
                      if (first.st_mode != 0)
                          return belongs(first.st_mode & 07777U, second.st_size == 0);
                      if (records.empty()) return true;
                      const Dictionary& record = *records[0].dictionary();
                      return belongs(
                          static_cast<unsigned>(
                              record.find(kKeyObjectPOSIXMode)->number()->unsignedIntegerValue()),
                          record.find(kKeyObjectSize)->number()->longLongValue() == 0);
                  }});
}

TEST_F(Race, AListIsGivenWholeToOneObject) {
    const std::string list(
        "\2\0\0\0\1\0\7\0\xff\xff\xff\xff\2\0\7\0\x07\0\0\0\4\0\5\0\xff\xff\xff\xff"
        "\x10\0\7\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff",
        44);
    const char* access = "system.posix_acl_access";
    const char* inheritable = "system.posix_acl_default";
    fightAll({.layOut =
                  [this] {
                      make("root/dir/object", S_IFDIR | 0700, 0);
                      make("root/build/above/dir/object", S_IFDIR | 0700, kAttacker);
                  },
              .operate =
                  [&] {
                      call("ModifyAcl", {_path, Data::copy(list + list)});
                  },
              .byPath =
                  [&] {
                      for (const char* name : {access, inheritable}) {
                          (void)::setxattr(_path.c_str(), name, list.data(), list.size(), 0);
                          letHimIn();
                      }
                  },
              .isWhole =
                  [&] {
                      const std::string object = in("root/dir/object");
                      return hasAttribute(object, access) == hasAttribute(object, inheritable);
                  }});
}

TEST_F(Race, ClassicAttributesAreGivenWholeToOneObject) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no attributes on tmpfs";
    constexpr const char* kName = "user.com.apple.FinderInfo";
    const auto bytesOf = [](const std::string& path) {
        std::string bytes(32, '\0');
        return ::getxattr(path.c_str(), kName, bytes.data(), bytes.size()) == 32 ? bytes : "";
    };
    fightAll({.layOut =
                  [this] {
                      make("root/dir/object", S_IFREG | 0600, 0);
                      make("root/build/above/dir/object", S_IFREG | 0600, kAttacker);
                  },
              .operate =
                  [this] {
                      call("ModifyHfsattr", {_path, 0x01010101, 0x01010101, true});
                  },
              .byPath =
                  [&] {
                      std::string bytes = std::string(8, '\1') + std::string(24, '\0');
                      (void)::setxattr(_path.c_str(), kName, bytes.data(), bytes.size(), 0);
                      bytes[8] = 0x40;
                      letHimIn();
                      (void)::setxattr(_path.c_str(), kName, bytes.data(), bytes.size(),
                                       XATTR_REPLACE);
                  },
              .isWhole =
                  [&] {
                      const std::string bytes = bytesOf(in("root/dir/object"));
                      return bytes.empty() || (bytes[0] == 1 && bytes[8] == 0x40);
                  }});
}

TEST_F(Race, AnUnlockedObjectKeepsItsOtherFlags) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no flags on tmpfs";
    fightAll({.layOut =
                  [this] {
                      make("root/build/above/dir/object", S_IFREG | 0600, kAttacker);
                      make("root/dir/object", S_IFREG | 0600, 0);
                      (void)setFlags(in("root/dir/object"), FS_APPEND_FL | FS_IMMUTABLE_FL);
                  },
              .operate =
                  [this] {
                      call("ModifyProtection", {_path, false, false, false});
                  },
              .byPath =
                  [this] {
                      const unsigned left = flagsOf(_path) & ~unsigned{FS_IMMUTABLE_FL};
                      letHimIn();
                      (void)setFlags(_path, left);
                  },
              .isWhole = [this] { return (flagsOf(in("root/dir/object")) & FS_APPEND_FL) != 0; }});
}

/// Both removals of single objects: what is unlocked is what is removed.
TEST_F(Race, ARemovedObjectIsTheUnlockedOne) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no flags on tmpfs";
    const QRLPrivilegedOperationSetKVX set;
    const auto helper = QRLPrivilegedHelper::initForOperationSet(
        &set, {std::make_shared<SilentLog>(), nullptr, makeFileFlags(), UniqueFd()});
    Row row{.layOut =
                [this] {
                    make("root/build/above/dir/object", S_IFREG | 0600, kAttacker);
                    make("root/dir/object", S_IFREG | 0600, 0);
                    (void)setFlags(in("root/dir/object"), FS_IMMUTABLE_FL);
                },
            .operate =
                [this] {
                    call("DeleteFileobjects", {"0", "1", _path});
                },
            .byPath =
                [this] {
                    (void)setFlags(_path, 0);
                    letHimIn();
                    (void)::unlink(_path.c_str());
                },
            .isWhole =
                [this] {
                    const std::string object = in("root/dir/object");
                    return !exists(object) || flagsOf(object) == FS_IMMUTABLE_FL;
                }};
    fightAll(row);
    row.operate = [&] { (void)helper->deleteFileSystemObjectsWithPaths({_path}); };
    fightOnly(row);
}

/// A tree whose directories are exchanged for links while root works in it.
TEST_F(Race, AWalkNeverLeavesItsTree) {
    if (!keepsFlagsAndAttributes()) GTEST_SKIP() << "no flags on tmpfs";
    const std::string top = in("his/above");
    unsigned kept = 0;
    Row row{.layOut =
                [&] {
                    // What a link in the tree leads to is unlocked, by design.
                    ASSERT_EQ(::unlink(in("root/build/above/dir/link").c_str()), 0);
                    make("root/build/above/dir/object", S_IFREG | 0600, kAttacker);
                    make("root/dir/object", S_IFREG | 0600, 0);
                    (void)setFlags(in("root/dir/object"), kept);
                },
            .operate = {},
            .byPath =
                [&] {
                    (void)setFlags(top + "/dir/object", 0);
                    if (kept == 0) (void)::unlink((top + "/dir/object").c_str());
                },
            .isWhole =
                [&] {
                    const std::string object = in("root/dir/object");
                    return exists(object) && flagsOf(object) == kept;
                }};
    const std::vector<Exchange> below = {kExchanges[0]};
    row.operate = [&] { call("DeleteFileobjects", {"1", "0", top}); };
    fightAll(row, below);
    row.operate = [&] { call("DeleteFoldercontents", {top}); };
    fightOnly(row, below);
    kept = FS_IMMUTABLE_FL;
    row.operate = [&] { call("ModifyProtection", {top, false, true, false}); };
    fightOnly(row, below);
}

}  // namespace
}  // namespace corvalen
