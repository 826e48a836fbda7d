// SPDX-License-Identifier: MIT
// Commands for single objects and for deletions.
#include "cli/acl_text.hpp"
#include "cli/call_command.hpp"
#include "cli/command_table.hpp"

namespace corvalen::cli {
namespace {

/// Returns whether the first of two options was given. Throws UsageError unless exactly one was.
bool eitherOr(const Arguments& arguments, std::string_view yes, std::string_view no) {
    if (arguments.has(yes) == arguments.has(no))
        throw UsageError("either --" + std::string(yes) + " or --" + std::string(no) +
                         " is needed");
    return arguments.has(yes);
}

Request createFileObject(const Arguments& arguments) {
    if (arguments.has("folder") && arguments.has("executable"))
        throw UsageError("either --folder or --executable");
    const std::string path = arguments.path("PATH");
    const char* type = arguments.has("folder") ? "D" : arguments.has("executable") ? "X" : "F";
    return {{Value(path), Value(type)}, path};
}

Request renameFileObject(const Arguments& arguments) {
    const std::string path = arguments.path("PATH");
    return {{Value(path), Value(arguments.path("NEW-PATH"))}, path};
}

Request onePath(const Arguments& arguments) {
    const std::string path = arguments.path("PATH");
    return {{Value(path)}, path};
}

Request createLink(const Arguments& arguments) {
    const std::string link = arguments.path("LINK");
    const bool hard = arguments.has("hard");
    // A symlink stores its text as given; a hard link's target is an object of now.
    const std::string target = hard ? arguments.path("TARGET") : arguments.text("TARGET");
    return {{Value(link), Value(target), Value(hard)}, link};
}

Request deleteFileObjects(const Arguments& arguments) {
    const bool recursive = arguments.has("recursive");
    const bool keepGoing = arguments.has("keep-going");
    const Array paths = arguments.paths("PATH");
    Request request{{Value(recursive ? "1" : "0"), Value(keepGoing ? "0" : "1")},
                    arguments.path("PATH")};
    for (const Value& path : paths) {
        request.arguments.push_back(path);
        request.removedPaths.push_back(*path.string());
    }
    request.progressPaths = request.removedPaths;
    if (paths.size() > 1) request.subject.clear();
    if (recursive)
        request.question =
            paths.size() == 1
                ? "Delete '" + *paths[0].string() + "' and everything below it?"
                : "Delete " + std::to_string(paths.size()) + " objects and everything below them?";
    return request;
}

Request deleteFolderContents(const Arguments& arguments) {
    Request request{arguments.paths("FOLDER"), arguments.path("FOLDER")};
    const std::size_t count = request.arguments.size();
    if (count > 1) request.subject.clear();
    for (const Value& directory : request.arguments)
        request.progressPaths.push_back(*directory.string());
    request.question = count == 1 ? "Delete everything in '" + arguments.path("FOLDER") + "'?"
                                  : "Delete everything in " + std::to_string(count) + " folders?";
    return request;
}

Request modifySystemFile(const Arguments& arguments) {
    const std::string path = arguments.path("PATH");
    return {{Value(path), Value(readContent(arguments.text("from", "-"))),
             Value(arguments.has("remove-backup"))},
            path};
}

Request modifyProtection(const Arguments& arguments) {
    const std::string path = arguments.path("PATH");
    return {{Value(path), Value(eitherOr(arguments, "lock", "unlock")),
             Value(arguments.has("recursive")), Value(arguments.has("one-file-system"))},
            path};
}

Request modifyHfsAttr(const Arguments& arguments) {
    if (!arguments.has("type") || !arguments.has("creator"))
        throw UsageError("--type and --creator are needed: both are always set");
    const std::string path = arguments.path("PATH");
    return {{Value(path), Value(parseFourCharacterCode(arguments.text("type"))),
             Value(parseFourCharacterCode(arguments.text("creator"))),
             Value(eitherOr(arguments, "hidden", "visible"))},
            path};
}

Request modifyAcl(const Arguments& arguments) {
    if (arguments.has("from") == arguments.has("ACL"))
        throw UsageError("give the list either as an argument or with --from");
    const std::string path = arguments.path("PATH");
    const std::string text = arguments.has("from")
                                 ? std::string(readContent(arguments.text("from")).view())
                                 : arguments.text("ACL");
    return {{Value(path), Value(aclFromText(text))}, path};
}

constexpr Option kRecursive = {"-r,--recursive", "", "everything below a folder too"};

constexpr Option kCreateOptions[] = {
    {"-d,--folder", "", "a folder"},
    {"-x,--executable", "", "a file with execute bits"},
};
constexpr Option kLinkOptions[] = {{"--hard", "", "a hard link instead of a symbolic one"}};
constexpr Option kDeleteOptions[] = {
    kRecursive,
    {"-k,--keep-going", "", "go on with the next object after a failure"},
    kDryRun,
    kYes,
};
constexpr Option kContentsOptions[] = {kDryRun, kYes};
constexpr Option kSystemFileOptions[] = {
    {"-f,--from", "FILE", "the new content; standard input unless given", false, Completion::path},
    {"--remove-backup", "", "do not keep the old file as PATH.backup"},
};
constexpr Option kProtectionOptions[] = {
    {"--lock", "", "protect against changes"},
    {"--unlock", "", "end the protection"},
    kRecursive,
    {"-x,--one-file-system", "", "leave other file systems below it alone"},
};
constexpr Option kHfsOptions[] = {
    {"--type", "CODE", "the type: up to four characters, or 0x and eight digits"},
    {"--creator", "CODE", "the creator, likewise"},
    {"--hidden", "", "hide the object"},
    {"--visible", "", "show the object"},
};
constexpr Option kAclOptions[] = {
    {"-f,--from", "FILE", "a file with the list, '-' for standard input", false, Completion::path}};

constexpr Positional kPath[] = {{"PATH", "the object", 1, 1, Completion::path}};
constexpr Positional kPaths[] = {{"PATH", "the objects", 1, kUnlimited, Completion::path}};
constexpr Positional kDirectories[] = {
    {"FOLDER", "the folders; they stay", 1, kUnlimited, Completion::directory}};
constexpr Positional kRenamePaths[] = {{"PATH", "the object", 1, 1, Completion::path},
                                       {"NEW-PATH", "its new path", 1, 1, Completion::path}};
constexpr Positional kLinkPaths[] = {{"TARGET", "what the link refers to", 1, 1, Completion::path},
                                     {"LINK", "the link to make", 1, 1, Completion::path}};
constexpr Positional kAclPositionals[] = {
    {"PATH", "the object", 1, 1, Completion::path},
    {"ACL", "the list, as in u::rw-,u:ada:r--,g::r--,o::---", 0, 1}};

const Command kCommands[] = {
    {"create-fileobject", "", "A file has mode 0644, an executable one and a folder 0755.",
     kCreateOptions, kPath, createFileObject},
    {"rename-fileobject", "", "Nothing may exist there.", {}, kRenamePaths, renameFileObject},
    {"inspect-fileobject",
     "",
     "Links are followed. The exit code is 0 in all three cases.",
     {},
     kPath,
     onePath,
     View::existence},
    {"touch-fileobject", "", "Makes nothing that is not there.", {}, kPath, onePath},
    {"create-link", "", "The target of a symbolic link is kept as it is written.", kLinkOptions,
     kLinkPaths, createLink},
    {"delete-fileobjects", "",
     "Stops at the first failure. With --keep-going it names the objects that are left, and exits\n"
     "with 1. A recursive deletion asks first. A dry run needs the right to search-agedfiles for\n"
     "what lies below a folder, and the one to search-filenames for objects that you cannot see.",
     kDeleteOptions, kPaths, deleteFileObjects, View::nothing, nullptr, false,
     PreviewKind::objects},
    {"delete-foldercontents", "", "A folder that does not exist is passed over. Asks first.",
     kContentsOptions, kDirectories, deleteFolderContents, View::nothing, nullptr, false,
     PreviewKind::contents},
    {"modify-systemfile", "", "The old file stays as PATH.backup; a link is followed.",
     kSystemFileOptions, kPath, modifySystemFile},
    {"modify-protection", "", "", kProtectionOptions, kPath, modifyProtection},
    {"modify-hfsattr", "",
     "All three are always set. An empty code is 0; a short one is filled up with spaces.",
     kHfsOptions, kPath, modifyHfsAttr},
    {"modify-acl", "",
     "The list is written as setfacl(1) and getfacl(1) write it, and must be complete. A mask "
     "that\n"
     "is needed is added. Entries that begin with \"default:\" are what a directory hands down;\n"
     "without any, it hands down nothing.",
     kAclOptions, kAclPositionals, modifyAcl},
};

}  // namespace

std::span<const Command> fileCommands() {
    return kCommands;
}

}  // namespace corvalen::cli
