// SPDX-License-Identifier: MIT
// Somebody who owns a tree exchanges its folders for links while root works in it.
#include <atomic>
#include <cstdio>
#include <thread>

#include "fileops/operations_fixture.hpp"

namespace corvalen {
namespace {

constexpr int kRounds = 1000;
/// So often he has to come to it; on a busy machine that takes more rounds.
constexpr int kExchanges = 500;
constexpr int kMostRounds = 50'000;

class HostileTree : public testing::OperationsTest {
  protected:
    void SetUp() override {
        OperationsTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
        for (const char* name : {"mnt/outside", "mnt/outside/sub", "mnt/spare"})
            folder(name);
        for (const char* name : {"mnt/outside/1", "mnt/outside/2", "mnt/outside/sub/3"})
            file(name, "precious");
    }
    /// A folder with contents of the same names as outside; the link waits to take its place.
    void layOut() {
        for (const char* name : {"mnt/top", "mnt/top/folder", "mnt/top/folder/sub"})
            folder(name);
        for (const char* name : {"mnt/top/folder/1", "mnt/top/folder/2", "mnt/top/folder/sub/3"})
            ASSERT_EQ(::mknod(at(name).c_str(), S_IFREG | 0644, 0), 0);
        link("mnt/spare/link", "../outside");
    }
    void clear() {
        // The attacker may have moved what is locked out of the way of one unlocking.
        while (exists(at("mnt/top")) || exists(at("mnt/spare/link"))) {
            for (const char* name : {"mnt/spare/link", "mnt/top"}) {
                if (_locksTree && exists(at(name)))
                    call("ModifyProtection", {at(name), false, true, false});
                remove(at(name));
            }
        }
    }
    void remove(const std::string& path) {
        Entry entry;
        ASSERT_EQ(openEntryAt(AT_FDCWD, path, &entry), 0);
        manager->removeItem(entry.address(), path);
    }
    /// Runs the operation again and again while the attacker never rests.
    void attack(const char* operation, const Array& arguments) {
        std::atomic<bool> running{true};
        std::atomic<int> exchanges{0};
        const std::string inner = at("mnt/top/folder");
        const std::string outer = at("mnt/spare/link");
        std::thread attacker([&] {
            while (running) {
                if (::renameat2(AT_FDCWD, inner.c_str(), AT_FDCWD, outer.c_str(),
                                RENAME_EXCHANGE) == 0) {
                    ++exchanges;
                } else {
                    std::this_thread::yield();
                }
            }
        });
        const auto goesOn = [&](int round) {
            return round < kRounds || (exchanges < kExchanges && round < kMostRounds);
        };
        for (int round = 0; goesOn(round) && !HasFatalFailure(); ++round) {
            layOut();
            call(operation, arguments);
            inspectOutside();
            clear();
        }
        running = false;
        attacker.join();
        EXPECT_GE(exchanges, kExchanges) << "he hardly came to it";
    }
    void inspectOutside() {
        for (const char* name : kPrecious) {
            ASSERT_TRUE(exists(at(name))) << name;
            ASSERT_EQ(isImmutable(at(name)), _outsideIsLocked) << name;
        }
    }

    static constexpr const char* kPrecious[] = {"mnt/outside/1", "mnt/outside/2",
                                                "mnt/outside/sub/3", "mnt/outside/sub"};
    bool _locksTree = false;
    bool _outsideIsLocked = false;
};

TEST_F(HostileTree, RemovalAndLockingNeverLeaveIt) {
    attack("DeleteFileobjects", {"1", "0", at("mnt/top")});
    attack("DeleteFoldercontents", {at("mnt/top")});
    _locksTree = true;
    attack("ModifyProtection", {at("mnt/top"), true, true, false});
}

TEST_F(HostileTree, UnlockingNeverLeavesIt) {
    _outsideIsLocked = true;
    for (const char* name : kPrecious)
        ASSERT_TRUE(chattr("+i", at(name)));
    attack("ModifyProtection", {at("mnt/top"), false, true, false});
}

}  // namespace
}  // namespace corvalen
