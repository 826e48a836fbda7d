// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/polkit_rules.hpp"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>

#include "platform/linux/authorization/definitions_file.hpp"
#include "platform/processes/thread_capabilities.hpp"

namespace corvalen {
namespace {

constexpr const char* kFolders[] = {"/etc/polkit-1/rules.d", "/run/polkit-1/rules.d",
                                    "/usr/local/share/polkit-1/rules.d",
                                    "/usr/share/polkit-1/rules.d"};

/// How rules can read details without their names: the member that holds them, and the text with
/// all.
constexpr std::string_view kWaysAround[] = {"_detail", "toString"};

bool contains(std::string_view text, std::string_view part) noexcept {
    return text.find(part) != std::string_view::npos;
}

bool mayLookAt(std::string_view rules, const PurposeDetails& details) {
    return std::any_of(std::begin(kWaysAround), std::end(kWaysAround),
                       [&](std::string_view way) { return contains(rules, way); }) ||
           std::any_of(details.begin(), details.end(), [&](const auto& detail) {
               return contains(rules, '"' + detail.first + '"') ||
                      contains(rules, '\'' + detail.first + '\'') ||
                      contains(rules, '`' + detail.first + '`');
           });
}

bool mayLookAt(const std::filesystem::path& file, const PurposeDetails& details) {
    if (file.extension() != ".rules") return false;
    const auto read = readDefinitionsFile(kWorkingDirectory, file.c_str());
    return read ? mayLookAt(std::string_view(read->text), details) : !failedWith(read, ENOENT);
}

bool anyMayLookAt(const char* folder, const PurposeDetails& details) {
    std::error_code failure;
    std::filesystem::directory_iterator file(folder, failure);
    for (; !failure && file != std::filesystem::directory_iterator(); file.increment(failure))
        if (mayLookAt(file->path(), details)) return true;
    return failure && failure != std::errc::no_such_file_or_directory;
}

}  // namespace

bool mayPolkitRulesLookAt(const PurposeDetails& details) {
    // On some systems the directories belong to polkit's user and are closed to others.
    const ScopedCapabilities reading(capability::kReadAnything);
    return std::any_of(std::begin(kFolders), std::end(kFolders),
                       [&](const char* folder) { return anyMayLookAt(folder, details); });
}

}  // namespace corvalen
