// SPDX-License-Identifier: MIT
// execute-utility: runs one of a fixed set of utilities as root and forwards its output. Arguments
// (S): the application's bundle, from which only lipo is taken; the utility's name; the utility's
// own arguments. Kept: lipo runs even if users can change it.
#include "exec/utility_operations.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "foundation/bundle.hpp"
#include "foundation/cancellation.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/names.hpp"

namespace corvalen {

namespace {

constexpr std::string_view kUtilityWithSafePath = "periodic";

// The first two arguments are the operation's, the others the utility's.
constexpr std::size_t kOwnArguments = 2;

std::optional<std::string> permittedPath(std::string_view name) {
    static const auto paths = [] {
        std::map<std::string_view, std::string_view> byName;
        for (const std::string_view path : kPermittedUtilities) {
            byName.emplace(lastPathComponent(path), path);
        }
        return byName;
    }();
    const auto found = paths.find(name);
    return found != paths.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

std::optional<std::string> pathInApplication(std::string_view applicationPath) {
    const std::optional<Bundle> bundle = Bundle::bundleWithPath(applicationPath);
    if (!bundle || !bundle->executablePath()) return std::nullopt;
    return appendPathComponent(deleteLastPathComponent(*bundle->executablePath()),
                               kUtilityOfApplication);
}

/// Returns the strings of the list; std::nullopt if it has another type, or a string with a NUL
/// byte, which execve(2) cannot pass.
std::optional<std::vector<std::string>> stringsOf(const Array& arguments) {
    std::vector<std::string> strings;
    strings.reserve(arguments.size());
    for (const Value& argument : arguments) {
        const std::string* text = argument.string();
        if (text == nullptr || text->find('\0') != std::string::npos) return std::nullopt;
        strings.push_back(*text);
    }
    return strings;
}

std::vector<std::string> environmentWithPath(bool safePath) {
    constexpr std::string_view variable = "PATH=";
    std::vector<std::string> environment = inheritedEnvironment();
    environment.erase(std::remove_if(environment.begin(), environment.end(),
                                     [&](const std::string& entry) {
                                         return entry.compare(0, variable.size(), variable) == 0;
                                     }),
                      environment.end());
    if (safePath) environment.push_back(std::string(variable).append(kSafePath));
    return environment;
}

}  // namespace

UtilityOperations::UtilityOperations(std::optional<rlimit> descriptorLimit,
                                     std::function<void(std::string_view line)> logErrorMessage,
                                     DrainLimits drainLimits)
    : _descriptorLimit(descriptorLimit),
      _logErrorMessage(std::move(logErrorMessage)),
      _drainLimits(drainLimits) {}

ErrorRef UtilityOperations::performOperationExecuteUtilityWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    std::optional<std::vector<std::string>> strings = stringsOf(arguments);
    if (!strings || strings->size() < kOwnArguments) return makePosixError(EINVAL);
    const std::string name = strings->at(1);
    bool isExternal = false;
    bool needsSafePath = false;
    const std::optional<std::string> path =
        trustedPathForApplicationPath(strings->front(), name, &isExternal, &needsSafePath);
    if (!path) return makePosixError(EINVAL);

    const Result<ExecutableFile> program = ExecutableFile::open(*path);
    if (!program || program->isFolder()) {
        return makeOperationError(OperationErrorCode::missingComponent, {{name, *path}, *path});
    }
    strings->erase(strings->begin(), strings->begin() + kOwnArguments);
    return executeTrusted(!isExternal, *program, *strings, needsSafePath, feedbackConnection);
}

std::optional<std::string> UtilityOperations::trustedPathForApplicationPath(
    std::string_view applicationPath, std::string_view utilityName, bool* isExternal,
    bool* needsSafePathEnvironment) {
    if (applicationPath.empty() || utilityName.empty()) return std::nullopt;
    const bool external = utilityName != kUtilityOfApplication;
    if (isExternal != nullptr) *isExternal = external;
    if (needsSafePathEnvironment != nullptr) {
        *needsSafePathEnvironment = utilityName == kUtilityWithSafePath;
    }
    return external ? permittedPath(utilityName) : pathInApplication(applicationPath);
}

ErrorRef UtilityOperations::executeTrusted(bool trusted, const ExecutableFile& program,
                                           const std::vector<std::string>& arguments,
                                           bool safePathEnvironment,
                                           FeedbackConnection* connection) {
    const std::lock_guard lock(_oneUtilityAtATime);
    Cancellation& cancellation = currentCancellation();
    if (cancellation.requested()) return cancelledError(cancellation);
    // Kept: the application's own lipo is trusted and runs unchecked, whatever its owner. The check
    // is under the lock, because the permissions may change during the wait.
    if (!trusted && !program.hasSafePermissions()) {
        return makeOperationError(OperationErrorCode::unsafeUtilityPermissions,
                                  {{program.path()}, program.path()});
    }
    _outputConnection = connection;
    QRLTaskExecutor executor({environmentWithPath(safePathEnvironment), _descriptorLimit},
                             _drainLimits);
    executor.setDelegate(this);
    const std::int32_t status = executor.executeProgram(program, arguments);
    if (executor.wasOutputCutOff()) logCutOffOutput(program);
    if (status != 0) {
        return makeOperationError(OperationErrorCode::utilityFailed, {{std::to_string(status)}});
    }
    _outputConnection = nullptr;
    return nullptr;
}

void UtilityOperations::logCutOffOutput(const ExecutableFile& program) const {
    if (!_logErrorMessage) return;
    _logErrorMessage(
        fmt::format("Processes that '{}' left behind still write after {} seconds. Their further "
                    "output is discarded.",
                    program.path(), _drainLimits.total / 1000));
}

void UtilityOperations::receiveTaskOutput(Data data, bool isError) {
    FeedbackConnection* connection = _outputConnection;
    if (connection == nullptr) return;
    Dictionary feedback;
    feedback.set(isError ? kQRLPORK_ErrorData : kQRLPORK_OutputData, std::move(data));
    connection->processPrivilegedOperationFeedback(std::move(feedback));
}

}  // namespace corvalen
