// SPDX-License-Identifier: MIT
#include <acl/libacl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/acl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "cli/command.hpp"
#include "cli/command_table.hpp"

namespace corvalen::cli {
namespace {

struct AclFree {
    void operator()(void* object) const noexcept { ::acl_free(object); }
};
using OwnedAcl = std::unique_ptr<std::remove_pointer_t<acl_t>, AclFree>;

constexpr std::uint32_t kNoId = 0xFFFFFFFF;

void appendLittleEndian(Data& data, std::uint32_t value, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i)
        data.bytes.push_back(static_cast<std::uint8_t>((value >> (8 * i)) & 0xFFU));
}

std::uint32_t idOfEntry(acl_entry_t entry, acl_tag_t tag) {
    if (tag != ACL_USER && tag != ACL_GROUP) return kNoId;
    const std::unique_ptr<void, AclFree> qualifier(::acl_get_qualifier(entry));
    return qualifier ? *static_cast<const std::uint32_t*>(qualifier.get()) : kNoId;
}

std::uint32_t permissionsOfEntry(acl_entry_t entry) {
    acl_permset_t permissions{};
    std::uint32_t bits = 0;
    if (::acl_get_permset(entry, &permissions) != 0) return 0;
    for (const acl_perm_t bit : std::initializer_list<acl_perm_t>{ACL_READ, ACL_WRITE, ACL_EXECUTE})
        if (::acl_get_perm(permissions, bit) == 1) bits |= bit;
    return bits;
}

/// Keeps the order of libacl, which the kernel requires too.
Data externalForm(acl_t list) {
    Data data;
    appendLittleEndian(data, POSIX_ACL_XATTR_VERSION, 4);
    acl_entry_t entry{};
    for (int found = ::acl_get_entry(list, ACL_FIRST_ENTRY, &entry); found == 1;
         found = ::acl_get_entry(list, ACL_NEXT_ENTRY, &entry)) {
        acl_tag_t tag{};
        ::acl_get_tag_type(entry, &tag);
        appendLittleEndian(data, static_cast<std::uint32_t>(tag), 2);
        appendLittleEndian(data, permissionsOfEntry(entry), 2);
        appendLittleEndian(data, idOfEntry(entry, tag), 4);
    }
    return data;
}

/// Removes the comments of getfacl(1), which fill a line or follow an entry.
std::string withoutComments(const std::string& text) {
    std::string kept;
    bool inComment = false;
    for (const char character : text) {
        const bool begins =
            kept.empty() || kept.back() == '\n' || kept.back() == '\t' || kept.back() == ' ';
        if (character == '\n') inComment = false;
        if (character == '#' && begins) inComment = true;
        if (!inComment) kept += character;
    }
    return kept;
}

/// The entries of an access list and of a directory's default list.
struct AclTexts {
    std::string access;
    std::string inheritable;
};

AclTexts splitLists(const std::string& text) {
    AclTexts texts;
    std::string_view rest = text;
    while (!rest.empty()) {
        std::string_view entry = rest.substr(0, rest.find_first_of(",\n"));
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
        entry.remove_prefix(std::min(entry.find_first_not_of(" \t"), entry.size()));
        std::string* list = &texts.access;
        for (const std::string_view prefix : {"default:", "d:"}) {
            if (list == &texts.inheritable || !entry.starts_with(prefix)) continue;
            entry.remove_prefix(prefix.size());
            list = &texts.inheritable;
        }
        if (!entry.empty()) list->append(entry).push_back('\n');
    }
    return texts;
}

Data listFromText(const std::string& text) {
    const OwnedAcl parsed(::acl_from_text(text.c_str()));
    if (!parsed)
        throw UsageError(
            "the list cannot be read: an entry looks like user:ada:rw-, and every user "
            "and group must be known");
    acl_t list = parsed.get();
    int position = 0;
    int fault = ::acl_check(list, &position);
    if (fault == ACL_MISS_ERROR && ::acl_calc_mask(&list) == 0)
        fault = ::acl_check(list, &position);
    if (fault != 0)
        throw UsageError(std::string("the list is not valid: ") +
                         (fault < 0 ? "it cannot be checked" : ::acl_error(fault)));
    return externalForm(list);
}

}  // namespace

