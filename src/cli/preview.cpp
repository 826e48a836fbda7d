// SPDX-License-Identifier: MIT
#include "cli/operation_runner.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <utility>

#include "cli/operation_output.hpp"
#include "cli/other_programs.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "foundation/path.hpp"
#include "operations/names.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen::cli {
namespace {

constexpr std::string_view kSearchTree = "search-agedfiles";
constexpr std::string_view kSearchDirectory = "search-filenames";
constexpr std::string_view kDirectoryType = "NSFileTypeDirectory";

std::string_view typeOf(unsigned mode) noexcept {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "NSFileTypeRegular";
        case S_IFDIR:
            return kDirectoryType;
        case S_IFLNK:
            return "NSFileTypeSymbolicLink";
        case S_IFSOCK:
            return "NSFileTypeSocket";
        case S_IFCHR:
            return "NSFileTypeCharacterSpecial";
        case S_IFBLK:
            return "NSFileTypeBlockSpecial";
        default:
            return "NSFileTypeUnknown";
    }
}

/// The record that a search would send.
Value recordOf(const std::string& path, const struct stat& status) {
    const Date modified{status.st_mtim.tv_sec, static_cast<std::uint32_t>(status.st_mtim.tv_nsec)};
    return Value(Dictionary{
        {std::string(kKeyObjectPath), path},
        {std::string(kKeyObjectType), typeOf(status.st_mode)},
        {std::string(kKeyObjectSize), static_cast<std::uint64_t>(status.st_size)},
        {std::string(kKeyObjectModificationDate), modified},
        {std::string(kKeyObjectPOSIXMode), std::uint32_t{status.st_mode & 07777U}},
    });
}

/// Whether a path is a dangling link, which a recursive deletion of the daemon leaves.
bool isDanglingLink(const std::string& path, const struct stat& status) {
    struct stat target {};
    return S_ISLNK(status.st_mode) && ::stat(path.c_str(), &target) != 0 && errno == ENOENT;
}

std::string commandName(const Command& command) {
    return std::string(command.name) + " --dry-run";
}

/// Runs the searches one after the other, and writes and sums up their finds.
class Preview {
  public:
    Preview(Client& client, const Command& command, const Arguments& arguments)
        : _client(client), _command(command), _arguments(arguments), _objects(_output, arguments) {}

    /// Adds everything below a directory. Returns false after a failure; a missing directory is one
    /// unless `isMissingFine`.
    bool addTree(const std::string& directory, bool sameVolume, bool isMissingFine) {
        const ErrorRef error = search(kSearchTree, {Value(directory), Value(0), Value(sameVolume)},
                                      [](const Dictionary&) { return true; });
        return !error || (isMissingFine && hostErrno(error) == ENOENT) ||
               fails(kSearchTree, directory, error);
    }

    /// Adds an object and, if `recursive`, everything below it. A missing one adds nothing. Returns
    /// false after a failure.
    bool addObject(const std::string& path, bool recursive) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            if (errno == EACCES) return addHiddenObject(path, recursive);
            const bool isMissing = errno == ENOENT || errno == ENOTDIR;
            return isMissing || fails(_command.name, path, makePosixError(errno));
        }
        if (recursive && isDanglingLink(path, status)) return true;
        _held.push_back(recordOf(path, status));
        const bool isDone = !recursive || !S_ISDIR(status.st_mode) || addTree(path, false, false);
        if (isDone) addHeld();
        return isDone;
    }

    int finish() {
        const std::string sorted = _objects.takeSorted();
        if (_output.isTerminal())
            (void)writePaged(sorted, _arguments);
        else
            _output.write(sorted);
        if (!_output.finish()) return reportOutputFailure(_output.failure());
        if (_isIncomplete)
            return report({commandName(_command),
                           {},
                           "a part of the results is lost: they were not taken in time"});
        const std::string text =
            reportsAsJson()
                ? fmt::format("{{\"dryRun\":{{\"objects\":{},\"size\":{}}}}}\n", _count, _bytes)
                : fmt::format("dry run: {}, {} B; nothing was changed\n", objectCountText(_count),
                              _bytes);
        Output(kStandardError).write(text);
        return kExitSuccess;
    }
    /// The failure of the last call that returned false.
    [[nodiscard]] const Failure& failure() const noexcept { return _failure; }

  private:
    /// Adds an object that this user cannot examine, by a search in its parent, which needs a
    /// second right. The search does not find dangling links.
    bool addHiddenObject(const std::string& path, bool recursive) {
        const std::string name(lastPathComponent(path));
        bool isDirectory = false;
        for (const bool directories : {false, true}) {
            const Array wanted{Value(deleteLastPathComponent(path)), Value(name), Value(""),
                               Value(directories)};
            const ErrorRef error = search(kSearchDirectory, wanted, [&](const Dictionary& record) {
                const Value* found = record.find(kKeyObjectPath);
                const bool isMatch = found != nullptr && found->string() != nullptr &&
                                     lastPathComponent(*found->string()) == name;
                const Value* type = record.find(kKeyObjectType);
                if (isMatch && type != nullptr && type->string() != nullptr)
                    isDirectory = *type->string() == kDirectoryType;
                return isMatch;
            });
            if (error && hostErrno(error) != ENOENT) return fails(kSearchDirectory, path, error);
        }
        return !recursive || !isDirectory || addTree(path, false, false);
    }

    template <class Wants>
    ErrorRef search(std::string_view operation, const Array& arguments, const Wants& wants) {
        const PasswordAgent agent(*findOperation(operation), _arguments);
        _prompt = agent.prompt();
        const OperationResult result =
            _client.perform(operation, arguments, [&](const Dictionary& message) {
                const Value* found = message.find(kQRLPORK_FileObjectInfo);
                if (found == nullptr || found->array() == nullptr) return;
                for (const Value& record : *found->array())
                    if (record.dictionary() != nullptr && wants(*record.dictionary())) add(record);
            });
        _isIncomplete = _isIncomplete || (!result.error && !result.feedbackComplete);
        return result.error;
    }

    void addHeld() {
        for (const Value& record : std::exchange(_held, {}))
            add(record);
    }

    void add(const Value& record) {
        addHeld();
        ++_count;
        const Value* size = record.dictionary()->find(kKeyObjectSize);
        if (size != nullptr && size->number() != nullptr)
            _bytes += size->number()->unsignedIntegerValue();
        _objects.write({record});
    }

    bool fails(std::string_view operation, const std::string& path, const ErrorRef& error) {
        _failure = failureOf(operation, path, error, _prompt);
        _failure.command = commandName(_command);
        return false;
    }

    Client& _client;
    const Command& _command;
    const Arguments& _arguments;
    Output _output{kStandardOutput};
    ObjectWriter _objects;
    /// Not written before a search begins to answer: polkit may prompt on the same terminal.
    Array _held;
    PasswordPrompt _prompt = PasswordPrompt::notNeeded;
    std::uint64_t _count = 0;
    std::uint64_t _bytes = 0;
    /// Whether some of a search's finds did not arrive.
    bool _isIncomplete = false;
    Failure _failure;
};

