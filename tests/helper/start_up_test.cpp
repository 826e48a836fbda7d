// SPDX-License-Identifier: MIT
// What the program does for each command line and in each surrounding.
#include "helper/start_up.hpp"

#include "helper/class_registry.hpp"
#include "helper_fixture.hpp"

namespace corvalen::test {
namespace {

using namespace ::testing::internal;

const std::string kOpened = "the.bundle Daemon the.bundle";
const std::string kDown = "6 Privileged helper is shutting down.";
const std::string kNotRoot = "3 This program needs root privileges.";
const std::string kMismatch =
    "3 Internal implementation error: executable version (1.5) does not match implementation "
    "version of privileged command set (1.4).";
const std::string kNoClass =
    "Internal implementation error: The principal class is either not set or not implemented.\n";

struct Case {
    std::vector<std::string_view> arguments = {};
    std::string principalClass = "QRLPrivilegedOperationSetKVX";
    std::string version = "1.4";
    uid_t user = 0;
    int status = 1;
    std::string output = {}, errors = {};
    std::vector<std::string> happened = {};
};

TEST(StartUp, EveryCommandLineAndSurrounding) {
    const std::vector<Case> cases = {
        {.arguments = {"v", "v"}, .principalClass = ""},
        {.arguments = {"x"}},
        {.arguments = {""}},
        {.arguments = {"version"}, .user = 1000, .status = 0, .output = "1.4 (Build 141112)\n"},
        {.arguments = {"v"}, .principalClass = "NSObject", .errors = kNoClass},
        {.principalClass = "", .errors = kNoClass},
        {.status = 7, .happened = {kOpened, "serving", kDown}},
        {.user = 1000, .happened = {kOpened, kNotRoot, kDown}},
        {.version = "1.5", .happened = {kOpened, kMismatch, kDown}},
        {.version = "1.5", .user = 1, .happened = {kOpened, kMismatch, kNotRoot, kDown}},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(&item - cases.data());
        Events events;
        StartUpSurroundings surroundings{item.user, stdout, stderr, {}, {}};
        surroundings.openLog = [&](auto ident, auto facility, auto sender) {
            events.add(std::string(ident).append(" ").append(facility).append(" ").append(sender));
            return std::make_unique<RecordingLog>(events);
        };
        surroundings.serve = [&](const QRLPrivilegedOperationSet& set, auto&&) {
            EXPECT_EQ(set.implementedOperations().size(), 29U);
            events.add("serving");
            return 7;
        };
        const ProgramInformation program{item.principalClass, "the.bundle", item.version, "141112"};
        CaptureStdout();
        CaptureStderr();
        EXPECT_EQ(runProgram(item.arguments, program, surroundings), item.status);
        EXPECT_EQ(GetCapturedStdout(), item.output);
        EXPECT_EQ(GetCapturedStderr(), item.errors);
        EXPECT_EQ(events.take(), item.happened);
    }
}

TEST(StartUp, AbortsWithoutALogOrAMessageTemplate) {
    using OpenLog = decltype(StartUpSurroundings::openLog);
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
