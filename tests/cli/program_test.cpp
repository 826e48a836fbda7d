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
#include "support/scratch_folder.hpp"

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

/// A running corvalenctl.
class Program {
  public:
    Program(const FakeHelper& helper, const std::string& line) {
        const std::string command = "exec " CORVALENCTL_PATH " --socket " + helper.path() + ' ' +
                                    line + " 2>" + _folder.path("errors");
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

const std::string kSearch = "search-patterns /x -n a";

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
    const Outcome plain = run(helper, kSearch);
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output, "/x/a\n/x/\xFF\n/x/b\n");
    EXPECT_EQ(plain.errors, "");
    EXPECT_EQ(run(helper, "search-patterns -0 /x -n a").output,
              std::string("/x/a\0/x/\xFF\0/x/b\0", 15));
    const Outcome called = run(helper, "call 12 S:/bad N:0 S:0 S:a");
    EXPECT_EQ(called.status, 1);
    EXPECT_EQ(called.output, plain.output);
    EXPECT_THAT(called.errors, HasSubstr("Not a directory"));
    EXPECT_THAT(called.errors, HasSubstr("search-patterns takes any number of strings (S)\n"));
    const Outcome denied = run(helper, "search-patterns /denied -n a");
    EXPECT_EQ(denied.status, 4);
    EXPECT_THAT(denied.errors, HasSubstr("/denied: The authorization was denied."));
    EXPECT_EQ(run(helper, "search-patterns /x").status, 2);
    EXPECT_EQ(run(helper, "version").output, "1.4\n");
    // Each of the five that asked the helper came and went.
    EXPECT_THAT(helper.waitForLog(10), HasSubstr("unregister"));
    EXPECT_EQ(helper.log().size(), 10U);
    helper.stop();
    const Outcome gone = run(helper, "nop");
    EXPECT_EQ(gone.status, 3);
    EXPECT_THAT(gone.errors, HasSubstr(helper.path()));
}

TEST(ProgramTest, SortsAndLimitsWhatIsFound) {
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
        Array records;
        for (const auto& [path, size, time] :
             {std::tuple("/b", 1, 30), {"/c", 3, 20}, {"/a", 2, 10}})
            records.emplace_back(
                Dictionary{{"Path", path}, {"Size", size}, {"ModificationDate", Date{time, 0}}});
        for (int i = 0; i < 2; ++i)
            send({{std::string(kQRLPORK_FileObjectInfo), Value(records)}});
        send(test::finalMessage());
        return test::success();
    });
    const std::pair<const char*, const char*> cases[] = {
        {"--sort path", "/a\n/a\n/b\n/b\n/c\n/c\n"},
        {"--sort size --limit 3", "/c\n/c\n/a\n"},
        {"--sort modified --reverse --limit 4", "/a\n/a\n/c\n/c\n"},
        {"--limit 4", "/b\n/c\n/a\n/b\n"},
        {"--limit 0", ""},
    };
    for (const auto& [options, output] : cases) {
        const Outcome outcome = run(helper, kSearch + " " + options);
        EXPECT_EQ(outcome.status, 0) << options << outcome.errors;
        EXPECT_EQ(outcome.output, output) << options;
    }
    for (const char* wrong : {" --sort x", " --reverse", " --limit -1"})
        EXPECT_EQ(run(helper, kSearch + wrong).status, 2) << wrong;
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

TEST(ProgramTest, SaysThatTheHelperRefusesTheClient) {
    FakeHelper helper(
        [](std::uint64_t, const Array&, const SendFeedback&) { return test::success(); });
    helper.refuseRegistrations();
    const Outcome outcome = run(helper, "nop");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("refuses to register this process: too many clients"));
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
    const Outcome outcome = run(helper, "execute-utility chmod --version");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, std::string("a\0\xFF\x62", 4));
    EXPECT_EQ(outcome.errors,
              "warningcorvalenctl: execute-utility: chmod: Failed.\n  It returned error code 7.\n");
}

TEST(ProgramTest, AnInterruptTakesTheRequestBackAndTellsHowFarItCame) {
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
    for (const auto& row : cases) {
        SCOPED_TRACE(row.said);
        std::promise<void> started;
        std::promise<void> goOn;
        FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
            send(found({"/x/a"}));
            started.set_value();
            goOn.get_future().wait();
            send(test::finalMessage());
            return row.answer;
        });
        Program program(helper, row.line);
        started.get_future().wait();
        program.interrupt();
        if (row.answersInTime) goOn.set_value();
        const auto begin = std::chrono::steady_clock::now();
        const Outcome outcome = program.finish();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.output,
                  std::string_view(row.line).substr(0, 6) == "search" ? "/x/a\n" : "");
        EXPECT_EQ(outcome.errors, row.said);
        EXPECT_THAT(helper.waitForLog(2), HasSubstr("unregister"));
        if (!row.answersInTime) goOn.set_value();
    }
}

