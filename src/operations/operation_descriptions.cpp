// SPDX-License-Identifier: MIT
// Descriptions of the operations on settings, processes and the daemon itself, and the whole list.
#include "operations/operation_descriptions.hpp"

#include <vector>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {
namespace {

using namespace description;

constexpr ArgumentDescription kDeletedFiles[] = {
    {'S', "path", "the object; a folder must be empty or follow its contents", true}};
constexpr ErrorDescription kDeleteFilesErrors[] = {
    kEmptyPath,
    kNothingThere,
    kCallFailed,
    {ErrorOrigin::posix, 5,
     "it is a whiteout, a system protection flag is set, or the flags cannot be cleared"}};

constexpr OperationDescription kMaintenance[] = {
    {kNopCode,
     "Performs an empty operation",
     "Shows that the helper answers and that the right is held.",
     {},
     {},
     "",
     {},
     ""},
    {kDiscardAuthCode,
     "Forgets what was authorized",
     "Forgets every grant of this authorization; the next operation needs a new one.",
     {},
     {},
     "",
     {},
     ""},
    {kDeleteFilesCode,
     "Deletes files of the helper",
     "Follows no link, clears user protection flags, and removes only empty folders. Continues "
     "after a failure; the error is that of the last path that failed.",
     kDeletedFiles,
     {},
     "",
     kDeleteFilesErrors,
     "S:/srv/old"},
    {kPrepareUninstallCode,
     "Removes the rights of the helper",
     "Removes the definitions of all rights from the machine's authority, except those that were "
     "installed with the helper. Succeeds even if a right cannot be removed.",
     {},
     {},
     "",
     {},
     ""},
};

constexpr ErrorDescription kSpinDownErrors[] = {
    {ErrorOrigin::operation, 9, "the settings cannot be read"},
    {ErrorOrigin::operation, 10, "storing fails"}};
constexpr ErrorDescription kPowerSettingErrors[] = {
    {ErrorOrigin::posix, 22, "the name is empty"},
    kSpinDownErrors[0],
    {ErrorOrigin::operation, 10, "a power source does not have the setting, or storing fails"}};

constexpr ArgumentDescription kPowerArguments[] = {
    {'S', "name", "the setting, which the power source must have, such as Disk Sleep Timer"},
    {'N', "value", "its value, for battery and mains; not checked"}};
constexpr ArgumentDescription kSpinDownArguments[] = {
    {'N', "minutes", "idle minutes after which disks rest; 0 for never"}};

constexpr ArgumentDescription kKernelArguments[] = {
    {'S', "name", "the variable, its parts separated by dots"},
    {'N', "value", "a signed 64-bit number"}};
constexpr ErrorDescription kKernelErrors[] = {
    {ErrorOrigin::posix, 22, "the name is empty, or the kernel does not take the value"},
    {ErrorOrigin::posix, 2, "there is no such variable"},
    kCallFailed};

constexpr ArgumentDescription kNvramArguments[] = {
    {'S', "name", "the variable: Name-GUID, or a name without GUID for one of the helper's own"},
    {'S', "value",
     "read as the kind that the variable has: true or false, a decimal number (0 for other texts), "
     "a text, or bytes as %01%FF. For a new one: bytes when it has that form, else a text"}};
constexpr ErrorDescription kNvramErrors[] = {
    {ErrorOrigin::posix, 22, "the name is empty, or the value does not fit the variable's kind"},
    {ErrorOrigin::operation, 11, "the variable cannot be written"}};

constexpr std::string_view kPropertyListText =
    "the text of a property list, XML or the old form; empty: the key is removed";
constexpr ErrorDescription kPropertyListErrors[] = {
    {ErrorOrigin::posix, 22,
     "an argument that is needed is empty; or the value is no property list, then with the "
     "parser's error underneath"}};

constexpr ArgumentDescription kPreferenceArguments[] = {
    {'S', "key", "not empty"},
    {'S', "domain", "the application, or NSGlobalDomain for all; not empty"},
    {'S', "user", "a user's name, kCFPreferencesAnyUser or kCFPreferencesCurrentUser (root)"},
    {'S', "host", "a host's name, kCFPreferencesAnyHost or kCFPreferencesCurrentHost"},
    {'S', "value", kPropertyListText}};
constexpr ErrorDescription kPreferenceErrors[] = {
    kPropertyListErrors[0], {ErrorOrigin::operation, 12, "the store cannot be written"}};

constexpr ArgumentDescription kSysconfArguments[] = {
    {'S', "session", "the name of the caller; not empty"},
    {'S', "file", "which configuration file; empty for the default one"},
    {'S', "key", "not empty"},
    {'S', "value", kPropertyListText}};
constexpr ErrorDescription kSysconfErrors[] = {
    kPropertyListErrors[0],
    {ErrorOrigin::posix, 16, "the configuration cannot be locked"},
    {ErrorOrigin::operation, 13, "it cannot be opened, changed, applied or stored"}};

constexpr ArgumentDescription kProcessArguments[] = {
    {'N', "process", "its number; the low 32 bits count, as a signed number from 1 on"}};
constexpr ErrorDescription kProcessErrors[] = {
    {ErrorOrigin::posix, 22, "the number is 0 or negative"},
    {ErrorOrigin::posix, 3, "there is no such process"},
    kCallFailed};

constexpr ArgumentDescription kUtilityArguments[] = {
    {'S', "application",
     "the bundle of the application, not empty; lipo is taken from it, nothing else"},
    {'S', "utility", "its name without a path; corvalenctl execute-utility --help lists them"},
    {'S', "argument", "passed to the utility unchanged", true}};
constexpr FeedbackDescription kUtilityFeedback[] = {
    {"OutputData", "data: a piece of the utility's standard output, perhaps empty"},
    {"ErrorData", "data: a piece of its standard error, perhaps empty"}};
constexpr ErrorDescription kUtilityErrors[] = {
    {ErrorOrigin::posix, 22,
     "fewer than two arguments, an empty one of the first two, one with a zero byte, an unknown "
     "utility, no such bundle"},
    {ErrorOrigin::operation, 1, "the utility does not exist on this machine"},
    {ErrorOrigin::operation, 2,
     "a user other than root can change the utility or its folder; lipo is not checked"},
    {ErrorOrigin::operation, 3,
     "the utility ended with a status other than 0, which the suggestion names"}};

constexpr OperationDescription kSettings[] = {
    {15,
     "Changes a power setting for battery and mains",
     "Selects the custom profile of each power source that the machine has.",
     kPowerArguments,
     {},
     "",
     kPowerSettingErrors,
     "'S:Disk Sleep Timer' N:10"},
    {16,
     "Sets after how many idle minutes disks rest",
     "For the power source that supplies the machine now, whose custom profile is selected.",
     kSpinDownArguments,
     {},
     "",
     kSpinDownErrors,
     "N:10"},
    {17,
     "Sets a variable of the running kernel",
     "",
     kKernelArguments,
     {},
     "",
     kKernelErrors,
     "S:vm.swappiness N:60"},
    {18,
     "Sets a firmware variable",
     "Succeeds without effect on a machine without firmware variables.",
     kNvramArguments,
     {},
     "",
     kNvramErrors,
     "S:boot-note S:hello"},
    {19,
     "Sets or removes a preference",
     "",
     kPreferenceArguments,
     {},
     "",
     kPreferenceErrors,
     "S:Colour S:org.example.editor S:kCFPreferencesAnyUser S:kCFPreferencesAnyHost S:blue"},
    {20,
     "Sets or removes a value of the system configuration",
     "Applied to the running system first, then stored. Waits while another session has it "
     "locked.",
     kSysconfArguments,
     {},
     "",
     kSysconfErrors,
     "S:setup S: S:ComputerName S:mill",
     2},
    {21,
     "Sends a process SIGTERM",
     "The process may take time to end, or ignore it.",
     kProcessArguments,
     {},
     "",
     kProcessErrors,
     "N:4711"},
    {24, "Runs a utility of the operating system as root",
     "One utility runs at a time; its standard input is empty.", kUtilityArguments,
     kUtilityFeedback, "", kUtilityErrors, "S:/ S:chmod S:0644 S:/srv/file", 1},
};

#define OPERATION(code, identifier, group, ...)                                                \
    static_assert(                                                                             \
        kWorksOnObjects<group> || describes(kMaintenance, code) || describes(kSettings, code), \
        identifier " has no description");
#include "operations/operation_rows.def"
#undef OPERATION

std::vector<OperationDescription> inOrderOfTable() {
    using Part = std::span<const OperationDescription>;
    std::vector<OperationDescription> ordered;
    for (const StaticOperationDescription& row : operationTable())
        for (const Part part :
             {Part(kMaintenance), descriptionsOfObjectOperations(), Part(kSettings)})
            for (const OperationDescription& description : part)
                if (description.code == row.code) ordered.push_back(description);
    return ordered;
}

}  // namespace

std::span<const OperationDescription> operationDescriptions() {
    static const std::vector<OperationDescription> descriptions = inOrderOfTable();
    return descriptions;
}

const OperationDescription* descriptionOfOperation(OperationCode code) {
    for (const OperationDescription& description : operationDescriptions())
        if (description.code == code) return &description;
    return nullptr;
}

}  // namespace corvalen
