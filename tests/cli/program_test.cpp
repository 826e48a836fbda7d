// SPDX-License-Identifier: MIT
// The built program against a helper inside the test.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <future>
#include <thread>

#include "client/fake_helper.hpp"

namespace corvalen::cli {
namespace {

using test::FakeHelper;
using test::SendFeedback;
using testing::HasSubstr;

struct Outcome {
    int status = -1;
    std::string output;
    std::string errors;
};

std::string drain(int descriptor) {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(descriptor, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(got));
    return text;
}

/// A running corvalenctl.
class Program {
  public:
    Program(const FakeHelper& helper, std::vector<std::string> words) {
        words.insert(words.begin(), {CORVALENCTL_PATH, "--socket", helper.path()});
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        if (::pipe2(_out, O_CLOEXEC) != 0 || ::pipe2(_err, O_CLOEXEC) != 0) std::abort();
        _process = ::fork();
        if (_process == 0) {
            ::dup2(_out[1], STDOUT_FILENO);
            ::dup2(_err[1], STDERR_FILENO);
            ::execv(arguments[0], arguments.data());
            ::_exit(99);
        }
        ::close(_out[1]);
        ::close(_err[1]);
    }
    [[nodiscard]] pid_t process() const { return _process; }
    void closeOutput() { ::close(std::exchange(_out[0], -1)); }
    Outcome finish() {
        Outcome outcome;
        if (_out[0] >= 0) outcome.output = drain(_out[0]);
        outcome.errors = drain(_err[0]);
        int status = 0;
        ::waitpid(_process, &status, 0);
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        if (_out[0] >= 0) ::close(_out[0]);
        ::close(_err[0]);
        return outcome;
    }

  private:
    int _out[2];
    int _err[2];
    pid_t _process;
};

Outcome run(const FakeHelper& helper, std::vector<std::string> words) {
    return Program(helper, std::move(words)).finish();
}

Dictionary found(const std::vector<std::string>& paths) {
    Array records;
    for (const std::string& path : paths)
        records.emplace_back(Dictionary{{"Path", path}});
    return {{std::string(kQRLPORK_ProgressFraction), Value(0.5)},
            {std::string(kQRLPORK_FileObjectInfo), Value(std::move(records))}};
}

TEST(ProgramTest, PrintsWhatIsFoundAndExitsWithTheResult) {
    FakeHelper helper([](std::uint64_t, const Array& arguments, const SendFeedback& send) {
        send(found({"/x/a", "/x/\xFF"}));
        send(found({"/x/b"}));
        send(test::finalMessage());
        return *arguments[0].string() == "/denied" ? Value(makeOSStatusError(-60005))
               : *arguments[0].string() == "/bad"  ? Value(makePosixError(ENOTDIR))
                                                   : test::success();
    });
    const Outcome plain = run(helper, {"search-patterns", "/x", "-n", "a"});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output, "/x/a\n/x/\xFF\n/x/b\n");
    EXPECT_EQ(plain.errors, "");
    EXPECT_EQ(run(helper, {"search-patterns", "-0", "/x", "-n", "a"}).output,
              std::string("/x/a\0/x/\xFF\0/x/b\0", 15));
    const Outcome called = run(helper, {"call", "12", "S:/bad", "N:0", "S:0", "S:a"});
    EXPECT_EQ(called.status, 1);
    EXPECT_EQ(called.output, plain.output);
    EXPECT_THAT(called.errors, HasSubstr("Not a directory"));
    EXPECT_THAT(called.errors, HasSubstr("search-patterns takes any number of strings (S)\n"));
    const Outcome denied = run(helper, {"search-patterns", "/denied", "-n", "a"});
    EXPECT_EQ(denied.status, 4);
    EXPECT_THAT(denied.errors, HasSubstr("/denied: The authorization was denied."));
    EXPECT_EQ(run(helper, {"search-patterns", "/x"}).status, 2);
    EXPECT_EQ(run(helper, {"version"}).output, "1.4\n");
    // Each of the five that asked the helper came and went.
    EXPECT_EQ(helper.waitForLog(10).find("unregister") != std::string::npos, true);
    EXPECT_EQ(helper.log().size(), 10U);
    helper.stop();
    const Outcome gone = run(helper, {"nop"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_THAT(gone.errors, HasSubstr(helper.path()));
}

TEST(ProgramTest, PassesTheOutputOfAUtilityOnToTheRightStream) {
    FakeHelper helper([](std::uint64_t, const Array&, const SendFeedback& send) {
        send({{"OutputData", Data{}}, {"ErrorData", Data{}}});
        send({{"OutputData", Data::copy(std::string("a\0\xFF", 3))}});
        send({{"ErrorData", Data::copy("warning")}});
        send({{"OutputData", Data::copy("b")}});
        send(test::finalMessage());
        return Value(makeError(kErrorDomain, 3,
                               Dictionary{{std::string(kLocalizedDescriptionKey), "Failed."},
                                          {std::string(kLocalizedRecoverySuggestionKey),
                                           "It returned error code 7."}}));
    });
    const Outcome outcome = run(helper, {"execute-utility", "chmod", "--version"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, std::string("a\0\xFF"
                                          "b",
                                          4));
    EXPECT_EQ(outcome.errors,
              "warningcorvalenctl: execute-utility: chmod: Failed.\n  It returned error code 7.\n");
}

TEST(ProgramTest, AnInterruptEndsItInOrder) {
    std::promise<void> started;
    std::promise<void> goOn;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
        send(found({"/x/a"}));
        started.set_value();
        goOn.get_future().wait();
        return test::success();
    });
    Program program(helper, {"search-patterns", "/x", "-n", "a"});
    started.get_future().wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ::kill(program.process(), SIGINT);
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.status, 128 + SIGINT);
    EXPECT_EQ(outcome.output, "/x/a\n");
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(helper.waitForLog(2), HasSubstr("unregister"));
    goOn.set_value();
}

TEST(ProgramTest, ReadsOnWhenItsOwnReaderPausesAndEndsNevertheless) {
    std::promise<void> sent;
    std::promise<void> goOn;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
        for (int i = 0; i < 5000; ++i)
            send(found({"/x/" + std::string(1000, 'a')}));
        sent.set_value();
        goOn.get_future().wait();
        return test::success();
    });
    Program program(helper, {"search-patterns", "/x", "-n", "a"});
    ASSERT_EQ(sent.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    ::kill(program.process(), SIGINT);
    int status = 0;
    for (int i = 0; i < 1000 && ::waitpid(program.process(), &status, WNOHANG) == 0; ++i)
        ::usleep(10000);
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGINT);
    goOn.set_value();
}