bool previewAll(Preview& preview, const Command& command, const Arguments& arguments) {
    for (const char* const key : {"PATH", "FOLDER"})
        for (const std::string& given : arguments.all(key)) {
            const std::string path = absolutePath(given);
            const bool isDone = command.preview == PreviewKind::objects
                                    ? preview.addObject(path, arguments.has("recursive"))
                                    : preview.addTree(path, arguments.has("one-file-system"),
                                                      command.preview == PreviewKind::contents);
            if (!isDone) return false;
        }
    return true;
}

enum class CountedTop : std::uint8_t {
    /// Counts as well; a symlink is not followed.
    included,
    /// Only the objects below count; a symlink to a directory is followed.
    excluded,
};

/// Longest time that counting the objects may delay the question and the request.
constexpr std::chrono::seconds kLongestCount{1};

/// Number of objects between two reads of the clock.
constexpr std::uint64_t kClockInterval = 64;

void addContents(UniqueFd directory, std::chrono::steady_clock::time_point end, TreeCount* count) {
    TreeWalk walk(std::move(directory), {.mounts = TreeWalkOptions::Mounts::refused});
    while (walk.next() == TreeWalk::Step::object) {
        ++count->objects;
        const bool isDirectory = walk.entry().type == EntryType::directory;
        if (isDirectory && !walk.enter()) count->isComplete = false;
        if (count->objects % kClockInterval != 0 || std::chrono::steady_clock::now() < end)
            continue;
        count->isComplete = false;
        return;
    }
    if (!walk.result()) count->isComplete = false;
}

/// Counts an object and everything below it. Stops counting at `end`.
TreeCount countTree(const std::string& path, CountedTop top,
                    std::chrono::steady_clock::time_point end) {
    TreeCount count;
    const bool isIncluded = top == CountedTop::included;
    struct stat status {};
    if (::fstatat(AT_FDCWD, path.c_str(), &status, isIncluded ? AT_SYMLINK_NOFOLLOW : 0) != 0) {
        count.isComplete = errno == ENOENT || errno == ENOTDIR;
        return count;
    }
    count.objects = isIncluded ? 1 : 0;
    if (!S_ISDIR(status.st_mode)) return count;
    const int links = isIncluded ? O_NOFOLLOW : 0;
    UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | links));
    if (directory)
        addContents(std::move(directory), end, &count);
    else
        count = {0, false};
    return count;
}

bool touchesTrees(const Command& command, const Arguments& arguments) {
    const bool isRecursive = command.preview != PreviewKind::objects || arguments.has("recursive");
    return command.preview != PreviewKind::none && isRecursive;
}

}  // namespace

int runPreview(const Command& command, const Arguments& arguments) {
    int code = kExitSuccess;
    auto session = Session::open(arguments, {{}, {}, Session::kCancelTimeout}, code);
    if (!session) return code;
    Preview preview(session->client(), command, arguments);
    const bool isDone = previewAll(preview, command, arguments);
    if (const int signal = session->interruptedBy(); signal != 0)
        return report(
            {commandName(command), {}, "stopped; nothing was changed", {}, kExitSignal + signal});
    session.reset();  // it would take the pager's Ctrl-C
    return isDone ? preview.finish() : report(preview.failure());
}

// The daemon sends no progress within a tree. A search of the daemon could count too, but needs a
// right of its own and thus another password.
std::vector<TreeCount> countTrees(const Command& command, const Arguments& arguments,
                                  const Request& request) {
    if (!touchesTrees(command, arguments)) return {};
    const auto end = std::chrono::steady_clock::now() + kLongestCount;
    const CountedTop top =
        command.preview == PreviewKind::objects ? CountedTop::included : CountedTop::excluded;
    std::vector<TreeCount> counts;
    for (const std::string& path : request.progressPaths)
        counts.push_back(countTree(path, top, end));
    if (counts.empty()) counts.push_back(countTree(request.subject, top, end));
    return counts;
}

std::string treeCountText(const TreeCount& count) {
    if (count.isComplete) return objectCountText(count.objects);
    return count.objects == 0 ? std::string() : "at least " + objectCountText(count.objects);
}

}  // namespace corvalen::cli
