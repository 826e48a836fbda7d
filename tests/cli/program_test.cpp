// SPDX-License-Identifier: MIT
// The built program against a helper inside the test.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <future>
#include <optional>
#include <regex>
#include <set>
#include <thread>

#include "client/fake_helper.hpp"
#include "corvalen/descriptor.hpp"
#include "support/child.hpp"
#include "support/eventually.hpp"
#include "support/golden.hpp"

namespace corvalen::cli {
namespace {

using namespace std::chrono_literals;
using test::FakeHelper;
using test::SendFeedback;
using testing::HasSubstr;

struct Outcome {
    int status = -1;
    std::string output;
    std::string errors;
};

/// A running corvalenctl; "COMMAND | words" gives it an input.
class Program {
  public:
    Program(const FakeHelper& helper, const std::string& line) {
        std::string command = line + " 2>" + _folder.path("errors");
        const auto bar = command.find("| ");
        command.insert(bar == command.npos ? 0 : bar + 2,
                       "exec " CORVALENCTL_PATH " --socket " + helper.path() + " ");
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
        _output.reset(ends[0]);
        const UniqueFd writing(ends[1]);
        _child.emplace(::geteuid(), [&] {
            // A session of its own has no terminal to ask on.
            ::setsid();
            ::dup2(writing.get(), STDOUT_FILENO);
            return ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr) == 0;
        });
    }
    /// Returns when the program has read the signal: a second one would be lost before.
    void interrupt() {
        ::kill(_child->pid(), SIGINT);
        const std::string status = "/proc/" + std::to_string(_child->pid()) + "/status";
        EXPECT_TRUE(test::eventually([&] {
            return test::textOf(status).find("ShdPnd:\t0000000000000000") != std::string::npos;
        }));
    }
    void closeOutput() { _output.reset(); }
    bool hasEnded() {
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(_child->pid()), &info, WEXITED | WNOHANG | WNOWAIT);
        return info.si_pid != 0;
    }
    Outcome finish() {
        Outcome outcome;
        char buffer[4096];
        for (ssize_t got; (got = ::read(_output.get(), buffer, sizeof buffer)) > 0;)
            outcome.output.append(buffer, static_cast<std::size_t>(got));
        const int status = _child->wait();
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        outcome.errors = test::textOf(_folder.path("errors"));
        return outcome;
    }

  private:
    test::ScratchFolder _folder;
    UniqueFd _output;
    std::optional<test::Child> _child;
};

Outcome run(const FakeHelper& helper, const std::string& line) {
    return Program(helper, line).finish();
}

/// Runs each command of a transcript; lines on standard error begin with "!". The shell has the
/// directory in $TOP.
void expectProgram(const FakeHelper& helper, const std::string& name,
                   const test::ScratchFolder& top = {}) {
    ::setenv("TOP", top.path().c_str(), 1);
    ::setenv("TZ", "UTC", 1);
    test::expectTranscript(name, [&](const std::string& line) {
        const Outcome outcome = run(helper, line);
        std::string text = outcome.output;
        if (!text.empty() && text.back() != '\n') text += "<no newline>\n";
        std::istringstream errors(outcome.errors);
        for (std::string error; std::getline(errors, error);)
            text += "! " + error + "\n";
        // The size of a directory depends on the file system, the authority on the machine.
        text = std::regex_replace(text, std::regex("2 objects, [0-9]+ B"), "2 objects, <size> B");
        text = std::regex_replace(text, std::regex("(authority(   |\":\"))[^\n\"]+"), "$1<name>");
        for (const auto& [path, shown] :
             {std::pair(helper.path(), "<socket>"), {top.path(), "<top>"}})
            text = std::regex_replace(text, std::regex(path), shown);
        return text + "= " + std::to_string(outcome.status) + "\n";
    });
}

const std::string kSearch = "search-patterns /x -n a";

Dictionary found(const std::vector<std::string>& paths) {
    Array records;
    for (const std::string& path : paths)
        records.emplace_back(Dictionary{{"Path", path}});
    return {{std::string(kQRLPORK_ProgressFraction), Value(0.5)},
            {std::string(kQRLPORK_FileObjectInfo), Value(std::move(records))}};
}

