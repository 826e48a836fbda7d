// SPDX-License-Identifier: MIT
// The owner of directories exchanges them, or the objects in them, for links while root works
// there: the rows of races.txt, and what they cannot say. Each row also runs with calls by path,
// which shows that the attack hits. CORVALEN_EXCHANGES sets how many rounds and exchanges a row
// lasts at least (default 300).
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <regex>

#include "fileops/file_object_info.hpp"
#include "fileops/operations_fixture.hpp"
#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "support/child.hpp"
#include "support/silent_log.hpp"

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
    std::string one;
    std::string other;
};
const std::vector<Exchange> kExchanges = {{"his/above/dir", "his/above/link"},
                                          {"his/above", "his/link"},
                                          {"his/above/dir/object", "his/above/dir/link"}};

const std::string kDirectories =
    "root d700; root/dir d700; root/build d700; root/build/above d700 @me; "
    "root/build/above/dir d700 @me; root/build/above/link >../../root/dir @me; "
    "root/build/link >../root @me; root/build/above/dir/link >../../../root/dir/object @me; ";

class Race : public testing::FileOperationsTest {
  protected:
    /// What a test fills in; races.txt describes it.
    struct {
        std::string objects;
        std::function<void()> begin = [] {};  // of each round
        std::function<void()> byPath;
        std::function<bool()> isWhole;
        std::vector<Exchange> exchanges = kExchanges;
    } row;

    void SetUp() override {
        FileOperationsTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
        void* shared = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(shared, MAP_FAILED);
        _exchanges = new (shared) std::atomic<int>(0);
        ASSERT_TRUE(inside("cd mnt && mkdir other && mount -t tmpfs none other"));
    }

    /// With the folder open, its file system would stay mounted and leave "mnt" behind.
    void TearDown() override {
        _his.reset();
        FileOperationsTest::TearDown();
    }

    [[nodiscard]] std::string in(const std::string& name) const { return at("mnt/" + name); }
    /// Gives the attacker time between the calls of a control.
    static void letHimIn() { ::usleep(20); }

    void layOut() {
        // The attacker goes on exchanging, so one try may fail or not remove everything.
        while (exists(in("his")) || exists(in("root"))) {
            try {
                test::clearTree(at("mnt"));
            } catch (const std::filesystem::filesystem_error&) {
                continue;
            }
        }
        std::string objects = kDirectories + row.objects;
        for (const auto& [word, meaning] : {std::pair("@his", "root/build/above/dir/object"),
                                            {"@roots", "root/dir/object"},
                                            {"@me", "1234:1234"}})
            objects = test::replaced(objects, word, meaning);
        test::makeTree(at("mnt"), objects);
        row.begin();
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
            EXPECT_TRUE(outcome.whole) << exchange.one << ", round " << outcome.rounds;
            std::printf("%s: %d rounds, %d exchanges\n", exchange.one.c_str(), outcome.rounds,
                        outcome.exchanges);
            if (outcome.whole && std::min(outcome.rounds, outcome.exchanges) < wanted())
                GTEST_SKIP() << exchange.one << ": the machine is too busy, " << outcome.exchanges
                             << " exchanges";
        }
    }
    /// First the operation, then the same work by path, which the attack has to spoil.
    void fightAll(const std::function<void()>& operate) {
        fightOnly(operate);
        if (IsSkipped()) return;
        const Outcome control = fight(row.exchanges[0], row.byPath, 1'000'000);
        if (control.whole && control.rounds < kRoundsThatHit)
            GTEST_SKIP() << "the machine is too busy: no hit in " << control.rounds << " rounds";
        EXPECT_FALSE(control.whole) << "the attack does not hit";
        std::printf("by path: hit in round %d\n", control.rounds);
    }

    UniqueFd _his;
    const std::string _path = at("mnt/his/above/dir/object");
    std::atomic<int>* _exchanges = nullptr;
};

