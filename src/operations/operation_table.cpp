// SPDX-License-Identifier: MIT
#include <array>

#include "operations/privileged_operation_set_kvx.hpp"

namespace corvalen {
namespace {

constexpr std::uint64_t kAllow = 0;
constexpr std::uint64_t kDefaultRule = 1;
constexpr std::uint64_t kNoFeedback = 0;
constexpr std::uint64_t kProgress = 1;
constexpr std::uint64_t kLiveOutput = 256;
constexpr std::int64_t kAnyNumber = kVariableArgumentCount;

// Capabilities that an operation needs beyond user 0's rights as an owner of files.
using namespace capability;
constexpr CapabilitySet kNothing = 0;
/// Reads everything; gives no right to change anything.
constexpr CapabilitySet kSearch = kReadAnything;
/// Makes and removes entries in any directory, also a sticky one.
constexpr CapabilitySet kEdit = kReadAnything | kChangeAnything | kActAsOwner;
/// Same for objects with protection flags.
constexpr CapabilitySet kEditProtected = kEdit | kUnlock;
constexpr CapabilitySet kSetOwner = kGiveAway | kKeepSpecialBits;
/// Copies every attribute to a new object, trusted.* and file capabilities too (xattr(7)).
constexpr CapabilitySet kReplace = kEditProtected | kSetOwner | kAdminister | kSetFilePrivileges;
/// Writes a store and keeps its owner and mode.
constexpr CapabilitySet kWriteStore = kSetOwner | kActAsOwner;
constexpr CapabilitySet kSetDriveTimer = kAdminister | kCommandDrives;
/// Kernel variables have permission checks of their own, by subject.
constexpr CapabilitySet kSetKernelVariable =
    kAdminister | kConfigureNetwork | kCommandDrives | kSetLimits;

// Codes, identifiers and prompts are a contract with the client. The prompts are also keys of its
// translations: do not reword them.
constexpr std::array kTable = {
    StaticOperationDescription{
        kNopCode, "nop", kAllow, kNoFeedback, 0, nullptr,
        "Corvalen System likes to perform an empty operation to contact its privileged component.",
        kNothing},
    StaticOperationDescription{kDiscardAuthCode, "discard-auth", kAllow, kNoFeedback, 0, nullptr,
                               "Corvalen System likes to enforce that future privileged commands "
                               "require new authorization.",
                               kNothing},
    StaticOperationDescription{
        kDeleteFilesCode, "delete-files", kDefaultRule, kNoFeedback, kAnyNumber, nullptr,
        "Corvalen System likes to delete files of the privileged auxiliary program.",
        kEditProtected},
    StaticOperationDescription{
        kPrepareUninstallCode, "prepare-uninstall", kDefaultRule, kNoFeedback, 0, nullptr,
        "Corvalen System likes to prepare the privileged auxiliary program for removal.", kNothing},
    StaticOperationDescription{
        0, "modify-systemfile", kDefaultRule, kNoFeedback, 3, "SDN",
        "Corvalen System likes to modify a file owned by the operating system.", kReplace},
    StaticOperationDescription{
        1, "create-fileobject", kDefaultRule, kNoFeedback, 2, "SS",
        "Corvalen System likes to create a file system object in a possibly protected folder.",
        kEdit | kSetOwner},
    StaticOperationDescription{
        2, "rename-fileobject", kDefaultRule, kNoFeedback, 2, "SS",
        "Corvalen System likes to rename a file system object in a possibly protected folder.",
        kReplace | kMakeDevices},
    StaticOperationDescription{3, "delete-fileobjects", kDefaultRule, kProgress, kAnyNumber,
                               nullptr,
                               "Corvalen System likes to delete file system objects independent of "
                               "their permission settings.",
                               kEditProtected},
    StaticOperationDescription{
        4, "delete-foldercontents", kDefaultRule, kProgress, kAnyNumber, nullptr,
        "Corvalen System likes to delete the contents of one or more folders.", kEditProtected},
    StaticOperationDescription{
        5, "inspect-fileobject", kDefaultRule, kNoFeedback, 1, "S",
        "Corvalen System likes to check whether a file is present in a possibly protected folder.",
        kSearch},
    StaticOperationDescription{6, "touch-fileobject", kDefaultRule, kNoFeedback, 1, "S",
                               "Corvalen System likes to set the modification time of a file in a "
                               "possibly protected folder.",
                               kEdit},
    StaticOperationDescription{
        7, "modify-protection", kDefaultRule, kNoFeedback, 4, "SNNN",
        "Corvalen System likes to modify the protection setting of a file system object.",
        kEditProtected | kSetOwner},
    StaticOperationDescription{
        8, "modify-hfsattr", kDefaultRule, kNoFeedback, 4, "SNNN",
        "Corvalen System likes to modify the classic HFS attributes of a file system object.",
        kEditProtected},
    StaticOperationDescription{
        9, "create-link", kDefaultRule, kNoFeedback, 3, "SSN",
        "Corvalen System likes to create a file system link in a possibly protected folder.",
        kEdit},
    StaticOperationDescription{10, "search-agedfiles", kDefaultRule, kProgress, 3, "SNN",
                               "Corvalen System likes to search for files of a certain age in a "
                               "possibly protected folder.",
                               kSearch},
    StaticOperationDescription{11, "search-filenames", kDefaultRule, kProgress, 4, "SSSN",
                               "Corvalen System likes to search for files with a name pattern in a "
                               "possible protected folder.",
                               kSearch},
    StaticOperationDescription{
        12, "search-patterns", kDefaultRule, kProgress, kAnyNumber, nullptr,
        "Corvalen System likes to search for files that match certain name patterns.", kSearch},
    StaticOperationDescription{
        13, "search-fileorphans", kDefaultRule, kProgress, 2, "SN",
        "Corvalen System likes to search for file system objects which have unknown owners.",
        kSearch},
    StaticOperationDescription{14, "inspect-storagesize", kDefaultRule, kNoFeedback, 1, "S",
                               "Corvalen System likes to determine the storage size of a hierarchy "
                               "of possible protected folders.",
                               kSearch},
    StaticOperationDescription{15, "modify-powersetting", kDefaultRule, kNoFeedback, 2, "SN",
                               "Corvalen System likes to change a power management setting.",
                               kWriteStore | kSetDriveTimer},
    StaticOperationDescription{
        16, "modify-diskspindown", kDefaultRule, kNoFeedback, 1, "N",
        "Corvalen System likes to change the sleep mode setting for disk drives.",
        kWriteStore | kSetDriveTimer},
    StaticOperationDescription{
        17, "modify-kernelsetting", kDefaultRule, kNoFeedback, 2, "SN",
        "Corvalen System likes to change a setting in the running operating system kernel.",
        kSetKernelVariable},
    StaticOperationDescription{18, "modify-nvram", kDefaultRule, kNoFeedback, 2, "SS",
                               "Corvalen System likes to change a setting in non-volatile memory.",
                               kUnlock},
    StaticOperationDescription{19, "modify-preferences", kDefaultRule, kNoFeedback, 5, "SSSSS",
                               "Corvalen System likes to change a preference value affecting a "
                               "different user or all users.",
                               kWriteStore | kBecomeUser},
    StaticOperationDescription{20, "modify-sysconf", kDefaultRule, kNoFeedback, 4, "SSSS",
                               "Corvalen System likes to change a system configuration setting.",
                               kWriteStore},
    StaticOperationDescription{21, "terminate-process", kDefaultRule, kNoFeedback, 1, "N",
                               "Corvalen System likes to quit a running process.", kEndProcesses},
    StaticOperationDescription{
        22, "modify-acl", kDefaultRule, kNoFeedback, 2, "SD",
        "Corvalen System likes to change the Access Control List for a file system object.",
        kEditProtected | kAdminister},
    StaticOperationDescription{23, "prop-permissions", kDefaultRule, kProgress, 4, "SNNN",
                               "Corvalen System likes to propagate permission settings for a "
                               "hierarchy of files and folders.",
                               kEditProtected | kSetOwner | kAdminister},
    StaticOperationDescription{
        24, "execute-utility", kDefaultRule, kLiveOutput, kAnyNumber, nullptr,
        "Corvalen System likes to run a utility program of the operating system.", kNothing},
    StaticOperationDescription{kEndOfTableCode, nullptr, 0, 0, 0, nullptr, nullptr},
};

}  // namespace

std::span<const StaticOperationDescription> operationTable() noexcept {
    return std::span(kTable).first(kTable.size() - 1);
}

}  // namespace corvalen