TEST(ProgramTest, ASecondInterruptLeavesAtOnce) {
    std::promise<void> started;
    std::promise<void> goOn;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback&) {
        started.set_value();
        goOn.get_future().wait();
        return test::success();
    });
    Program program(helper, kSearch);
    started.get_future().wait();
    program.interrupt();
    const auto begin = std::chrono::steady_clock::now();
    program.interrupt();
    EXPECT_EQ(program.finish().status, 128 + SIGINT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    goOn.set_value();
}

TEST(ProgramTest, ReportsWhatItCannotDo) {
    FakeHelper helper([](std::uint64_t, const Array&, const SendFeedback& send) {
        send(found({"/x/a"}));
        send(test::finalMessage());
        return test::success();
    });
    const struct {
        const char* line;
        int status;
        const char* said;
    } cases[] = {
        {"list >/dev/full", 1, "standard output: No space left on device"},
        {"version >/dev/full", 1, "standard output: No space left on device"},
        {"status --json >/dev/full", 1, R"({"error":{"kind":"failed","exitCode":1,)"},
        {"search-patterns /x -n a >/dev/full", 1, "standard output: No space left on device"},
        {"--help >/dev/full", 1, "standard output: No space left on device"},
        {"delete-fileobject /x", 2, "Did you mean: delete-fileobjects"},
        {"search", 2, "search-patterns, search-agedfiles, search-filenames"},
        {"delete-foldercontents --yes --limit 1 /x", 2, "--limit is for --dry-run"},
        {"log --user no-such-user", 2, "there is no user 'no-such-user'"},
        {"nop --sockt=/x", 2, "there is no option --sockt\n  Did you mean: --socket?"},
        {"call --json no-such S:x", 2, R"({"error":{"kind":"usage","exitCode":2,"command":"call")"},
        {"nonsense --json", 2, R"({"error":{"kind":"usage","exitCode":2,"message":"there is no)"},
        {"modify-systemfile /x --from /none", 2, "/none: No such file or directory"},
        {"modify-diskspindown -1", 2, "MINUTES: '-1' must not be negative"},
        {"delete-fileobjects -r /x", 2, "there is no terminal to ask on: give --yes"},
        {"delete-foldercontents /x </dev/null", 2, "there is no terminal to ask on: give --yes"},
        {"prop-permissions /x --mode", 2, "there is no terminal to ask on: give --yes"},
    };
    for (const auto& [line, status, said] : cases) {
        const Outcome outcome = run(helper, line);
        EXPECT_EQ(outcome.status, status) << line;
        EXPECT_THAT(outcome.errors, HasSubstr(said)) << line;
    }
    EXPECT_EQ(run(helper, "--version").output, "corvalenctl 1.4\n");
    EXPECT_EQ(run(helper, "delete-foldercontents --yes /nonexistent").status, 0);
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
    FakeHelper helper([](std::uint64_t, const Array& arguments, const SendFeedback&) {
        return *arguments[0].string() == "/bad" ? Value(makePosixError(EBUSY)) : test::success();
    });
    const test::ScratchFolder folder;
    const auto batch = [&](const std::string& lines, const std::string& options) {
        std::ofstream(folder.path("batch")) << lines;
        return run(helper, "batch " + options + " " + folder.path("batch"));
    };
    const std::string lines =
        "# comment\n\ntouch-fileobject '/a b'\ntouch-fileobject /bad\ntouch-fileobject \"/c\"";
    const Outcome stopped = batch(lines, "");
    EXPECT_EQ(stopped.status, 1);
    EXPECT_THAT(stopped.errors, HasSubstr("batch: stopped at line 4"));
    EXPECT_EQ(helper.authorizations().size(), 2U);
    EXPECT_EQ(helper.authorizations()[0], helper.authorizations()[1]);
    EXPECT_EQ(helper.waitForLog(2).find("register"), 0U);
    EXPECT_EQ(helper.log().size(), 2U) << "one registration";

    const Outcome went = batch(lines, "--keep-going --json");
    EXPECT_EQ(went.status, 1);
    EXPECT_EQ(went.output,
              "{\"line\":3,\"command\":\"touch-fileobject\",\"exitCode\":0}\n"
              "{\"line\":4,\"command\":\"touch-fileobject\",\"exitCode\":1}\n"
              "{\"line\":5,\"command\":\"touch-fileobject\",\"exitCode\":0}\n");
    EXPECT_THAT(went.errors, HasSubstr("1 of 3 operations failed"));
    const std::size_t before = helper.authorizations().size();
    for (const char* wrong : {"touch-fileobject /a\nuninstall", "touch-fileobject '/a", "version",
                              "touch-fileobject /a\nsearch-agedfiles /x --days x",
                              "touch-fileobject /a\nnop --socket /x", "nop --help"}) {
        const Outcome refused = batch(wrong, "");
        EXPECT_EQ(refused.status, 2) << wrong;
        EXPECT_THAT(refused.errors, HasSubstr("batch: line ")) << wrong;
    }
    EXPECT_EQ(run(helper, "batch < " + folder.path("batch")).status, 2);
    std::ofstream(folder.path("batch")) << "modify-systemfile /x";
    EXPECT_THAT(run(helper, "batch < " + folder.path("batch")).errors,
                HasSubstr("standard input holds the batch"));
    EXPECT_EQ(helper.authorizations().size(), before) << "nothing is done when a line is wrong";
}

