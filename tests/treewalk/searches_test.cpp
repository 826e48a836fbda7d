// SPDX-License-Identifier: MIT
// Searches, and their cancellation.
#include <chrono>
#include <map>
#include <thread>

#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "treewalk/fixture.hpp"
#include "treewalk/known_owners.hpp"

namespace corvalen {
namespace {

using testing::Names;
using testing::shell;
using testing::summary;

class Searches : public testing::TreeWalkTest {
  protected:
    void expectFound(const std::string& operation, const Array& arguments, const Names& expected) {
        EXPECT_EQ(call("Search" + operation, arguments), "none");
        EXPECT_EQ(feedback.found, expected) << operation;
    }
    std::uint64_t sizeBelow(const std::string& path) {
        EXPECT_EQ(call("InspectStoragesize", {path}), "answer");
        const bool told = answer && answer->userInfo() != nullptr;
        const Value* size = told ? answer->userInfo()->find("Size") : nullptr;
        return size != nullptr ? size->number()->unsignedIntegerValue() : 0;
    }
    std::uint64_t sizeOf(const std::string& name) {
        return static_cast<std::uint64_t>(statusOf(at(name)).st_size);
    }
};

TEST_F(Searches, FindWhatIsThereThroughALinkToTheFolder) {
    ASSERT_TRUE(
        inside("mkdir -p real/sub && echo 1234 >real/sub/text && ln real/sub/text real/two && "
               "ln -s .. real/loop && ln -s nowhere real/gone && ln -s real way"));
    file("real/\xc3\x28.bin", "123");
    const Names all{"real/sub",  "real/sub/text", "real/\xc3\x28.bin",
                    "real/loop", "real/gone",     "real/two"};
    std::uint64_t size = 0;
    Array rules{at("way"), "0"};
    for (const std::string& name : all) {
        size += sizeOf(name);
        rules.insert(rules.end(), {Value("0"), Value(std::string(lastPathComponent(name)))});
    }
    expectFound("Agedfiles", {at("way"), 0, 0}, all);
    expectFound("Patterns", rules, all);
    EXPECT_EQ(sizeBelow(at("way")), size);

    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    file("mnt/inside");
    for (const bool stay : {false, true}) {
        EXPECT_EQ(walked(_top, stay).count("mnt"), 1U);
        expectFound("Patterns", {_top, stay ? "1" : "0", "1", "ins"},
                    stay ? Names{} : Names{"mnt/inside"});
    }
}

TEST_F(Searches, SendBatchesOfTwenty) {
    ASSERT_TRUE(
        inside("mkdir empty && for count in 20 100; do "
               "mkdir $count && seq -f $count/f%g $count | xargs touch; done"));
    for (const auto& [operation, arguments, expected] :
         {std::tuple<std::string, Array, const char*>("Agedfiles", {at("20"), 0, 0}, "0:20 1:0"),
          {"Agedfiles", {at("20"), 1, 0}, "1:0"},
          {"Patterns",
           {at("100"), "0", "1", "f"},
           "0.01 0.19:20 0.39:20 0.59:20 0.79:20 0.99:20 1:0"}}) {
        EXPECT_EQ(call("Search" + operation, arguments), "none");
        EXPECT_EQ(feedback.sent, expected) << operation;
    }
    EXPECT_EQ(call("SearchPatterns", {at("empty"), "0", "0", "x"}), "ENOENT");
    EXPECT_EQ(feedback.sent, "0.01");
}

TEST_F(Searches, PatternsMatchNamesExactly) {
    ASSERT_TRUE(
        inside("mkdir T.app && cd T.app && "
               "touch readme Readme readme.txt app .app x.APP a.b.app"));
    const std::string dotlessType = "\xc4\xb0";  // U+0130, whose low byte is that of "0"
    for (const auto& [rules, expected] : {
             std::pair<Array, Names>({dotlessType, "readme"}, {"T.app/readme"}),
             {{"1", "readme"}, {"T.app/readme", "T.app/readme.txt"}},
             {{"2", "app"}, {"T.app", "T.app/a.b.app"}},
             {{"2", "b.app"}, {}},
             {{"0", "app", "2", "txt", "1", "app"}, {"T.app/app", "T.app/readme.txt"}},
         }) {
        Array arguments{_top, "0"};
        arguments.insert(arguments.end(), rules.begin(), rules.end());
        expectFound("Patterns", arguments, expected);
    }
    for (const Array& faulty : {Array{},
                                {at("x"), "0", "0", "a", "1"},
                                {_top, "yes", "0", "a"},
                                {_top, "0", "3", "a"},
                                {_top, "0", "01", "a"},
                                {_top, "0", "1", ""},
                                {_top, "0", "0", "a", "/", "b"},
                                {_top, "0", "\xf0\x90\x80\xb0", "a"}}) {
        EXPECT_EQ(call("SearchPatterns", faulty), "EINVAL");
        EXPECT_EQ(feedback.sent, "");
    }
}

TEST_F(Searches, AgeIsMeasuredInWholeDays) {
    ASSERT_TRUE(
        inside("touch today && touch -d '-48 hours 1 minute' younger && "
               "touch -d '-48 hours -1 second' older && touch -d '24 hours' tomorrow && "
               "ln -s today 'old link' && touch -hd '-72 hours' 'old link'"));
    for (const auto& [days, expected] :
         {std::pair<std::uint64_t, Names>(0, {"today", "younger", "older", "old link"}),
          {1, {"younger", "older", "old link"}},
          {2, {"older", "old link"}},
          {~std::uint64_t{0}, {}}})
        expectFound("Agedfiles", {_top, days, 0}, expected);
}

TEST_F(Searches, FilenamesLooksAtDirectObjectsAndThroughLinks) {
    ASSERT_TRUE(
        inside("mkdir -p folder.txt/inner.txt && touch a.txt a.TXT a.tar.txt.gz abc Abc .txt && "
               "ln -s folder.txt 'to folder' && ln -s a.txt 'to file.txt' && "
               "ln -s nowhere dangling.txt"));
    for (const auto& [prefix, extension, folders, expected] :
         {std::tuple<const char*, const char*, bool, Names>("", "txt", false,
                                                            {"a.txt", "to file.txt"}),
          {"", "txt", true, {"folder.txt"}},
          {"", "", true, {"folder.txt", "to folder"}},
          {"a", "", false, {"a.txt", "a.TXT", "a.tar.txt.gz", "abc"}},
          {"to", "txt", false, {"to file.txt"}}})
        expectFound("Filenames", {_top + "/", prefix, extension, folders}, expected);
}

TEST_F(Searches, OrphansAreReportedOnceAndAlone) {
    ASSERT_TRUE(
        inside("mkdir -p known empty gone/a/b mixed/in/deep roots && ln -s mine known/link && "
               "touch known/orphan known/mine gone/a/x mixed/in/deep/mine mixed/in/orphan "
               "roots/file && chown -hR 3999999 * && chown 0 known roots/file && "
               "chown 1000 known/mine mixed/in/deep/mine"));
    expectFound("Fileorphans", {_top, 0},
                {"empty", "gone", "known/orphan", "known/link", "mixed/in/orphan"});
    // root is known without any account.
    users.ids.clear();
    expectFound("Fileorphans", {_top, 0},
                {"empty", "gone", "known/orphan", "known/link", "known/mine", "mixed"});

    const UserSet known({1000});
    EXPECT_TRUE(isFolderAtPath(at("gone"), known) && isFolderAtPath(at("empty"), known));
    for (const std::string& path : {at("known"), at("mixed"), at("known/mine"), at("x"), {}})
        EXPECT_FALSE(isFolderAtPath(path, known)) << path;
    EXPECT_FALSE(isFolderAtPath(at("empty"), UserSet({})));
    const auto listed = makeUserDatabase()->listedUserIDs();
    EXPECT_TRUE(shell("test $(getent passwd | wc -l) = " + std::to_string(listed.size())));
}

TEST_F(Searches, TheSizeHasNoLimitOfDepthOrBreadth) {
    EXPECT_EQ(sizeBelow(folder("empty")), 0U);
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("cd mnt && for i in $(seq 300); do mkdir $i && printf 1 >$i/a && "
               "printf 12 >$i/b; done"));
    std::uint64_t expected = 0;
    for (int i = 1; i <= 300; ++i)
        expected += 3 + sizeOf("mnt/" + std::to_string(i));
    EXPECT_EQ(sizeBelow(at("mnt")), expected);
    folder("mnt/deep");
    const std::uint64_t leaf = sizeOf("mnt/deep");
    chain(at("mnt/deep"), 3000);
    EXPECT_EQ(sizeBelow(at("mnt")), expected + 3000 * sizeOf("mnt/deep") + leaf);
}

/// Cancels at the message with this number, counted from 1.
class CancellingFeedback : public testing::Feedback {
  public:
    CancellingFeedback(Cancellation& cancellation, int message)
        : _cancellation(cancellation), _message(message) {}
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        Feedback::processPrivilegedOperationFeedback(std::move(feedback));
        if (--_message == 0) _cancellation.request();
    }

