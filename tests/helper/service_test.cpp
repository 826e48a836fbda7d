// SPDX-License-Identifier: MIT
// The service and its own operations, and what the program does for each command line.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iomanip>

#include "helper/operation_set_factory.hpp"
#include "helper/start_up.hpp"
#include "helper_fixture.hpp"
#include "operations/names.hpp"
#include "support/golden.hpp"
#include "xpc/wire_limits.hpp"

namespace corvalen::test {
namespace {

using std::filesystem::exists;
using ::testing::ElementsAre;
using namespace ::testing;
using namespace ::testing::internal;

class ServiceTest : public HelperTest {
  protected:
    ServiceTest() {
        makeHelper(catalogue);
        connection = Connection::connectionToEndpoint(helper->listener()->endpoint());
    }
    CallResult send(std::string_view selector, Array params) {
        return helper->handleMessage(*connection, selector, std::move(params));
    }
    void TearDown() override {
        connection.reset();
        HelperTest::TearDown();
    }

    std::shared_ptr<Connection> connection;
};

TEST_F(ServiceTest, ClientsAreASetWithAQuotaPerUser) {
    UserQuotaTable table;
    const auto account = table.quotasForUser(1000);
    for (int pid = 100; pid < 1124; ++pid)
        ASSERT_TRUE(helper->registerClientWithPID(pid, account));
    events.take();
    EXPECT_FALSE(helper->registerClientWithPID(-1, account));
    EXPECT_THAT(events.take(), ElementsAre("3 Client -1 was not registered because user 1000 has "
                                           "1024 clients."));
    EXPECT_TRUE(helper->registerClientWithPID(105, account)) << "it is registered already";
    EXPECT_TRUE(helper->registerClientWithPID(2000, table.quotasForUser(1001)));
    EXPECT_TRUE(helper->registerClientWithPID(2001));
    // An unregistration by any client frees the place.
    helper->unregisterClientWithPID(117);
    EXPECT_TRUE(helper->registerClientWithPID(-1, account));
}

TEST_F(ServiceTest, LogLinesOfAUserAreLimitedButNotThoseOfWhatWasGranted) {
    UserQuotaTable table;
    const auto account = table.quotasForUser(1000);
    const LogQuotaScope limited(account.get());
    constexpr std::size_t kLimit = wire::kMaximumLogLinesPerUserAndSecond;
    int told = 0;
    helper->log().setLeftOutHandler([&told] { ++told; });
    for (std::size_t i = 0; i < 10 * kLimit; ++i)
        helper->registerClientWithPID(17);
    const std::size_t written = events.take().size();
    EXPECT_GE(written, kLimit);
    EXPECT_LE(written, 2 * kLimit) << "a second may have begun";
    EXPECT_EQ(told, 1) << "with the first line that was left out, and not with each";
    // A granted operation, which has no implementation here.
    send(selector::kPerformPrivilegedOperation,
         {3, Data::copy(std::string(32, 'x')), Value(), Array{}});
    const auto lines = events.take();
    const auto has = [&lines](std::string_view part) {
        return std::any_of(lines.begin(), lines.end(), [part](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    };
    EXPECT_TRUE(has("About to perform") && has("no implementation") && has("was completed"));
    EXPECT_TRUE(helper->log().reportLeftOutLines({account}, quotaSecond() + 1));
    ASSERT_EQ(events.list.size(), 1U);
    EXPECT_THAT(events.list[0], ::testing::HasSubstr(" log lines of user 1000 were left out."));
}

TEST_F(ServiceTest, OnlyConnectionsOfItsOwnListenerAreAccepted) {
    const auto other = Listener::anonymousListener();
    ::testing::internal::CaptureStderr();  // it writes to the console
    EXPECT_FALSE(helper->listenerShouldAcceptNewConnection(*other, connection));
    EXPECT_FALSE(helper->listenerShouldAcceptNewConnection(*helper->listener(), nullptr));
    const std::string line =
        "test_helper: QRLPrivilegedHelper: received bad XPC connection request. Ignoring ...\n";
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), line + line);
    EXPECT_TRUE(helper->listenerShouldAcceptNewConnection(*helper->listener(), connection));
    connection->invalidate();
}

class MaintenanceTest : public HelperTest {
  protected:
    MaintenanceTest() { makeHelper(catalogue); }