TEST(ProgramTest, LetsAShortOperationFinishDespiteAnInterrupt) {
    std::promise<void> started;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback&) {
        started.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return test::success();
    });
    Program program(helper, {"modify-systemfile", "/x", "--from", "/dev/null"});
    started.get_future().wait();
    ::kill(program.process(), SIGINT);
    EXPECT_EQ(program.finish().status, 0);
}

TEST(ProgramTest, StopsWhenNobodyReadsItsOutput) {
    FakeHelper helper([](std::uint64_t, const Array&, const SendFeedback& send) {
        for (int i = 0; i < 200000; ++i)
            send(found({"/x/" + std::string(100, 'a')}));
        return test::success();
    });
    Program program(helper, {"search-patterns", "/x", "-n", "a"});
    program.closeOutput();
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.status, 128 + SIGPIPE);
    EXPECT_EQ(outcome.errors, "");
}

TEST(ProgramTest, NamesWhatADeletionThatKeepsGoingHasLeft) {
    FakeHelper helper([](std::uint64_t code, const Array&, const SendFeedback& send) {
        if (code == 9996) return Value(makePosixError(EBUSY));
        send(test::finalMessage());
        return test::success();
    });
    const Outcome silent = run(helper, {"delete-fileobjects", "-k", "/nonexistent", helper.path()});
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(silent.errors,
              "corvalenctl: delete-fileobjects: " + helper.path() + ": could not be removed\n");
    const Outcome failed = run(helper, {"delete-files", helper.path(), "/nonexistent"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.errors,
              "corvalenctl: delete-files: Device or resource busy\n  It is in use; try again later."
              "\ncorvalenctl: delete-files: " +
                  helper.path() + ": could not be removed\n");
}

}  // namespace
}  // namespace corvalen::cli