  private:
    Cancellation& _cancellation;
    int _message;
};

/// Cancels at the fourth probe; each probe takes so long that the next object probes again.
class FourthProbe : public Cancellation {
    bool probe() noexcept override {
        std::this_thread::sleep_for(std::chrono::nanoseconds(kProbeInterval * 3 / 2));
        return ++_probes == 4;
    }
    std::atomic<int> _probes{0};
};

class CancelledWalk : public testing::TreeWalkTest {
  protected:
    void SetUp() override {
        TreeWalkTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
        ASSERT_TRUE(
            inside("mkdir mnt/t && cd mnt/t && seq 10000 | xargs touch && chown 3999999 *"));
    }
    /// The number of finished objects in the error, and the messages.
    std::string cancelled(const std::string& operation, const Array& arguments,
                          Cancellation& cancellation, int message = 0) {
        const CancellationScope scope(cancellation);
        CancellingFeedback connection(cancellation, message);
        answer = test::perform(operations, operation, arguments, &connection);
        EXPECT_EQ(summary(answer), summary(makePosixError(ECANCELED))) << operation;
        const bool hasInfo = answer && answer->userInfo() != nullptr;
        const Value* count = hasInfo ? answer->userInfo()->find(kKeyObjectCount) : nullptr;
        return (count != nullptr ? std::to_string(count->number()->unsignedIntegerValue()) : "-") +
               " done: " + connection.sent;
    }
};

