// SPDX-License-Identifier: MIT
// Somebody who owns directories exchanges them, or the objects in them, for links while root works
// there. Each row is also fought with calls by path, which shows that the attack hits.
// CORVALEN_EXCHANGES sets how many rounds and exchanges a row lasts at least (default 300).
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "fileops/operations_fixture.hpp"
#include "support/child.hpp"

namespace corvalen {
namespace {

constexpr uid_t kAttacker = 1234;
constexpr std::chrono::seconds kLongest{60};
/// Calls by path lose long before.
constexpr int kRoundsThatHit = 30'000;

int wanted() {
    const char* text = std::getenv("CORVALEN_EXCHANGES");
    return text != nullptr ? std::max(1, std::atoi(text)) : 300;
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
    void layOut(const Row& row) {
        // He goes on meanwhile: what he moved away is removed in another try.
        std::error_code error;
        for (const char* side : {"his", "root"})
            while (exists(in(side)))
                std::filesystem::remove_all(in(side), error);
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
        const auto end = std::chrono::steady_clock::now() + kLongest;
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
    void fightAll(const Row& row, const std::vector<Exchange>& exchanges = kExchanges) {
        for (const Exchange& exchange : exchanges) {
            const Outcome outcome = fight(exchange, row, row.operate, wanted());
            EXPECT_TRUE(outcome.whole) << exchange.what << ", round " << outcome.rounds;
            if (outcome.whole && std::min(outcome.rounds, outcome.exchanges) < wanted())
                GTEST_SKIP() << exchange.what << ": the machine is too busy, " << outcome.exchanges
                             << " exchanges";
        }
        const Outcome control = fight(exchanges[0], row, row.byPath, 1'000'000);
        if (control.whole && control.rounds < kRoundsThatHit)
            GTEST_SKIP() << "the machine is too busy: no hit in " << control.rounds << " rounds";
        EXPECT_FALSE(control.whole) << "the attack does not hit";
        RecordProperty("roundsUntilHit", control.rounds);
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
                          if (::mkdir(_path.c_str(), 0700) == 0)
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

}  // namespace
}  // namespace corvalen