    std::int64_t remove(const std::string& path) {
        ErrorRef error;
        const bool removed = helper->enforceRemovalOfFileSystemObjectAtPath(path, &error);
        EXPECT_EQ(removed, error == nullptr);
        return error ? error->code() : 0;
    }

    ScratchFolder scratch;
};

// The contract client deletes every kind of object.
TEST_F(MaintenanceTest, ALockedFileIsUnlockedUnlessTheSystemLockedIt) {
    const std::string target = putFile(scratch.path("target"), "");
    if (!flags.setFlags({kWorkingDirectory, target.c_str()}, kUserImmutableFlag))
        GTEST_SKIP() << "no file flags here";
    struct stat attributes {};
    ASSERT_EQ(::stat(target.c_str(), &attributes), 0);
    flags.systemLocked = {attributes.st_ino};
    EXPECT_EQ(remove(target), 5);
    flags.systemLocked = {};
    flags.failure = EPERM;
    EXPECT_EQ(remove(target), 5);
    flags.failure = 0;
    EXPECT_EQ(remove(target), 0);
    EXPECT_FALSE(exists(target));
}

TEST_F(MaintenanceTest, UninstallingRemovesEveryRightAndReportsOnlyAMissingReference) {
    ::testing::internal::CaptureStderr();  // the fake refuses, which goes to the console
    EXPECT_EQ(helper->prepareUninstall(), nullptr);
    ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(events.take(), SizeIs(29 + 1));  // the rights, and the reference freed
    authorization.referenceStatus = kAuthorizationInternal;
    EXPECT_EQ(*helper->prepareUninstall(), *makeOSStatusError(-60008));
    EXPECT_THAT(events.take(), IsEmpty());
}

TEST(StartUp, EveryCommandLineAndSurrounding) {
    // Words of the surroundings, "--", and the command line.
    expectTranscript("start_up.txt", [](const std::string& line) {
        std::istringstream text(line);
        uid_t user = 0;
        ProgramInformation program{"QRLPrivilegedOperationSetKVX", "the.bundle", "1.4", "141112"};
        std::string word;
        while (text >> word && word != "--") {
            const std::string value = word.substr(word.find('=') + 1);
            if (word.starts_with("user")) user = static_cast<uid_t>(std::stoul(value));
            if (word.starts_with("class")) program.principalClass = value;
            if (word.starts_with("version")) program.shortVersion = value;
        }
        std::vector<std::string> words;
        while (text >> std::quoted(word, '\''))
            words.push_back(word);
        Events events;
        StartUpDependencies dependencies{user, stdout, stderr, {}, {}};
        dependencies.openLog = [&](auto ident, auto facility, auto sender) {
            events.add(std::string(ident).append(" ").append(facility).append(" ").append(sender));
            return std::make_unique<RecordingLog>(events);
        };
        dependencies.serve = [&](const QRLPrivilegedOperationSet& set, auto&&) {
            events.add("serves " + std::to_string(set.implementedOperations().size()));
            return 7;
        };
        CaptureStdout();
        CaptureStderr();
        const int status = runProgram({words.begin(), words.end()}, program, dependencies);
        std::string result = GetCapturedStdout();
        if (const std::string errors = GetCapturedStderr(); !errors.empty())
            result += "! " + errors;
        for (const std::string& event : events.take())
            result += event + "\n";
        return result + "= " + std::to_string(status) + "\n";
    });
}

TEST(StartUp, AbortsWithoutALogOrAMessageTemplate) {
    using OpenLog = decltype(StartUpDependencies::openLog);
    Events events;
    const std::tuple<const char*, std::string, OpenLog> cases[] = {
        {"aslHandle != NULL", "the.bundle", [](auto...) { return nullptr; }},
        {"aslMessage != NULL", "", [&](auto...) { return std::make_unique<RecordingLog>(events); }},
        {"aslMessage != NULL", "the.bundle",
         [](auto...) -> std::unique_ptr<SystemLog> { throw std::bad_alloc(); }},
    };
    for (const auto& [condition, identifier, openLog] : cases)
        EXPECT_EXIT((void)runProgram({}, {"QRLPrivilegedOperationSetKVX", identifier, "1.4", "1"},
                                     {0, stdout, stderr, openLog, {}}),
                    ::testing::KilledBySignal(SIGABRT),
                    std::string("^main: assertion failed: ") + condition + "\n$");
}

}  // namespace
}  // namespace corvalen::test
