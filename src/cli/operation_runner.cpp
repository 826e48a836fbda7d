// SPDX-License-Identifier: MIT
#include "cli/operation_runner.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <optional>

#include "cli/command_table.hpp"
#include "cli/operation_output.hpp"
#include "cli/other_programs.hpp"
#include "cli/output.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

constexpr std::string_view kAtWork = "at work";
constexpr std::string_view kWaitsForPrompt =
    "Waiting for the authorization: answer the prompt of your session.\n";

UniqueFd openTerminal() {
    return UniqueFd(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
}

/// Detects from the echo of the terminal that a password prompt was answered there.
class PasswordWatch {
  public:
    /// Whether the echo was off in a former call and has been on again for kVerdictTime.
    [[nodiscard]] bool hasBeenTyped() {
        if (!_terminal) _terminal = openTerminal();
        termios state{};
        if (::tcgetattr(_terminal.get(), &state) != 0) return false;
        const auto now = std::chrono::steady_clock::now();
        if ((state.c_lflag & ECHO) == 0) _lastHidden = now;
        return _lastHidden && now - *_lastHidden >= kVerdictTime;
    }

  private:
    /// Then the agent prints whether the password was right. PAM delays a refusal by about two
    /// seconds (pam_fail_delay(3)).
    static constexpr std::chrono::seconds kVerdictTime{3};

    UniqueFd _terminal;
    std::optional<std::chrono::steady_clock::time_point> _lastHidden;
};

/// Shows the feedback of one operation. One thread at a time calls `receive` and `finish`, another
/// one `tick` and `dropWhenBlocked`.
class FeedbackView {
  public:
    FeedbackView(const Arguments& arguments, const Request& request, bool showProgress)
        : _arguments(arguments),
          _objects(_output, arguments),
          _progressPaths(request.progressPaths),
          _counts(request.counts),
          _progress(showProgress && !arguments.has("quiet")) {}

    void receive(const Dictionary& message) {
        _hasBegun = true;
        _progress.begin();
        if (const Value* fraction = message.find(kQRLPORK_ProgressFraction);
            fraction != nullptr && fraction->number() != nullptr)
            noteFraction(fraction->number()->doubleValue());
        if (const Value* found = message.find(kQRLPORK_FileObjectInfo);
            found != nullptr && found->array() != nullptr)
            writeObjects(*found->array());
        forward(message, kQRLPORK_OutputData, _output, _outputFilter);
        forward(message, kQRLPORK_ErrorData, _errors, _errorFilter);
    }

    void finish(std::string_view answer) {
        const auto lock = _progress.hold();
        if (_objects.sorts()) writeSorted();
        _output.write(_outputFilter.finish());
        _errors.write(_errorFilter.finish());
        _output.write(answer);
        _output.finish();
        _errors.finish();
    }

    /// Stops waiting for slow readers of the output.
    void dropWhenBlocked() {
        _output.dropWhenBlocked();
        _errors.dropWhenBlocked();
    }

    void tick() {
        if (_awaitsPassword && _password.hasBeenTyped()) {
            _awaitsPassword = false;
            _progress.showWaiting(kAtWork);
        }
        _progress.tick();
    }
    /// Shows that the operation is at work once a password was typed and checked.
    void awaitPassword() { _awaitsPassword = true; }
    [[nodiscard]] bool showsProgress() const noexcept { return _progress.isEnabled(); }
    void showWaiting(std::string_view activity) { _progress.showWaiting(activity); }
    /// Whether the operation has sent feedback.
    [[nodiscard]] bool hasBegun() const noexcept { return _hasBegun; }
    [[nodiscard]] bool isOutputTerminal() const noexcept { return _output.isTerminal(); }
    [[nodiscard]] int failure() const noexcept { return _output.failure(); }
    /// Whether --limit objects have been written.
    [[nodiscard]] bool isFull() const noexcept { return _isFull; }

  private:
    void writeSorted() {
        const std::string text = _objects.takeSorted();
        if (_output.isTerminal())
            (void)writePaged(text, _arguments);
        else
            _output.write(text);
    }

    /// Without a total, prop-permissions sends the number of objects instead: 100, 200, ...
    void noteFraction(double fraction) {
        constexpr double kSmallestCount = 100;
        if (fraction >= kSmallestCount)
            _progress.setCount(static_cast<std::uint64_t>(fraction));
        else
            _progress.setFraction(fraction);
        if (!_progressPaths.empty()) _progress.setActivity(currentPath(fraction));
    }

    /// Returns the path that is handled now. The fraction is the share of paths already handled.
    std::string currentPath(double fraction) const {
        const auto count = static_cast<double>(_progressPaths.size());
        const auto done =
            static_cast<std::size_t>(std::lround(std::clamp(fraction, 0.0, 1.0) * count));
        if (done >= _progressPaths.size()) return {};
        std::string text;
        if (_progressPaths.size() > 1)
            text = fmt::format("{} of {}", done + 1, _progressPaths.size());
        const std::string counted = done < _counts.size() ? treeCountText(_counts[done]) : "";
        if (!counted.empty()) text += (text.empty() ? "" : ", ") + counted;
        if (!text.empty()) text += ": ";
        return text + _progressPaths[done];
    }

    void writeObjects(const Array& records) {
        if (records.empty()) return;
        const bool isShown = _output.isTerminal() && !_objects.sorts();
        const auto lock = isShown ? _progress.hold() : std::unique_lock<std::mutex>();
        _objects.write(records);
        _isFull = _objects.isFull();
        if (!lock.owns_lock()) _progress.setCount(_objects.count());
    }

    static void forward(const Dictionary& message, std::string_view key, Output& output,
                        TerminalFilter& filter) {
        const Value* value = message.find(key);
        if (value == nullptr || value->data() == nullptr || value->data()->bytes.empty()) return;
        const std::string_view bytes = value->data()->view();
        if (output.isTerminal())
            output.write(filter.pass(bytes));
        else
            output.write(bytes);
        output.flush();
    }

    /// A terminal is written directly, so that `hold` can keep the progress line away.
    static Output::Mode modeFor(Descriptor descriptor) {
        return ::isatty(descriptor.get()) == 1 ? Output::Mode::direct : Output::Mode::background;
    }

    Output _output{kStandardOutput, modeFor(kStandardOutput)};
    Output _errors{kStandardError, modeFor(kStandardError)};
    TerminalFilter _outputFilter;
    TerminalFilter _errorFilter;
    const Arguments& _arguments;
    ObjectWriter _objects;
    const std::vector<std::string> _progressPaths;
    const std::vector<TreeCount> _counts;
    PasswordWatch _password;
    std::atomic<bool> _awaitsPassword = false;
    ProgressDisplay _progress;
    std::atomic<bool> _hasBegun = false;
    std::atomic<bool> _isFull = false;
};

std::string existenceText(const Number& code, const Arguments& arguments) {
    static constexpr std::string_view names[] = {"absent", "folder", "object"};
    const std::uint64_t index = code.unsignedIntegerValue();
    const std::string_view name = index < std::size(names) ? names[index] : "unknown";
    if (arguments.has("json")) return fmt::format("{{\"existence\":{}}}\n", jsonString(name));
    return std::string(name) + "\n";
}

std::string storageSizeText(const Number& size, const Arguments& arguments, bool isTerminal) {
    const std::uint64_t bytes = size.unsignedIntegerValue();
    if (arguments.has("json")) return fmt::format("{{\"size\":{}}}\n", bytes);
    if (arguments.has("bytes") || !isTerminal) return fmt::format("{}\n", bytes);
    return fmt::format("{} ({} bytes)\n", humanSize(bytes), bytes);
}

/// Returns the question with the number of all objects.
std::string questionOf(const Request& request) {
    TreeCount all;
    for (const TreeCount& count : request.counts) {
        all.objects += count.objects;
        all.isComplete = all.isComplete && count.isComplete;
    }
    const std::string counted = request.counts.empty() ? "" : treeCountText(all);
    if (counted.empty()) return request.question;
    return request.question.substr(0, request.question.size() - 1) + " (" + counted + ")?";
}

/// Reports paths that still exist, or may: an operation that keeps going returns no error for them.
int checkRemoved(const Command& command, const Request& request) {
    int code = kExitSuccess;
    for (const std::string& path : request.removedPaths) {
        struct stat status {};
        const bool isSeen = ::lstat(path.c_str(), &status) == 0;
        if (!isSeen && (errno == ENOENT || errno == ENOTDIR)) continue;
        code = report({std::string(command.name), path,
                       isSeen ? "could not be removed" : "you cannot see whether it was removed"});
    }
    return code;
}

std::optional<std::uint64_t> objectCountOf(const ErrorRef& error) {
    const Dictionary* info = error->userInfo();
    const Value* count = info != nullptr ? info->find(kKeyObjectCount) : nullptr;
    if (count == nullptr || count->number() == nullptr) return std::nullopt;
    return count->number()->unsignedIntegerValue();
}

/// Describes how far a request came that a signal ended.
Failure interruptionOf(std::string_view operation, const Request& request, const ErrorRef& error) {
    Failure failure{std::string(operation), {}, {}, {}, kExitFailure, error};
    failure.objectCount = objectCountOf(error);
    switch (failureKind(error)) {
        case FailureKind::notReachable:
            failure.message = "not waiting for the helper any longer";
            failure.advice = "What it has begun may go on; its log says how far it came.";
            return failure;
        case FailureKind::canceled:
        case FailureKind::notAuthorized:
            failure.message = "canceled; nothing was changed";
            return failure;
        default:
            break;
    }
    if (!failure.objectCount) return failureOf(operation, request.subject, error);
    failure.message = "stopped after " + objectCountText(*failure.objectCount);
    return failure;
}

/// Shows what the request waits for. Draws nothing while the agent may prompt on this terminal.
void showWaitReason(const OperationInfo& operation, const PasswordAgent& agent,
                    FeedbackView& feedbackView) {
    if (!feedbackView.showsProgress()) return;
    const bool mayPrompt = ::geteuid() != 0 && operation.policy != OperationPolicy::anybody &&
                           outlookOfOperation(*authorityOfThisMachine(), operation.identifier) ==
                               RightOutlook::needsAuthentication;
    if (!mayPrompt) return feedbackView.showWaiting(kAtWork);
    if (agent.isOnDesktop())
        (void)writeAll(kStandardError, kWaitsForPrompt);
    else if (agent.isRunning())
        return feedbackView.awaitPassword();
    if (!agent.isRunning()) feedbackView.showWaiting("at work, or waiting for the authorization");
}

}  // namespace

