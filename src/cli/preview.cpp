// SPDX-License-Identifier: MIT
#include "cli/preview.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>

#include "cli/found_objects.hpp"
#include "cli/password_agent.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "foundation/path.hpp"
#include "operations/feedback.hpp"

namespace corvalen::cli {
namespace {

constexpr std::string_view kSearchTree = "search-agedfiles";
constexpr std::string_view kSearchFolder = "search-filenames";
constexpr std::string_view kFolderType = "NSFileTypeDirectory";

constexpr std::chrono::milliseconds kPatience{2000};

std::string commandName(const Command& command) {
    return std::string(command.name) + " --dry-run";
}

/// Searches one after the other and writes what they find.
class Preview {
  public:
    Preview(Client& client, const Command& command, const Arguments& arguments)
        : _client(client), _command(command), _arguments(arguments), _objects(_output, arguments) {}

    /// Everything below a folder; `isMissingFine` passes over one that does not exist.
    bool addTree(const std::string& folder, bool sameVolume, bool isMissingFine) {
        const ErrorRef error = search(kSearchTree, {Value(folder), Value(0), Value(sameVolume)},
                                      [](const Dictionary&) { return true; });
        // A folder that is itself not there has nothing below it.
        return !error || (isMissingFine && hostErrno(error) == ENOENT) || fails(folder, error);
    }

    /// An object and, when wanted, everything below it. The searches do not see a link whose target
    /// is missing.
    bool addObject(const std::string& path, bool recursive) {
        const std::string name(lastPathComponent(path));
        if (name.empty() || name == "/") return addTree(path, false, false);
        bool isFolder = false;
        for (const bool folders : {false, true}) {
            const Array wanted{Value(deleteLastPathComponent(path)), Value(name), Value(""),
                               Value(folders)};
            const ErrorRef error = search(kSearchFolder, wanted, [&](const Dictionary& record) {
                const Value* found = record.find(kKeyObjectPath);
                const bool isIt = found != nullptr && found->string() != nullptr &&
                                  lastPathComponent(*found->string()) == name;
                const Value* type = record.find(kKeyObjectType);
                if (isIt && type != nullptr && type->string() != nullptr)
                    isFolder = *type->string() == kFolderType;
                return isIt;
            });
            if (error && hostErrno(error) != ENOENT) return fails(path, error);
        }
        return !recursive || !isFolder || addTree(path, false, false);
    }

    int finish() {
        _output.write(_objects.takeSorted());
        if (!_output.finish()) return reportOutputFailure(_output.failure());
        const std::string text =
            fmt::format("dry run: {}, {} B; nothing was changed", objectCountText(_count), _bytes);
        Output(STDERR_FILENO).write(escapedForTerminal(text) + "\n");
        return kExitSuccess;
    }
    /// Of the search that failed.
    [[nodiscard]] const Failure& failure() const noexcept { return _failure; }

  private:
    template <class Wants>
    ErrorRef search(std::string_view operation, const Array& arguments, const Wants& wants) {
        const PasswordAgent agent(*findOperation(operation), _arguments);
        _asking = agent.asking();
        return _client
            .perform(operation, arguments,
                     [&](const Dictionary& message) {
                         const Value* found = message.find(kQRLPORK_FileObjectInfo);
                         if (found == nullptr || found->array() == nullptr) return;
                         for (const Value& record : *found->array())
                             if (record.dictionary() != nullptr && wants(*record.dictionary()))
                                 add(record);
                     })
            .error;
    }

    void add(const Value& record) {
        ++_count;
        const Value* size = record.dictionary()->find(kKeyObjectSize);
        if (size != nullptr && size->number() != nullptr)
            _bytes += size->number()->unsignedIntegerValue();
        _objects.write({record});
    }

    bool fails(const std::string& path, const ErrorRef& error) {
        _failure = failureOf(kSearchTree, path, error, _asking);
        _failure.command = commandName(_command);
        return false;
    }

    Client& _client;
    const Command& _command;
    const Arguments& _arguments;
    Output _output{STDOUT_FILENO};
    ObjectWriter _objects;
    Asking _asking = Asking::notNeeded;
    std::uint64_t _count = 0;
    std::uint64_t _bytes = 0;
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

}  // namespace

int runPreview(const Command& command, const Arguments& arguments) {
    // Values that are wrong are refused as they would be without --dry-run.
    (void)command.request(arguments);
    int code = kExitSuccess;
    const auto session = Session::open(arguments, {{}, {}, kPatience}, code);
    if (!session) return code;
    Preview preview(session->client(), command, arguments);
    const bool isDone = previewAll(preview, command, arguments);
    if (const int signal = session->interruptedBy(); signal != 0)
        return report(
            {commandName(command), {}, "stopped; nothing was changed", {}, kExitSignal + signal});
    return isDone ? preview.finish() : report(preview.failure());
}

}  // namespace corvalen::cli
