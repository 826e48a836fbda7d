// SPDX-License-Identifier: MIT
#include "helper/start_up.hpp"

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <new>

#include "exec/utility_operations.hpp"
#include "fileops/file_operations.hpp"
#include "helper/helper_log.hpp"
#include "helper/privileged_helper.hpp"
#include "operations/names.hpp"
#include "platform/authorization/authorization.hpp"
#include "platform/processes/processes.hpp"
#include "platform/processes/threads.hpp"
#include "settings/settings_operations.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Services that the groups borrow. Never destroyed, like the operation set.
struct FileServices {
    std::unique_ptr<FileFlags> flags = makeFileFlags();
    std::unique_ptr<FileManager> manager = makeFileManager(*flags);
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    std::unique_ptr<UserDatabase> users = makeUserDatabase();
};

/// Operations write to the log of their request.
void logErrorMessage(std::string_view message) {
    if (HelperLog* log = logOfRequest()) log->logErrorMessage(message);
}

std::vector<std::unique_ptr<OperationGroup>> makeOperationGroups() {
    static const auto& files = *new FileServices;
    std::vector<std::unique_ptr<OperationGroup>> groups;
    groups.push_back(std::make_unique<FileOperations>(*files.manager, *files.flags, *files.acl));
    groups.push_back(std::make_unique<TreeWalkOperations>(*files.users, *files.acl));
    groups.push_back(std::make_unique<SettingsOperations>(hostSettingsServices(), logErrorMessage));
    groups.push_back(
        std::make_unique<UtilityOperations>(descriptorLimitAtStart(), logErrorMessage));
    return groups;
}

struct RegisteredClass {
    std::string_view name;
    std::unique_ptr<QRLPrivilegedOperationSet> (*make)();
};

constexpr std::array kClasses = {
    RegisteredClass{"QRLPrivilegedOperationSetKVX",
                    []() -> std::unique_ptr<QRLPrivilegedOperationSet> {
                        return std::make_unique<QRLPrivilegedOperationSetKVX>(
                            makeOperationGroups());
                    }},
};

}  // namespace

QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(std::string_view className) {
    for (const RegisteredClass& registered : kClasses) {
        if (registered.name == className) return registered.make;
    }
    return {};
}

namespace {

constexpr mode_t kFileCreationMask = 022;
/// Bytes; larger blocks return to the kernel when they are freed.
constexpr int kLargestHeapBlock = 256 * 1024;

std::optional<rlimit> limitAtStart;
bool standardErrorClosedAtStart = false;

/// The next open(2) would reuse a closed standard descriptor, and output for standard error would
/// go there.
void fillStandardDescriptors() noexcept {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        standardErrorClosedAtStart = standardErrorClosedAtStart || fd == STDERR_FILENO;
        (void)::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);  // NOLINT
    }
}

void raiseDescriptorLimit() noexcept {
    rlimit raised{};
    if (::getrlimit(RLIMIT_NOFILE, &raised) != 0) return;
    limitAtStart = raised;
    raised.rlim_cur = raised.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &raised);
}

constexpr std::string_view kFacility = "Daemon";

void print(std::FILE* stream, std::string_view text) {
    (void)std::fwrite(text.data(), 1, text.size(), stream);
    (void)std::fflush(stream);
}

int handleArgument(std::string_view argument, const ProgramInformation& program,
                   std::FILE* output) {
    if (argument.substr(0, 1) != "v") return 1;
    print(output, LogLine("{} (Build {})\n", program.shortVersion, program.version));
    return 0;
}

/// The checks before serving. Logs each that fails.
bool mayServe(const QRLPrivilegedOperationSet& operationSet, const ProgramInformation& program,
              uid_t realUserId, SystemLog& log) {
    const bool versionsMatch = program.shortVersion == operationSet.implementationVersion();
    if (!versionsMatch) {
        log.log(LogLevel::error,
                LogLine("Internal implementation error: executable version ({}) does not match "
                        "implementation version of privileged command set ({}).",
                        program.shortVersion, operationSet.implementationVersion()));
    }
    if (realUserId != 0) log.log(LogLevel::error, "This program needs root privileges.");
    return versionsMatch && realUserId == 0;
}

[[noreturn]] void failAssertion(std::string_view condition, std::FILE* errors) {
    print(errors, LogLine("main: assertion failed: {}\n", condition));
    std::abort();
}