std::string answerText(const Dictionary& answer, View view, const Arguments& arguments,
                       bool isTerminal) {
    const Value* existence = answer.find(kKeyObjectExistenceInfo);
    const Value* size = answer.find(kKeyObjectSize);
    if (view == View::existence && existence != nullptr && existence->number() != nullptr)
        return existenceText(*existence->number(), arguments);
    if (view == View::storageSize && size != nullptr && size->number() != nullptr)
        return storageSizeText(*size->number(), arguments, isTerminal);
    return answer.empty() ? std::string() : jsonObject(answer) + "\n";
}

void requireTerminal() {
    if (!openTerminal()) throw UsageError("there is no terminal to ask on: give --yes");
}

bool confirm(std::string_view question) {
    requireTerminal();
    const UniqueFd terminal = openTerminal();
    (void)writeAll(terminal, escapedForTerminal(question) + " [y/N] ");
    std::string answer;
    for (char letter; ::read(terminal.get(), &letter, 1) == 1 && letter != '\n';)
        answer += letter;
    return answer == "y" || answer == "Y" || answer == "yes";
}

int runRequest(const OperationInfo& operation, const Request& request, View view,
               const Arguments& arguments) {
    FeedbackView feedbackView(arguments, request,
                              operation.feedback != OperationFeedback::liveOutput);
    int code = kExitSuccess;
    const auto session =
        Session::open(arguments,
                      {[&] { feedbackView.tick(); }, [&] { feedbackView.dropWhenBlocked(); },
                       Session::kCancelTimeout},
                      code);
    if (!session) return code;
    const PasswordAgent agent(operation, arguments);
    showWaitReason(operation, agent, feedbackView);
    FeedbackHandler handler;
    if (operation.feedback != OperationFeedback::none)
        handler = [&](const Dictionary& message) {
            feedbackView.receive(message);
            const bool hasEnough = feedbackView.isFull() && !session->isShared();
            if (feedbackView.failure() != 0 || hasEnough) session->cancel();
        };
    const OperationResult result =
        session->client().perform(operation.code, request.arguments, handler);
    feedbackView.finish(
        answerText(result.answer, view, arguments, feedbackView.isOutputTerminal()));

    if (const int signal = session->interruptedBy(); signal != 0 && !result.succeeded()) {
        // Ctrl-C at a password prompt leaves the cursor in its line.
        if (agent.isRunning() && !feedbackView.hasBegun()) (void)writeAll(kStandardError, "\n");
        Failure failure = interruptionOf(operation.identifier, request, result.error);
        failure.exitCode = kExitSignal + signal;
        return report(failure);
    }
    if (feedbackView.failure() != 0) return reportOutputFailure(feedbackView.failure());
    if (feedbackView.isFull()) return kExitSuccess;
    if (!result.succeeded())
        return report(
            failureOf(operation.identifier, request.subject, result.error, agent.prompt()));
    if (result.feedbackComplete) return kExitSuccess;
    return report({std::string(operation.identifier),
                   {},
                   "a part of the results is lost: they were not taken in time"});
}

