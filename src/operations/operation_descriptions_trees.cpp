// SPDX-License-Identifier: MIT
#include "operations/operation_description_parts.hpp"

namespace corvalen {
namespace {

using namespace description;

constexpr ArgumentDescription kFolder = {'S', "folder", "where to begin; links are followed"};
constexpr ArgumentDescription kSameVolume = {'N', "same volume",
                                             "true: do not descend into other volumes"};
constexpr ErrorDescription kFolderErrors[] = {kEmptyPath, kNothingThere, kNoFolder};

constexpr FeedbackDescription kBatch = {
    "ProgressFraction, FileObjectInfo",
    "for every 20 found objects: the fraction, and the array of their records"};
constexpr FeedbackDescription kLastBatch = {
    "ProgressFraction, FileObjectInfo",
    "at the end: 1.0, and the records that are left, perhaps none"};

constexpr ArgumentDescription kAgeArguments[] = {
    kFolder,
    {'N', "days", "the least age in days of 86400 seconds, unsigned; 0 finds everything"},
    kSameVolume};
constexpr FeedbackDescription kSearchFeedback[] = {kBatch, kLastBatch};

constexpr ArgumentDescription kNameArguments[] = {
    {'S', "folder", "whose direct contents are searched; links are followed"},
    {'S', "prefix", "how the name begins; empty for any"},
    {'S', "extension", "what follows the last dot of the name, without it; empty for any"},
    {'N', "folders", "true: folders are wanted, false: everything else"}};

constexpr ArgumentDescription kPatternArguments[] = {
    kFolder,
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
     "fewer than four arguments or an odd number of them, an empty folder, a same volume that is "
     "neither 0 nor 1, a rule of another form"},
    {ErrorOrigin::posix, 2, "nothing exists there, or nothing is in it"},
    kNoFolder};

constexpr ArgumentDescription kOrphanArguments[] = {kFolder, kSameVolume};

constexpr ArgumentDescription kSizeArguments[] = {kFolder};

constexpr ArgumentDescription kPropagationArguments[] = {
    {'S', "folder", "whose settings are taken, and which stays as it is; links are followed"},
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
    kNoFolder,
    {ErrorOrigin::posix, 22,
     "with the path (NSFilePath): owner or group would change of an object that has a set-ID bit "
     "or capabilities"},
    {ErrorOrigin::operation, 14, "the list of an object cannot be set or removed"},
    {ErrorOrigin::operation, 15, "the attributes of an object cannot be read"},
    {ErrorOrigin::operation, 16, "the owner of an object cannot be changed"},
    {ErrorOrigin::operation, 17, "the mode of an object cannot be changed"},
    {ErrorOrigin::posix, 0, "the settings of the folder cannot be read"}};

constexpr OperationDescription kTrees[] = {
    {10, "Finds the objects of a tree that have not been modified for long",
     "The fraction is 0.0 until the end.", kAgeArguments, kSearchFeedback, "", kFolderErrors,
     "S:/var/tmp N:30 N:true"},
    {11, "Finds objects in one folder by their names",
     "Does not descend. Links are followed to tell folders from other objects. The fraction is "
     "0.0 until the end.",
     kNameArguments, kSearchFeedback, "", kFolderErrors, "S:/etc S: S:conf N:false"},
    {12, "Finds the objects of a tree by their names", "The tree is walked twice: first to count.",
     kPatternArguments, kPatternFeedback, "", kPatternErrors, "S:/usr/share S:0 S:2 S:service"},
    {13, "Finds the objects of a tree whose owner is no known user",
     "A folder that is orphaned with everything in it is found as one object. The fraction is 0.0 "
     "until the end.",
     kOrphanArguments, kSearchFeedback, "", kFolderErrors, "S:/srv N:true"},
    {14,
     "Adds up the sizes of everything below a folder",
     "Logical sizes: a file with several names counts once for each of them, the folder itself "
     "does not count, what cannot be examined is left out.",
     kSizeArguments,
     {},
     "Size (number): bytes",
     kFolderErrors,
     "S:/srv"},
    {23, "Gives everything below a folder the settings of the folder",
     "Files keep their own execute bits, everything its own set-ID and sticky bits. The list of a "
     "symbolic link is given to its target. The first failure ends the walk; what was changed "
     "stays changed.",
     kPropagationArguments, kPropagationFeedback, "", kPropagationErrors, "S:/srv N:0 N:true N:14"},
};

}  // namespace

std::span<const OperationDescription> descriptionsOfTreeOperations() noexcept {
    return kTrees;
}

}  // namespace corvalen