TEST(ProgramTest, ADryRunOnlySearches) {
    const test::ScratchFolder folder;
    const std::string top = folder.path("top");
    const std::string link = folder.path("link");
    std::filesystem::create_directory(top);
    std::filesystem::create_symlink("none", link);  // 4 bytes
    std::set<std::uint64_t> codes;
    FakeHelper helper([&](std::uint64_t code, const Array& arguments, const SendFeedback& send) {
        codes.insert(code);
        send({{std::string(kQRLPORK_FileObjectInfo),
               Array{Value(Dictionary{{"Path", top + "/b"}, {"Size", 40}})}}});
        send(test::finalMessage());
        return *arguments[0].string() == top ? test::success() : Value(makePosixError(ENOENT));
    });
    const std::string only = "dry run: 1 object, 40 B; nothing was changed\n";
    const struct {
        std::string line;
        std::string listed;
        std::string said;
    } cases[] = {
        {"delete-fileobjects -r --dry-run " + top, top + "\n" + top + "/b\n",
         "dry run: 2 objects, "},
        {"delete-fileobjects --dry-run " + link + " /gone", link + "\n",
         "dry run: 1 object, 4 B; nothing was changed\n"},
        {"delete-fileobjects -r --dry-run " + link, "",
         "dry run: 0 objects, 0 B; nothing was changed\n"},
        {"delete-fileobjects -r --dry-run --sort path --reverse --limit 1 " + top, top + "/b\n",
         "dry run: 2 objects, "},
        {"delete-foldercontents --dry-run " + top, top + "/b\n", only},
        {"prop-permissions --mode --dry-run " + top, top + "/b\n", only},
    };
    for (const auto& [line, listed, said] : cases) {
        const Outcome outcome = run(helper, line);
        EXPECT_EQ(outcome.status, 0) << line;
        EXPECT_EQ(outcome.output, listed) << line;
        EXPECT_THAT(outcome.errors, testing::StartsWith(said)) << line;
    }
    EXPECT_EQ(run(helper, "delete-foldercontents --json --dry-run " + top).errors,
              "{\"dryRun\":{\"objects\":1,\"size\":40}}\n");
    EXPECT_EQ(run(helper, "prop-permissions --mode --dry-run /gone").status, 1);
    EXPECT_EQ(run(helper, "prop-permissions --dry-run /x").status, 2);
    EXPECT_EQ(codes, std::set<std::uint64_t>{10});
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
    Program program(helper, kSearch);
    ASSERT_EQ(sent.get_future().wait_for(20s), std::future_status::ready);
    program.interrupt();
    ASSERT_TRUE(test::eventually([&] { return program.hasEnded(); }));
    EXPECT_EQ(program.finish().status, 128 + SIGINT);
    goOn.set_value();
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

TEST(ProgramTest, NamesWhatADeletionThatKeepsGoingHasLeft) {
    FakeHelper helper([](std::uint64_t code, const Array&, const SendFeedback& send) {
        if (code == 9996) return Value(makePosixError(EBUSY));
        send(test::finalMessage());
        return test::success();
    });
    const Outcome silent = run(helper, "delete-fileobjects -k /nonexistent " + helper.path());
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(silent.errors,
              "corvalenctl: delete-fileobjects: " + helper.path() + ": could not be removed\n");
    const Outcome failed = run(helper, "delete-files -y " + helper.path() + " /nonexistent");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.errors,
              "corvalenctl: delete-files: Device or resource busy\n  It is in use; try again later."
              "\ncorvalenctl: delete-files: " +
                  helper.path() + ": could not be removed\n");
}

}  // namespace
}  // namespace corvalen::cli