/// Sends objects that it found, and waits until the test lets it answer.
struct WaitingHelper {
    explicit WaitingHelper(const std::string& path, int messages = 1,
                           const Value& answer = test::success())
        : helper([=, this](std::uint64_t, const Array&, const SendFeedback& send) {
              for (int i = 0; i < messages; ++i)
                  send(found({path}));
              started.set_value();
              goOn.get_future().wait();
              send(test::finalMessage());
              return answer;
          }) {}
    std::promise<void> started;
    std::promise<void> goOn;
    FakeHelper helper;
};

TEST(ProgramTest, PrintsWhatIsFoundAndExitsWithTheResult) {
    FakeHelper helper([&](std::uint64_t, const Array& arguments, const SendFeedback& send) {
        Array records;
        for (const auto& [path, size, time] :
             {std::tuple("/b", 1, 30), {"/c\xFF", 3, 20}, {"/a", 2, 10}})
            records.emplace_back(
                Dictionary{{"Path", path}, {"Size", size}, {"ModificationDate", Date{time, 0}}});
        for (int i = 0; i < 2; ++i)
            send({{std::string(kQRLPORK_FileObjectInfo), Value(records)}});
        send(test::finalMessage());
        return *arguments[0].string() == "/bad" ? Value(makePosixError(ENOTDIR)) : test::success();
    });
    EXPECT_EQ(run(helper, kSearch).status, 0);
    EXPECT_THAT(helper.waitForLog(2), HasSubstr("unregister"));
    EXPECT_EQ(helper.log().size(), 2U);
    expectProgram(helper, "search.txt");
    helper.refuseRegistrations();
    expectProgram(helper, "refused.txt");
}

TEST(ProgramTest, EscapesWhateverAHostileHelperAnswers) {
    const std::vector<std::string> hostile = {"\033]0;x\a",   "\xC2\x9B",     "\xD8\x9C",
                                              "\xE2\x80\xA8", "\xE2\x80\xAE", "\xE2\x81\xA6"};
    std::string text = "1.4";
    for (const std::string& part : hostile)
        text += part;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
        send({{"OutputData", Data{}}});
        send({{std::string(kQRLPORK_FileObjectInfo),
               Array{Value(Dictionary{{"Path", text}, {"Type", text}})}}});
        const Dictionary info{{std::string(kLocalizedDescriptionKey), text},
                              {std::string(kFilePathKey), text}};
        return Value(makeError(text, 7,
                               Dictionary{{std::string(kLocalizedDescriptionKey), text},
                                          {text, makeError("x", 1, info)}}));
    });
    helper.setVersion(text);
    for (const char* line : {"version", "status", "status --json", "nop", "call 12 S:x",
                             "search-patterns /x -n a --json", "search-patterns /x -n a --table",
                             "inspect-fileobject /x --json"}) {
        const Outcome outcome = run(helper, line);
        EXPECT_THAT(outcome.output + outcome.errors, HasSubstr("1.4")) << line;
        const bool isPlain = std::string_view(line) == "call 12 S:x";
        for (const std::string& part : hostile)
            EXPECT_EQ((isPlain ? outcome.errors : outcome.output + outcome.errors).find(part),
                      std::string::npos)
                << line;
    }
}