Data aclFromText(const std::string& text) {
    const AclTexts texts = splitLists(withoutComments(text));
    Data data = listFromText(texts.access);
    if (texts.inheritable.empty()) return data;
    const Data inheritable = listFromText(texts.inheritable);
    data.bytes.insert(data.bytes.end(), inheritable.bytes.begin(), inheritable.bytes.end());
    return data;
}

std::uint32_t parseFourCharacterCode(const std::string& text) {
    std::uint32_t code = 0;
    if (text.rfind("0x", 0) == 0 && text.size() > 4) {
        const char* end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + 2, end, code, 16);
        if (error == std::errc() && rest == end) return code;
        throw UsageError("'" + text + "' is no 32-bit number");
    }
    if (text.size() > 4) throw UsageError("'" + text + "' has more than four characters");
    if (text.empty()) return 0;
    for (std::size_t i = 0; i < 4; ++i)
        code = (code << 8U) | static_cast<unsigned char>(i < text.size() ? text[i] : ' ');
    return code;
}

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
    {"-k,--keep-going", "", "continue with the next object after a failure"},
    kDryRun,
    kYes,
};
constexpr Option kContentsOptions[] = {kDryRun, kYes};
constexpr Option kSystemFileOptions[] = {
    {"-f,--from", "FILE", "the new content; standard input by default", false, Completion::path},
    {"--remove-backup", "", "do not keep the old file as PATH.backup"},
};
constexpr Option kProtectionOptions[] = {
    {"--lock", "", "protect against changes"},
    {"--unlock", "", "remove the protection"},
    kRecursive,
    {"-x,--one-file-system", "", "change nothing on other file systems below it"},
};
constexpr Option kHfsOptions[] = {
    {"--type", "CODE", "the type: up to four characters, or 0x and eight digits"},
    {"--creator", "CODE", "the creator, in the same form"},
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

const Command kFileCommands[] = {
    {"create-fileobject", "", "A file has mode 0644, an executable one and a folder 0755.",
     kCreateOptions, kPath, createFileObject},
    {"rename-fileobject", "", "Nothing may exist at NEW-PATH.", {}, kRenamePaths, renameFileObject},
    {"inspect-fileobject",
     "",
     "Follows links. Prints absent, folder or object; the exit code is 0 for all three.",
     {},
     kPath,
     onePath,
     View::existence},
    {"touch-fileobject", "", "Follows links. Creates nothing.", {}, kPath, onePath},
    {"create-link", "", "A symbolic link stores the target as given.", kLinkOptions, kLinkPaths,
     createLink},
    {"delete-fileobjects", "",
     "Stops at the first failure. With --keep-going it lists the objects that remain, and exits\n"
     "with 1. A recursive deletion asks first. A dry run needs the right to search-agedfiles for\n"
     "what lies below a folder, and the one to search-filenames for objects that you cannot see.",
     kDeleteOptions, kPaths, deleteFileObjects, View::nothing, nullptr, false,
     PreviewKind::objects},
    {"delete-foldercontents", "", "Skips a folder that does not exist. Asks first.",
     kContentsOptions, kDirectories, deleteFolderContents, View::nothing, nullptr, false,
     PreviewKind::contents},
    {"modify-systemfile", "", "Follows links. The old file stays as PATH.backup.",
     kSystemFileOptions, kPath, modifySystemFile},
    {"modify-protection", "", "", kProtectionOptions, kPath, modifyProtection},
    {"modify-hfsattr", "", "Sets all three. An empty code is 0; a short one is padded with spaces.",
     kHfsOptions, kPath, modifyHfsAttr},
    {"modify-acl", "",
     "The list must be complete, in the form of setfacl(1) and getfacl(1). Adds a mask if one is\n"
     "needed. Entries that begin with \"default:\" are the default list of a folder, which new\n"
     "objects in it get; without such entries its default list is removed.",
     kAclOptions, kAclPositionals, modifyAcl},
};

}  // namespace

std::span<const Command> fileCommands() {
    return kFileCommands;
}

}  // namespace corvalen::cli
