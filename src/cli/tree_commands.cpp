// SPDX-License-Identifier: MIT
// Commands for searches, storage size and permissions of trees.
#include "cli/command_table.hpp"

namespace corvalen::cli {
namespace {

/// Returns a flag in a list of strings: "1" or "0".
Value flagText(bool set) {
    return Value(set ? "1" : "0");
}

std::string nonEmpty(std::string text, std::string_view what) {
    if (text.empty()) throw UsageError(std::string(what) + " is empty");
    return text;
}

/// Removes the dot of ".log": users write both forms.
std::string extensionOf(std::string text) {
    if (!text.empty() && text.front() == '.') text.erase(0, 1);
    return text;
}

Request searchPatterns(const Arguments& arguments) {
    const std::string directory = arguments.path("FOLDER");
    Request request{{Value(directory), flagText(arguments.has("one-file-system"))}, directory};
    const auto addRules = [&](std::string_view key, const char* type) {
        for (const std::string& text : arguments.all(key)) {
            const bool isExtension = key == "extension";
            request.arguments.emplace_back(type);
            request.arguments.emplace_back(nonEmpty(isExtension ? extensionOf(text) : text, key));
        }
    };
    addRules("name", "0");
    addRules("prefix", "1");
    addRules("extension", "2");
    if (request.arguments.size() == 2)
        throw UsageError("at least one of --name, --prefix and --extension is needed");
    return request;
}

Request searchAgedFiles(const Arguments& arguments) {
    const std::string directory = arguments.path("FOLDER");
    if (!arguments.has("days")) throw UsageError("--days is required");
    return {{Value(directory), Value(arguments.unsignedNumber("days")),
             Value(arguments.has("one-file-system"))},
            directory};
}

Request searchFileNames(const Arguments& arguments) {
    const std::string directory = arguments.path("FOLDER");
    return {{Value(directory), Value(arguments.text("prefix")),
             Value(extensionOf(arguments.text("extension"))), Value(arguments.has("folders"))},
            directory};
}

Request searchFileOrphans(const Arguments& arguments) {
    const std::string directory = arguments.path("FOLDER");
    return {{Value(directory), Value(arguments.has("one-file-system"))}, directory};
}

Request inspectStorageSize(const Arguments& arguments) {
    const std::string directory = arguments.path("FOLDER");
    return {{Value(directory)}, directory};
}

struct Selection {
    std::string_view key;
    unsigned bits;
};

constexpr Selection kSelections[] = {
    {"acl", 0x01},        {"other-mode", 0x02},         {"group-mode", 0x04},
    {"owner-mode", 0x08}, {"mode", 0x02 | 0x04 | 0x08}, {"group", 0x10},
    {"owner", 0x20},      {"mark-inherited", 0x40},
};
constexpr unsigned kMarkInherited = 0x40;
constexpr unsigned kAccessList = 0x01;

Request propPermissions(const Arguments& arguments) {
    const std::string directory = arguments.path("FOLDER");
    unsigned bits = 0;
    for (const Selection& selection : kSelections)
        if (arguments.has(selection.key)) bits |= selection.bits;
    if ((bits & ~kMarkInherited) == 0)
        throw UsageError("say what to propagate: --owner, --group, --mode or parts of it, --acl");
    if ((bits & kMarkInherited) != 0 && (bits & kAccessList) == 0)
        throw UsageError("--mark-inherited is for --acl");
    Request request{{Value(directory), Value(arguments.unsignedNumber("expect")),
                     Value(arguments.has("one-file-system")), Value(std::uint64_t{bits})},
                    directory};
    request.question = "Give everything below '" + directory + "' the settings of this folder?";
    return request;
}

constexpr Option kOneFileSystem = {"-x,--one-file-system", "",
                                   "do not descend into other file systems"};

constexpr Option kPatternOptions[] = {
    {"-n,--name", "NAME", "objects of exactly this name; may be repeated", true},
    {"-p,--prefix", "TEXT", "objects whose name begins with TEXT; may be repeated", true},
    {"-e,--extension", "EXT", "objects whose name ends in a dot and EXT; may be repeated", true},
    kOneFileSystem,
};
constexpr Option kAgeOptions[] = {
    {"-d,--days", "DAYS", "last modified at least DAYS days ago"},
    kOneFileSystem,
};
constexpr Option kNameOptions[] = {
    {"-p,--prefix", "TEXT", "only names that begin with TEXT"},
    {"-e,--extension", "EXT", "only names that end in a dot and EXT"},
    {"--folders", "", "folders instead of other objects"},
};
constexpr Option kOrphanOptions[] = {kOneFileSystem};
constexpr Option kPropagationOptions[] = {
    {"--owner", "", "the owner"},
    {"--group", "", "the group"},
    {"--mode", "", "all permission bits; files keep their execute bits"},
    {"--owner-mode", "", "the permission bits of the owner"},
    {"--group-mode", "", "the permission bits of the group"},
    {"--other-mode", "", "the permission bits of others"},
    {"--acl", "", "the access control list; if the folder has none, removes the lists below it"},
    {"--mark-inherited", "", "with --acl: mark the entries as inherited"},
    {"--expect", "COUNT", "how many objects there are, for the progress bar"},
    kOneFileSystem,
    kDryRun,
    kYes,
};
constexpr Positional kDirectory[] = {
    {"FOLDER", "the folder; links in its path are followed", 1, 1, Completion::directory}};

const Command kTreeCommands[] = {
    {"search-patterns", "", "An object is found when one of the rules matches. Case matters.",
     kPatternOptions, kDirectory, searchPatterns, View::foundObjects},
    {"search-agedfiles", "", "", kAgeOptions, kDirectory, searchAgedFiles, View::foundObjects},
    {"search-filenames", "",
     "Does not descend into folders. Links are followed to tell folders from other objects.",
     kNameOptions, kDirectory, searchFileNames, View::foundObjects},
    {"search-fileorphans", "",
     "Reports an orphaned folder with only orphaned contents as one object.", kOrphanOptions,
     kDirectory, searchFileOrphans, View::foundObjects},
    {"inspect-storagesize",
     "",
     "Logical sizes: a file with several names counts once for each of them.",
     {},
     kDirectory,
     inspectStorageSize,
     View::storageSize},
    {"prop-permissions", "",
     "Stops at the first failure; what was changed stays changed. Asks first.", kPropagationOptions,
     kDirectory, propPermissions, View::nothing, nullptr, false, PreviewKind::tree},
};

}  // namespace

std::span<const Command> treeCommands() {
    return kTreeCommands;
}

}  // namespace corvalen::cli