Request checkedRequest(const Command& command, const Arguments& arguments) {
    const bool isPreview = arguments.has("dry-run");
    for (const char* const key : {"sort", "reverse", "limit"})
        if (!isPreview && command.preview != PreviewKind::none && arguments.has(key))
            throw UsageError("--" + std::string(key) + " is for --dry-run");
    (void)chooseObjectForm(arguments, false);
    (void)chooseObjectSelection(arguments);
    return command.request(arguments);
}

int runOperation(const Command& command, const Arguments& arguments, Request request) {
    const OperationInfo* operation = findOperation(command.name);
    if (operation == nullptr) throw UsageError("there is no operation of this name");
    if (arguments.has("dry-run")) return runPreview(command, arguments);
    const bool asks = !request.question.empty() && !arguments.has("yes");
    if (asks) requireTerminal();
    const bool isCountShown = asks || (canShowProgress() && !arguments.has("quiet"));
    if (isCountShown) request.counts = countTrees(command, arguments, request);
    if (asks && !confirm(questionOf(request)))
        return report({std::string(command.name), {}, "nothing was done"});
    const int code = runRequest(*operation, request, command.view, arguments);
    const bool allTried = code == kExitSuccess || (code == kExitFailure && request.keepsGoing);
    return allTried ? std::max(code, checkRemoved(command, request)) : code;
}

}  // namespace corvalen::cli