TEST(ProgramTest, AnInterruptCancelsTheRequestAndReportsTheObjectCount) {
    const Dictionary counted{{std::string(kKeyObjectCount), 1204}};
    const struct {
        const char* line;
        Value answer;
        bool answersInTime;
        int status;
        const char* said;
    } cases[] = {
        {"search-patterns /x -n a", Value(makePosixError(ECANCELED, counted)), true, 130,
         "corvalenctl: search-patterns: stopped after 1,204 objects\n"},
        {"batch $BATCH", Value(makePosixError(ECANCELED, counted)), true, 130,
         "corvalenctl: touch-fileobject: stopped after 1,204 objects\n"
         "corvalenctl: batch: stopped at line 1\n"},
        {"touch-fileobject /x --json", Value(makePosixError(ECANCELED, counted)), true, 130,
         "{\"error\":{\"kind\":\"interrupted\",\"exitCode\":130,\"command\":\"touch-fileobject\","
         "\"message\":\"stopped after 1,204 objects\",\"objectCount\":1204,\"cause\":{"
         "\"domain\":\"NSPOSIXErrorDomain\",\"code\":89,\"userInfo\":{\"ObjectCount\":1204}}}}\n"},
        {"inspect-storagesize /x", Value(makePosixError(ECANCELED)), true, 130,
         "corvalenctl: inspect-storagesize: canceled; nothing was changed\n"},
        {"modify-systemfile /x -f /dev/null", test::success(), true, 0, ""},
        {"modify-systemfile /x -f /dev/null", Value(makePosixError(EBUSY)), true, 130,
         "corvalenctl: modify-systemfile: /x: Device or resource busy\n"
         "  It is in use; try again later.\n"},
        {"search-patterns /x -n a", test::success(), false, 130,
         "corvalenctl: search-patterns: not waiting for the helper any longer\n"
         "  What it has begun may go on; its log says how far it came.\n"},
    };
    const test::ScratchFolder folder;
    ::setenv("BATCH", test::putFile(folder.path("batch"), "touch-fileobject /x\nnop").c_str(), 1);
    for (const auto& row : cases) {
        SCOPED_TRACE(row.said);
        WaitingHelper waiting("/x/a", 1, row.answer);
        Program program(waiting.helper, row.line);
        waiting.started.get_future().wait();
        program.interrupt();
        if (row.answersInTime) waiting.goOn.set_value();
        const auto begin = std::chrono::steady_clock::now();
        const Outcome outcome = program.finish();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.output,
                  std::string_view(row.line).substr(0, 6) == "search" ? "/x/a\n" : "");
        EXPECT_EQ(outcome.errors, row.said);
        EXPECT_THAT(waiting.helper.waitForLog(2), HasSubstr("unregister"));
        if (!row.answersInTime) waiting.goOn.set_value();
    }
}

