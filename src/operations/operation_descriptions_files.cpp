// SPDX-License-Identifier: MIT
// Descriptions of the operations on objects and trees.
#include "operations/operation_descriptions.hpp"

namespace corvalen {
namespace {

using namespace description;

constexpr ErrorDescription kManagerFails = {ErrorOrigin::file, 0, "the change fails"};

constexpr ArgumentDescription kSystemFileArguments[] = {
    {'S', "path", "the file to replace; links are followed"},
    {'D', "content", "all of its new content; may be empty"},
    {'N', "remove backup", "true: the old file does not stay as path.backup"}};
constexpr ErrorDescription kSystemFileErrors[] = {
    kEmptyPath,
    kNothingThere,
    {ErrorOrigin::posix, 62, "more than 40 links in a row, or a link of /proc"},
    {ErrorOrigin::posix, 21, "it is a folder"},
    {ErrorOrigin::operation, 5, "the path of the backup is a folder"},
    {ErrorOrigin::operation, 18, "the file cannot be moved to the backup; the cause is underneath"},
    {ErrorOrigin::file, 0, "attributes cannot be read or set, an old backup cannot be removed"}};

constexpr ArgumentDescription kCreateArguments[] = {
    {'S', "path", "the object to create; its folder must exist"},
    {'S', "type", "F: an empty file, mode 0644. X: an empty file, mode 0755. D: a folder, 0755"}};
constexpr ErrorDescription kCreateErrors[] = {
    {ErrorOrigin::posix, 22, "the path is empty, or the type is none of F, X and D"},
    {ErrorOrigin::posix, 17, "something exists there; links are followed to find out"},
    {ErrorOrigin::operation, 4, "the file cannot be made"},
    {ErrorOrigin::file, 0, "the folder cannot be made"},
    {ErrorOrigin::posix, 0,
     "it was created, but its owner cannot be set or it cannot be written to the disk"}};

constexpr ArgumentDescription kRenameArguments[] = {
    {'S', "path", "the object"}, {'S', "new path", "where it goes; nothing may exist there"}};
constexpr ErrorDescription kManagerErrors[] = {{ErrorOrigin::posix, 22, "a path has a zero byte"},
                                               kManagerFails};

constexpr ArgumentDescription kDeleteArguments[] = {
    {'S', "recursive",
     "1: folders with everything below them. 0 and anything else: single objects"},
    {'S', "stop at first error",
     "1: end with the error of the first path that fails. 0 and anything else: continue after "
     "failures, and succeed"},
    {'S', "path", "what to delete; at least one", true}};
constexpr FeedbackDescription kDeleteFeedback[] = {
    {"ProgressFraction", "after each path: paths handled so far by all paths"},
    {"ProgressFraction", "at the end, 1.0; not after it stopped at an error"}};
constexpr ErrorDescription kDeleteErrors[] = {
    {ErrorOrigin::posix, 22, "there is no path, or it is empty"},
    {ErrorOrigin::posix, 2, "nothing exists at a path; when recursive, that is a success"},
    {ErrorOrigin::operation, 6, "the object is a whiteout; not when recursive"},
    {ErrorOrigin::operation, 7, "the user protection flags cannot be cleared; not when recursive"},
    {ErrorOrigin::operation, 8, "a system protection flag is set; not when recursive"},
    {ErrorOrigin::posix, 0,
     "the removal fails: 66 for a folder that is not empty; or, when recursive, something cannot "
     "be unlocked"},
    {ErrorOrigin::file, 0, "the recursive removal fails; a part of it may be gone"}};

constexpr ArgumentDescription kContentsArguments[] = {
    {'S', "folder",
     "a folder to empty, which stays; at least one. An empty path and a folder that does not exist "
     "are skipped",
     true}};
constexpr FeedbackDescription kContentsFeedback[] = {
    {"ProgressFraction", "before each folder: folders emptied so far by all folders"},
    {"ProgressFraction", "at the end, 1.0; not after a failure"}};
constexpr ErrorDescription kContentsErrors[] = {
    {ErrorOrigin::posix, 22, "no path is given, or one has a zero byte"},
    {ErrorOrigin::posix, 20, "a path does not name a folder"},
    {ErrorOrigin::posix, 0, "a protection flag cannot be cleared"},
    {ErrorOrigin::file, 0, "a folder cannot be listed, or something in it cannot be removed"}};

constexpr ArgumentDescription kInspectArguments[] = {{'S', "path", "links are followed"}};
constexpr ErrorDescription kInspectErrors[] = {
    kEmptyPath, {ErrorOrigin::posix, 0, "the object cannot be examined"}};

constexpr ArgumentDescription kTouchArguments[] = {
    {'S', "path", "the object; links are followed, nothing is made"}};
constexpr ErrorDescription kTouchErrors[] = {kEmptyPath, kNothingThere, kCallFailed};

constexpr ArgumentDescription kProtectionArguments[] = {
    {'S', "path", "the object; links are followed"},
    {'N', "lock", "true: protect it against changes. false: end the protection"},
    {'N', "contents", "true: also everything below a folder"},
    {'N', "same volume", "true: leave other volumes below it alone"}};
constexpr ErrorDescription kProtectionErrors[] = {
    kEmptyPath,
    kNothingThere,
    {ErrorOrigin::posix, 45, "the volume keeps no flags; ending the protection succeeds there"},
    {ErrorOrigin::posix, 0, "the flag cannot be changed; the walk ends there"}};

constexpr ErrorDescription kHfsErrors[] = {kEmptyPath, kManagerFails};
constexpr ArgumentDescription kHfsArguments[] = {
    {'S', "path", "the object; links are followed"},
    {'N', "type", "four characters as a 32-bit number, the first in the highest byte; 0 for none"},
    {'N', "creator", "likewise"},
    {'N', "hidden", "true: hide the object"}};

constexpr ArgumentDescription kLinkArguments[] = {
    {'S', "link", "the link to make"},
    {'S', "target", "what it refers to; a symbolic link keeps this text as it is"},
    {'N', "hard", "true: a hard link, false: a symbolic one"}};

constexpr ArgumentDescription kAclArguments[] = {
    {'S', "path", "the object; links are followed"},
    {'D', "list",
     "the complete list as the attribute system.posix_acl_access has it: 32-bit version 2, then "
     "for each entry 16 bits of tag (1 owner, 2 user, 4 owning group, 8 group, 16 mask, 32 "
     "others), 16 bits of permissions (4 read, 2 write, 1 execute) and 32 bits of user or group "
     "number (all bits set where there is none), all little-endian, ordered by tag and number. "
     "For a folder a second list may follow in the same form: its default list, which objects "
     "made in it get"}};
constexpr ErrorDescription kAclErrors[] = {
    {ErrorOrigin::posix, 22,
     "the path or the list is empty, the bytes are no valid list, or a second list is given for an "
     "object that is no folder"},
    kNothingThere,
    {ErrorOrigin::posix, 0, "a list cannot be set; the first one may be set by then"}};

constexpr ArgumentDescription kDirectory = {'S', "folder", "where to begin; links are followed"};
constexpr ArgumentDescription kSameVolume = {'N', "same volume",
                                             "true: do not descend into other volumes"};
constexpr ErrorDescription kDirectoryErrors[] = {kEmptyPath, kNothingThere, kNotADirectory};

constexpr FeedbackDescription kBatch = {
    "ProgressFraction, FileObjectInfo",
    "for every 20 found objects: the fraction, and the array of their records"};
constexpr FeedbackDescription kLastBatch = {
    "ProgressFraction, FileObjectInfo",
    "at the end: 1.0, and the records that are left, perhaps none"};

constexpr ArgumentDescription kAgeArguments[] = {
    kDirectory,
    {'N', "days",
     "the least age in days of 86400 seconds, unsigned; 0 finds all but objects "
     "dated in the future"},
    kSameVolume};
constexpr FeedbackDescription kSearchFeedback[] = {kBatch, kLastBatch};

constexpr ArgumentDescription kNameArguments[] = {
    {'S', "folder", "whose direct contents are searched; links are followed"},
    {'S', "prefix", "how the name begins; empty for any"},
    {'S', "extension", "what follows the last dot of the name, without it; empty for any"},
    {'N', "folders", "true: folders are wanted, false: everything else"}};

constexpr ArgumentDescription kPatternArguments[] = {
    kDirectory,
    {'S', "same volume", "1: do not descend into other volumes. 0: descend"},
    {'S', "rule",
     "pairs, at least one: 0, 1 or 2, and a text that is not empty, which is 0 the whole name, 1 "
     "its beginning, 2 what follows its last dot. Case matters; one rule that matches is enough",
     true}};
constexpr FeedbackDescription kPatternFeedback[] = {
    {"ProgressFraction", "at the beginning, 0.01"},
    {"ProgressFraction, FileObjectInfo",
     "for every 20 found objects: objects examined so far by all objects, and the array of their "
     "records"},
    kLastBatch};
constexpr ErrorDescription kPatternErrors[] = {
    {ErrorOrigin::posix, 22,
     "fewer than four arguments or an odd number of them, an empty path, a same volume that is "
     "neither 0 nor 1, a rule of another form"},
    {ErrorOrigin::posix, 2, "nothing exists there, or the folder is empty"},
    kNotADirectory};

constexpr ArgumentDescription kOrphanArguments[] = {kDirectory, kSameVolume};

constexpr ArgumentDescription kSizeArguments[] = {kDirectory};

constexpr ArgumentDescription kPropagationArguments[] = {
    {'S', "folder", "the folder to take them from, which is not changed; links are followed"},
    {'N', "expected", "how many objects are below it, for the fraction; 0 when unknown"},
    kSameVolume,
    {'N', "selection",
     "the sum of 1 access control list, 2 permissions of others, 4 of the group, 8 of the owner, "
     "16 group, 32 owner, 64 with 1: mark the entries of the list as inherited"}};
constexpr FeedbackDescription kPropagationFeedback[] = {
    {"ProgressFraction",
     "after every 100 objects: their number by the expected one, or the number itself when that "
     "is 0"},
    {"ProgressFraction", "at the end, 1.0, also after a failure within the walk"}};
constexpr ErrorDescription kPropagationErrors[] = {
    kEmptyPath,
    kNothingThere,
    kNotADirectory,
    {ErrorOrigin::posix, 22,
     "with the path (NSFilePath): owner or group is selected, and the object has a set-ID bit or "
     "capabilities"},
    {ErrorOrigin::operation, 14, "the list of an object cannot be set or removed"},
    {ErrorOrigin::operation, 15, "the attributes of an object cannot be read"},
    {ErrorOrigin::operation, 16, "the owner of an object cannot be changed"},
    {ErrorOrigin::operation, 17, "the mode of an object cannot be changed"},
    {ErrorOrigin::posix, 0, "the settings of the folder cannot be read"}};

constexpr OperationDescription kObjects[] = {
    {0,
     "Replaces the content of a file and keeps its attributes",
     "Renames the old file to path.backup, replacing an older backup, then writes the new file and "
     "gives it owner, group, mode, flags and the other attributes of the old one.",
     kSystemFileArguments,
     {},
     "",
     kSystemFileErrors,
     "S:/etc/motd D:68690a N:true"},
    {1,
     "Makes an empty file or a folder, owned by root",
     "",
     kCreateArguments,
     {},
     "",
     kCreateErrors,
     "S:/srv/new S:D"},
    {2,
     "Moves an object to a new path",
     "",
     kRenameArguments,
     {},
     "",
     kManagerErrors,
     "S:/srv/old S:/srv/new"},
    {3, "Deletes objects, locked ones too",
     "User protection flags are cleared first; symbolic links are removed themselves. When "
     "recursive, the target of a link is unlocked with everything below it, and a path that is a "
     "link to nothing is left alone. What was removed before a failure stays removed.",
     kDeleteArguments, kDeleteFeedback, "", kDeleteErrors, "S:1 S:1 S:/srv/old", 2},
    {4, "Empties folders",
     "A symbolic link to nothing directly in a folder stays. The first failure ends it; what was "
     "removed stays removed.",
     kContentsArguments, kContentsFeedback, "", kContentsErrors, "S:/srv/cache"},
    {5,
     "Answers what exists at a path: absent, folder or object",
     "",
     kInspectArguments,
     {},
     "ObjectExistence (number): 0 nothing, 1 a folder, 2 something else",
     kInspectErrors,
     "S:/srv"},
    {6, "Sets an object's times to now", "", kTouchArguments, {}, "", kTouchErrors, "S:/srv/file"},
    {7,
     "Locks or unlocks an object",
     "Sets or clears the user immutable flag. In a tree the targets of links are changed, but "
     "nothing below them. Skips links to nothing and types without flags.",
     kProtectionArguments,
     {},
     "",
     kProtectionErrors,
     "S:/srv N:true N:true N:false"},
    {8,
     "Sets type and creator codes, and whether an object is hidden",
     "The codes first, then whether it is hidden; a failure leaves what was set before it.",
     kHfsArguments,
     {},
     "",
     kHfsErrors,
     "S:/srv/file N:1413830740 N:0 N:false"},
    {9,
     "Makes a symbolic or hard link",
     "",
     kLinkArguments,
     {},
     "",
     kManagerErrors,
     "S:/srv/link S:/srv/file N:false"},
    {22,
     "Replaces an object's access control list",
     "A folder's default list is replaced by the second list, and removed when there is none. The "
     "entries no longer count as inherited.",
     kAclArguments,
     {},
     "",
     kAclErrors,
     "S:/srv/file D:0200000001000600ffffffff04000400ffffffff20000400ffffffff"},
    {10, "Finds the objects of a tree that were last modified at least a number of days ago",
     "The fraction is 0.0 until the end.", kAgeArguments, kSearchFeedback, "", kDirectoryErrors,
     "S:/var/tmp N:30 N:true"},
    {11, "Finds objects in one folder by their names",
     "Does not descend. Links are followed to tell folders from other objects. The fraction is "
     "0.0 until the end.",
     kNameArguments, kSearchFeedback, "", kDirectoryErrors, "S:/etc S: S:conf N:false"},
    {12, "Finds the objects of a tree by their names", "The tree is walked twice: first to count.",
     kPatternArguments, kPatternFeedback, "", kPatternErrors, "S:/usr/share S:0 S:2 S:service"},
    {13, "Finds the objects of a tree whose owner is no known user",
     "An orphaned folder with only orphaned contents is one find. The fraction is 0.0 "
     "until the end.",
     kOrphanArguments, kSearchFeedback, "", kDirectoryErrors, "S:/srv N:true"},
    {14,
     "Adds up the sizes of everything below a folder",
     "Logical sizes: a file with several names counts once for each of them, the folder itself "
     "does not count, what cannot be examined is left out.",
     kSizeArguments,
     {},
     "Size (number): bytes",
     kDirectoryErrors,
     "S:/srv"},
    {23, "Gives everything below a folder the owner, permissions or list of the folder",
     "Files keep their own execute bits, everything its own set-ID and sticky bits. For a symbolic "
     "link, the list is set on its target. The first failure ends the walk; what was changed "
     "stays changed.",
     kPropagationArguments, kPropagationFeedback, "", kPropagationErrors, "S:/srv N:0 N:true N:14"},
};

#define OPERATION(code, identifier, group, ...)                         \
    static_assert(!kWorksOnObjects<group> || describes(kObjects, code), \
                  identifier " has no description");
#include "operations/operation_rows.def"
#undef OPERATION

}  // namespace

std::span<const OperationDescription> descriptionsOfObjectOperations() noexcept {
    return kObjects;
}

}  // namespace corvalen
