// SPDX-License-Identifier: MIT
// Descriptions of the operations on settings, processes and the daemon itself, and the whole list.
#include "operations/operation_descriptions.hpp"

#include <vector>

#include "operations/operation_description_parts.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen {
namespace {

using namespace description;

constexpr ArgumentDescription kDeletedFiles[] = {
    {'S', "path", "a file of the helper, or a folder after what was in it", true}};
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
     "Whatever was granted to this authorization is forgotten; the next operation asks again.",
     {},
     {},
     "",
     {},
     ""},
    {kDeleteFilesCode,
     "Deletes files of the helper",
     "Links are not followed, folders must be empty, user protection flags are cleared. After a "
     "failure the next path is tried; the error is that of the last path that failed.",
     kDeletedFiles,
     {},
     "",
     kDeleteFilesErrors,
     "S:/srv/old"},
    {kPrepareUninstallCode,
     "Lets the helper remove its rights",
     "The definitions of all rights are removed from the machine's authority, except those that "
     "were installed with the helper. A right that cannot be removed is no failure.",
     {},
     {},
     "",
     {},
     ""},
};

constexpr ErrorDescription kPowerErrors[] = {
    {ErrorOrigin::operation, 9, "the settings cannot be read"},
    {ErrorOrigin::operation, 10, "a power source does not have the setting, or storing fails"}};
constexpr ErrorDescription kPowerSettingErrors[] = {
    {ErrorOrigin::posix, 22, "the name is empty"}, kPowerErrors[0], kPowerErrors[1]};

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
     "read as the kind that the variable has: true or false, a decimal number, a text, or bytes as "
     "%01%FF. For a new one: bytes when it has that form, else a text"}};
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
    {'S', "session", "a name for the one who asks; not empty"},
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
    {'S', "argument", "handed to the utility", true}};
constexpr FeedbackDescription kUtilityFeedback[] = {
    {"OutputData", "data: a piece of the utility's standard output, perhaps empty"},
    {"ErrorData", "data: a piece of its standard error, perhaps empty"}};
constexpr ErrorDescription kUtilityErrors[] = {
    {ErrorOrigin::posix, 22,
     "fewer than two arguments, an empty one of the first two, one with a zero byte, an unknown "
     "utility, no such bundle"},
    {ErrorOrigin::operation, 1, "this machine does not have the utility"},
    {ErrorOrigin::operation, 2, "others than root may change the utility or its folder"},
    {ErrorOrigin::operation, 3, "the utility ended with another status than 0, which is told"}};

constexpr OperationDescription kSettings[] = {
    {15,
     "Changes a power setting for battery and mains",
     "Selects the custom profile of each power source that the machine has.",
     kPowerArguments,
     {},
     "",
     kPowerSettingErrors,
     "S:SleepOnPowerButton N:1"},
    {16,
     "Sets after how many idle minutes disks rest",
     "For the power source that supplies the machine now, whose custom profile is selected.",
     kSpinDownArguments,
     {},
     "",
     kPowerErrors,
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
     "On a machine without firmware variables nothing happens, and that is a success.",
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
     "Asks a process to end",
     "It is sent the signal SIGTERM, and may need time.",
     kProcessArguments,
     {},
     "",
     kProcessErrors,
     "N:4711"},
    {24, "Runs a utility of the operating system as root",
     "One utility runs at a time; its standard input is empty.", kUtilityArguments,
     kUtilityFeedback, "", kUtilityErrors, "S:/ S:chmod S:0644 S:/srv/file", 1},
};

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