class RaceOfRow : public Race, public ::testing::WithParamInterface<testing::Row> {
  protected:
    void SetUp() override {
        Race::SetUp();
        if (IsSkipped()) return;
        // tmpfs has them since Linux 6.6.
        if (!given("needs").empty() &&
            !inside("cd mnt/other && touch probe && chattr +a probe && chattr -a probe && "
                    "setfattr -n user.probe probe"))
            GTEST_SKIP() << "no flags or attributes on tmpfs";
        table.add("performOperationDeleteFilesWithArguments:",
                  PlainOperationMethod([this](const Array& paths) {
                      return _helper->deleteFileSystemObjectsWithPaths(paths);
                  }));
        row.objects = given("objects");
        for (const std::string& pair : GetParam().all("exchange"))
            row.exchanges = {{pair.substr(0, pair.find(' ')), pair.substr(pair.find(' ') + 1)}};
        if (!given("before").empty()) row.begin = [this] { EXPECT_TRUE(inMount(given("before"))); };
        row.byPath = [this] { (void)inMount("object=his/above/dir/object; " + given("by path")); };
        row.isWhole = [this, whole = std::regex(given("whole")), never = given("never")] {
            const std::string now = state();
            return std::regex_search(now, whole) &&
                   (never.empty() || !std::regex_search(now, std::regex(never)));
        };
    }

    [[nodiscard]] std::string given(const std::string& key) const { return GetParam().one(key); }
    [[nodiscard]] bool inMount(const std::string& commands) const {
        return inside("cd mnt && " + commands);
    }
    /// A line for each object, and for each that the last search found.
    [[nodiscard]] std::string state() const {
        std::string text;
        for (const auto& [name, top] : {std::pair<const char*, std::string>("root/", in("root")),
                                        {"other/", in("other")},
                                        {"his/", "/proc/self/fd/" + std::to_string(_his.get())}}) {
            try {
                for (const auto& [path, object] : test::stateOf(top))
                    text += name + path + " " + object.text + object.flags + "\n";
            } catch (const std::filesystem::filesystem_error&) {
                // The attacker exchanged his objects meanwhile.
            }
        }
        for (const std::string& found : feedback.found)
            text += "found " + found + "\n";
        return test::packed(text, "\n");
    }

  private:
    const QRLPrivilegedOperationSetKVX _set;
    const std::shared_ptr<QRLPrivilegedHelper> _helper = QRLPrivilegedHelper::initForOperationSet(
        &_set, {std::make_shared<test::SilentLog>(), makeBuiltInAuthorizationService(at("rights")),
                makeFileFlags(), UniqueFd()});
};

TEST_P(RaceOfRow, LeavesRootsSideWhole) {
    const int times = given("times").empty() ? 1 : std::stoi(given("times"));
    bool isFirst = true;
    for (const std::string& notation : GetParam().all("operation")) {
        const auto [operation, arguments] =
            test::callOf(test::replaced(test::replaced(notation, "@object", _path), "@", in("")));
        const auto operate = [&, &name = operation, &list = arguments] {
            for (int i = 0; i < times; ++i)
                (void)call(name, list);
        };
        isFirst ? fightAll(operate) : fightOnly(operate);
        isFirst = false;
    }
}

INSTANTIATE_TEST_SUITE_P(Each, RaceOfRow, ::testing::ValuesIn(testing::rowsOf("races.txt")),
                         [](const auto& row) { return row.param.name; });

/// The attacker must not own the directory in which root's copy grows.
TEST_F(Race, AMovedTreeGrowsWhereTheAttackerCannotRead) {
    row.exchanges = {{"his/above/dir/object", "his/above/dir/trap"}};
    row.objects = "other/secret d700; other/secret/key f600; root/build/above/dir/trap d700 @me";
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
    fightAll([this] { (void)call("RenameFileobject", {in("other/secret"), _path}); });
}

TEST_F(Race, ARecordDescribesASingleObject) {
    // The attacker's objects have mode 04777 and text, root's 0600 and none; links have text.
    struct stat first {
    }, second{};
    const auto isOfOne = [&] {
        return second.st_size == 0 ? first.st_mode == 0600U
                                   : first.st_mode == 04777U || first.st_mode == 0777U;
    };
    row.objects = "@roots f600; @his f4777 @me =text";
    row.begin = [&] { first = second = {}; };
    row.byPath = [&] {
        const int result = ::lstat(_path.c_str(), &first);
        first.st_mode &= 07777U;
        letHimIn();
        if (result != 0 || ::lstat(_path.c_str(), &second) != 0) first = {};
    };
    row.isWhole = [&] { return first.st_mode == 0 || isOfOne(); };
    fightAll([&] {
        Array records;
        addFileSystemObjectInfoDictionaryToArray(&records, _path);
        if (records.empty()) return;
        const Dictionary& record = *records[0].dictionary();
        first.st_mode =
            static_cast<mode_t>(record.find(kKeyObjectPOSIXMode)->number()->unsignedIntegerValue());
        second.st_size = record.find(kKeyObjectSize)->number()->longLongValue();
    });
}

}  // namespace
}  // namespace corvalen