/// Opens the log; aborts without a log or without an identifier.
std::shared_ptr<SystemLog> openLog(const ProgramInformation& program,
                                   const StartUpDependencies& dependencies) {
    const std::string& sender = program.bundleIdentifier;
    std::shared_ptr<SystemLog> log;
    bool hasTemplate = !sender.empty();
    try {
        log = dependencies.openLog(sender, kFacility, sender);
    } catch (const std::bad_alloc&) {
        hasTemplate = false;
    }
    if (hasTemplate && log == nullptr) failAssertion("aslHandle != NULL", dependencies.errors);
    if (!hasTemplate) failAssertion("aslMessage != NULL", dependencies.errors);
    return log;
}

int runDaemon(const QRLPrivilegedOperationSet& operationSet, const ProgramInformation& program,
              const StartUpDependencies& dependencies) {
    const std::shared_ptr<SystemLog> log = openLog(program, dependencies);
    const int status = mayServe(operationSet, program, dependencies.realUserId, *log)
                           ? dependencies.serve(operationSet, log)
                           : 1;
    log->log(LogLevel::informational, "Privileged helper is shutting down.",
             {{kMessageIdField, std::string(kHelperEndedId)}});
    return status;
}

}  // namespace

void prepareProcess() noexcept {
    fillStandardDescriptors();
    ::signal(SIGPIPE, SIG_IGN);
    // Inherited as ignored, SIGCHLD makes waitpid(2) fail.
    ::signal(SIGCHLD, SIG_DFL);
    const sigset_t signals = terminationSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::umask(kFileCreationMask);
    (void)!::chdir("/");
    raiseDescriptorLimit();
    // Otherwise the first large message raises the threshold, and later ones stay in the heap
    // (mallopt(3)).
    (void)::mallopt(M_MMAP_THRESHOLD, kLargestHeapBlock);
    (void)dropThreadCapabilities();
}

std::optional<rlimit> descriptorLimitAtStart() noexcept {
    return limitAtStart;
}

bool standardErrorWasClosed() noexcept {
    return standardErrorClosedAtStart;
}

ProgramInformation programInformation(const Bundle& bundle) {
    const auto textOf = [](const std::string* text) { return text != nullptr ? *text : ""; };
    return {textOf(bundle.principalClassName()), textOf(bundle.bundleIdentifier()),
            textOf(bundle.stringForInfoDictionaryKey("CFBundleShortVersionString")),
            textOf(bundle.stringForInfoDictionaryKey("CFBundleVersion"))};
}

int runProgram(const std::vector<std::string_view>& arguments, const ProgramInformation& program,
               const StartUpDependencies& dependencies) {
    if (arguments.size() > 1) return 1;
    const auto factory = operationSetFactoryForClassName(program.principalClass);
    if (!factory) {
        print(dependencies.errors,
              "Internal implementation error: The principal class is either not set or not "
              "implemented.\n");
        return 1;
    }
    const auto& operationSet = QRLPrivilegedOperationSet::privilegedOperationSet(factory);
    if (!arguments.empty()) return handleArgument(arguments[0], program, dependencies.output);
    return runDaemon(operationSet, program, dependencies);
}

int serveAtServiceSocket(const QRLPrivilegedOperationSet& operationSet,
                         std::shared_ptr<SystemLog> log) {
    ServiceSocket service =
        takeServiceSocket(operationSet.serviceIdentifierForHelper(), kServiceSocketPath);
    for (const std::string& remark : service.remarks)
        log->log(LogLevel::error, remark);
    if (!service.socket) {
        log->log(LogLevel::error,
                 LogLine("The service socket cannot be opened ({}).",
                         makePosixError(service.socket.error().number)->localizedDescription()));
        return 1;
    }
    restoreHostSettings();
    const std::shared_ptr<AuthorizationService> authorization =
        makeSystemAuthorizationService(kStoreDirectory, operationSet.rightDefinitions());
    const std::string authority =
        fmt::format("Authorization is decided by {}.", authorization->description());
    log->log(LogLevel::informational, authority,
             {{kMessageIdField, std::string(kHelperStartedId)}});
    notifyServiceManager("STATUS=" + authority);
    const auto helper = QRLPrivilegedHelper::initForOperationSet(
        &operationSet,
        HelperServices{std::move(log), authorization, makeFileFlags(), *std::move(service.socket),
                       std::string(service.madeHere ? kServiceSocketPath : "")});
    helper->run();
    return 0;
}

}  // namespace corvalen