TEST(ProgramTest, ASecondInterruptExitsAtOnce) {
    WaitingHelper waiting("/x/a");
    Program program(waiting.helper, kSearch);
    waiting.started.get_future().wait();
    program.interrupt();
    const auto begin = std::chrono::steady_clock::now();
    program.interrupt();
    EXPECT_EQ(program.finish().status, 128 + SIGINT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    waiting.goOn.set_value();
}

TEST(ProgramTest, ReportsWhatItCannotDo) {
    FakeHelper helper([](std::uint64_t code, const Array&, const SendFeedback& send) {
        if (code == 9996) return Value(makePosixError(EBUSY));
        if (code == 12) send(found({"/x/a"}));
        if (code == 24) {
            send({{"OutputData", Data{}}, {"ErrorData", Data{}}});
            send({{"OutputData", Data::copy(std::string("a\0\xFF", 3))}});
            send({{"ErrorData", Data::copy("warning")}});
            send({{"OutputData", Data::copy("b")}});
        }
        if (code != 10) send(test::finalMessage());
        if (code != 24) return test::success();
        return Value(makeError(kErrorDomain, 3,
                               Dictionary{{std::string(kLocalizedDescriptionKey), "Failed."},
                                          {std::string(kLocalizedRecoverySuggestionKey),
                                           "It returned error code 7."}}));
    });
    expectProgram(helper, "failures.txt");
}

TEST(ProgramTest, TheManualDocumentsTheFieldsOfJson) {
    FakeHelper helper([](std::uint64_t, const Array& arguments, const SendFeedback& send) {
        send({{std::string(kQRLPORK_FileObjectInfo),
               Array{Value(Dictionary{
                   {"Path", "/a"}, {"Size", 1}, {"Mode", 420}, {"ModificationDate", Date{}}})}}});
        send(test::finalMessage());
        if (arguments.size() != 1) return test::success();
        const Dictionary answer{{"ObjectExistence", 1}, {"Size", 1}};
        if (*arguments[0].string() == "/bad") return Value(makeError(kErrorDomain, 5));
        return Value(makeError(kErrorDomain, 0, answer));
    });
    const std::string manual = test::textOf(CORVALEN_MANUAL);
    const std::regex field("\"([A-Za-z]+)\":");
    for (const char* line :
         {"version", "status --rights", "list", "list delete-fileobjects", "inspect-fileobject /x",
          "inspect-storagesize /x", "search-patterns /x -n a", "touch-fileobject /bad",
          "delete-foldercontents --dry-run /x"}) {
        const Outcome outcome = run(helper, line + std::string(" --json"));
        const std::string text = outcome.output + outcome.errors;
        int fields = 0;
        for (std::sregex_iterator found(text.begin(), text.end(), field), end; found != end;
             ++found, ++fields)
            EXPECT_THAT(manual, HasSubstr("_" + found->str(1) + "_")) << line;
        EXPECT_GT(fields, 0) << line;
    }
}

TEST(ProgramTest, ABatchUsesOneConnectionAndOneAuthorization) {
    const test::ScratchFolder folder;
    FakeHelper helper([](std::uint64_t, const Array& arguments, const SendFeedback&) {
        if (arguments.empty() || *arguments[0].string() == "/bad")
            return Value(makePosixError(EBUSY));
        if (*arguments[0].string() != "/told") return test::success();
        return Value(makeError(std::string(arguments[1].data()->view()), 7));
    });
    const auto batch = [&](const std::string& options) {
        return run(helper,
                   "printf 'touch-fileobject /a\ntouch-fileobject /bad' | batch " + options);
    };
    EXPECT_EQ(batch("").status, 1);
    EXPECT_EQ(helper.authorizations().size(), 2U);
    EXPECT_EQ(helper.authorizations()[0], helper.authorizations()[1]);
    EXPECT_EQ(helper.waitForLog(2).find("register"), 0U);
    EXPECT_EQ(helper.log().size(), 2U) << "one registration";
    expectProgram(helper, "batch.txt", folder);
    EXPECT_EQ(helper.authorizations().size(), 2U + 19) << "nothing is done when a line is wrong";
}

TEST(ProgramTest, ADryRunOnlySearches) {
    const test::ScratchFolder folder;
    const std::string top = folder.path("top");
    std::filesystem::create_symlink("none", folder.path("link"));  // 4 bytes
    std::filesystem::create_directory(top);
    std::set<std::uint64_t> codes;
    FakeHelper helper([&](std::uint64_t code, const Array& arguments, const SendFeedback& send) {
        codes.insert(code);
        send({{std::string(kQRLPORK_FileObjectInfo),
               Array{Value(Dictionary{{"Path", top + "/b"}, {"Size", 40}})}}});
        send(test::finalMessage());
        return *arguments[0].string() == top ? test::success() : Value(makePosixError(ENOENT));
    });
    expectProgram(helper, "dry_run.txt", folder);
    EXPECT_EQ(codes, std::set<std::uint64_t>{10});
}

TEST(ProgramTest, KeepsReadingWhileItsReaderPausesAndStillEnds) {
    WaitingHelper waiting("/x/" + std::string(1000, 'a'), 5000);
    Program program(waiting.helper, kSearch);
    ASSERT_EQ(waiting.started.get_future().wait_for(20s), std::future_status::ready);
    program.interrupt();
    ASSERT_TRUE(test::eventually([&] { return program.hasEnded(); }));
    EXPECT_EQ(program.finish().status, 128 + SIGINT);
    waiting.goOn.set_value();
}

TEST(ProgramTest, StopsWhenNobodyReadsItsOutput) {
    FakeHelper helper([](std::uint64_t, const Array&, const SendFeedback& send) {
        for (int i = 0; i < 200000; ++i)
            send(found({"/x/" + std::string(100, 'a')}));
        return test::success();
    });
    Program program(helper, kSearch);
    program.closeOutput();
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.status, 128 + SIGPIPE);
    EXPECT_EQ(outcome.errors, "");
}

}  // namespace
}  // namespace corvalen::cli
