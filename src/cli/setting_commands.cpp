// SPDX-License-Identifier: MIT
// Commands for power, kernel, firmware, preferences and system configuration.
#include <pwd.h>
#include <unistd.h>

#include "cli/command_table.hpp"

namespace corvalen::cli {
namespace {

constexpr std::string_view kAnyUser = "kCFPreferencesAnyUser";
constexpr std::string_view kCurrentUser = "kCFPreferencesCurrentUser";

std::string required(const Arguments& arguments, std::string_view key) {
    std::string text = arguments.text(key);
    if (text.empty()) throw UsageError(std::string(key) + " is empty");
    return text;
}

/// Returns a text that becomes part of a file name. Throws UsageError for an empty one or a slash.
std::string fileNamePart(const Arguments& arguments, std::string_view key) {
    std::string text = required(arguments, key);
    if (text.find('/') != std::string::npos)
        throw UsageError(std::string(key) + ": '" + text + "' has a slash");
    return text;
}

/// Returns the text of a property list; empty for --remove.
std::string valueOrRemoval(const Arguments& arguments) {
    if (arguments.has("remove") == arguments.has("VALUE"))
        throw UsageError("give either a value or --remove");
    return arguments.has("remove") ? std::string() : required(arguments, "VALUE");
}

std::string nameOfCaller() {
    const passwd* entry = ::getpwuid(::getuid());
    if (entry == nullptr || entry->pw_name == nullptr)
        throw UsageError("your user has no name here; give --user");
    return entry->pw_name;
}

std::string preferenceUser(const Arguments& arguments) {
    if (arguments.has("any-user") && arguments.has("user"))
        throw UsageError("either --user or --any-user");
    if (arguments.has("any-user")) return std::string(kAnyUser);
    if (!arguments.has("user")) return nameOfCaller();
    std::string user = required(arguments, "user");
    const bool isDesignator = user == kAnyUser || user == kCurrentUser;
    if (!isDesignator && ::getpwnam(user.c_str()) == nullptr)
        throw UsageError("there is no user '" + user + "'");
    return user;
}

std::string preferenceHost(const Arguments& arguments) {
    if (arguments.has("current-host") && arguments.has("host"))
        throw UsageError("either --host or --current-host");
    if (arguments.has("current-host")) return "kCFPreferencesCurrentHost";
    return arguments.has("host") ? fileNamePart(arguments, "host") : "kCFPreferencesAnyHost";
}

Request modifyPowerSetting(const Arguments& arguments) {
    const std::string name = required(arguments, "NAME");
    return {{Value(name), Value(arguments.signedNumber("VALUE"))}, name};
}

Request modifyDiskSpinDown(const Arguments& arguments) {
    return {{Value(arguments.unsignedNumber("MINUTES"))}, {}};
}

Request modifyKernelSetting(const Arguments& arguments) {
    const std::string name = required(arguments, "NAME");
    return {{Value(name), Value(arguments.signedNumber("VALUE"))}, name};
}

Request modifyNvram(const Arguments& arguments) {
    const std::string name = required(arguments, "NAME");
    return {{Value(name), Value(arguments.text("VALUE"))}, name};
}

Request modifyPreferences(const Arguments& arguments) {
    const std::string key = required(arguments, "KEY");
    const std::string domain =
        arguments.has("domain") ? fileNamePart(arguments, "domain") : "NSGlobalDomain";
    return {{Value(key), Value(domain), Value(preferenceUser(arguments)),
             Value(preferenceHost(arguments)), Value(valueOrRemoval(arguments))},
            key};
}

Request modifySysconf(const Arguments& arguments) {
    const std::string key = required(arguments, "KEY");
    const std::string file = arguments.has("file") ? fileNamePart(arguments, "file") : "";
    const std::string session =
        arguments.has("session") ? required(arguments, "session") : "corvalenctl";
    return {{Value(session), Value(file), Value(key), Value(valueOrRemoval(arguments))}, key};
}

constexpr std::string_view kPropertyListDetails =
    "The value is the text of a property list: XML, or the old form, in which a word stands for\n"
    "itself, (a, b) is an array and {key = value;} a dictionary.";

constexpr Option kRemove = {"--remove", "", "remove the key"};
constexpr Option kPreferenceOptions[] = {
    {"--domain", "DOMAIN", "the application; all applications by default"},
    {"--user", "NAME", "the user whose preference it is; you by default", false, Completion::user},
    {"--any-user", "", "the preference of all users"},
    {"--host", "NAME", "for one host; for any host by default"},
    {"--current-host", "", "for this host"},
    kRemove,
};
constexpr Option kSysconfOptions[] = {
    {"--file", "ID", "the configuration file; preferences.plist by default"},
    {"--session", "NAME", "the name of the session; corvalenctl by default"},
    kRemove,
};
constexpr Positional kNumberSetting[] = {{"NAME", "the setting"}, {"VALUE", "a whole number"}};
constexpr Positional kMinutes[] = {{"MINUTES", "0 for never"}};
constexpr Positional kTextSetting[] = {{"NAME", "the variable"}, {"VALUE", "the value as text"}};
constexpr Positional kKeyAndValue[] = {{"KEY", "the key"},
                                       {"VALUE", "the text of a property list", 0, 1}};

const Command kSettingCommands[] = {
    {"modify-powersetting",
     "",
     "Only settings that the power source has can be changed.",
     {},
     kNumberSetting,
     modifyPowerSetting},
    {"modify-diskspindown",
     "",
     "Applies to the power source in use.",
     {},
     kMinutes,
     modifyDiskSpinDown},
    {"modify-kernelsetting",
     "",
     "The name is written with dots, as sysctl(8) does.",
     {},
     kNumberSetting,
     modifyKernelSetting},
    {"modify-nvram",
     "",
     "A variable keeps its kind. A new one gets bytes if VALUE has the form %01%FF, else a text.\n"
     "Succeeds without effect on a machine without firmware variables.",
     {},
     kTextSetting,
     modifyNvram},
    {"modify-preferences", "", kPropertyListDetails, kPreferenceOptions, kKeyAndValue,
     modifyPreferences},
    {"modify-sysconf", "", kPropertyListDetails, kSysconfOptions, kKeyAndValue, modifySysconf},
};

}  // namespace

std::span<const Command> settingCommands() {
    return kSettingCommands;
}

}  // namespace corvalen::cli