TEST_F(CancelledWalk, EndsBeforeTheNextObject) {
    const std::string top = at("mnt/t");
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(top)->allObjects();
    const Array pattern{top, "0", "1", "9"};
    std::size_t fortieth = 0;
    for (std::size_t found = 0; found < 40; ++fortieth)
        found += order[fortieth].starts_with("9") ? 1 : 0;
    ASSERT_TRUE(inside("chmod 777 mnt/t"));
    for (const auto& [operation, arguments, message, expected] :
         {std::tuple<std::string, Array, int, const char*>("SearchAgedfiles", {top, 0, 0}, 2,
                                                           "40 done: 0:20 0:20"),
          {"SearchFilenames", {top, "", "", 0}, 1, "20 done: 0:20"},
          {"SearchPatterns", pattern, 1, "0 done: 0.01"},
          {"SearchFileorphans", {top, 0}, 1, "20 done: 0:20"},
          {"PropPermissions", {top, 0, 0, 0x02}, 2, "200 done: 100 200 1"}}) {
        Cancellation cancellation;
        EXPECT_EQ(cancelled(operation, arguments, cancellation, message), expected) << operation;
    }
    for (std::size_t i = 0; i < order.size(); ++i)
        ASSERT_EQ(modeOf(at("mnt/t/" + order[i])), i < 200 ? 0646U : 0644U) << i;
    Cancellation inMatching;
    EXPECT_TRUE(cancelled("SearchPatterns", pattern, inMatching, 3)
                    .starts_with(std::to_string(fortieth) + " done: 0.01 "));
}

TEST_F(CancelledWalk, EndsInEveryThread) {
    FourthProbe cancellation;
    const std::string size = cancelled("InspectStoragesize", {at("mnt/t")}, cancellation);
    EXPECT_GE(size, "1 done: ");
    EXPECT_LE(size, "3 done: ");

    FourthProbe inTheCount;
    EXPECT_LT(cancelled("SearchPatterns", {at("mnt/t"), "0", "0", "x"}, inTheCount).size(), 14U);

    // The thread that reads ahead sees the cancellation; the calling thread waits for it.
    Cancellation ahead;
    const CancellationScope scope(ahead);
    std::atomic<int> seen{0};
    std::thread::id reader;
    WalkAhead walk(openSearchedFolder(at("mnt/t")).value(), false, 0, [&](std::string_view) {
        if (++seen == 9000) ahead.request();
        reader = std::this_thread::get_id();
        return false;
    });
    EXPECT_EQ(walk.next(), nullptr);
    EXPECT_TRUE(walk.wasCancelled());
    EXPECT_NE(reader, std::this_thread::get_id());
    EXPECT_LT(seen, 9000 + 16);
    EXPECT_EQ(ahead.objectCount(), static_cast<unsigned>(seen));
}

}  // namespace
}  // namespace corvalen
