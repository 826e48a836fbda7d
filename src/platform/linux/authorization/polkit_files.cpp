// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/polkit.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>

#include "foundation/encoding.hpp"
#include "foundation/path.hpp"
#include "platform/files/atomic_file.hpp"
#include "platform/linux/authorization/definition_files.hpp"
#include "platform/processes/threads.hpp"

namespace corvalen {
namespace {

constexpr unsigned kPolicyFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

constexpr std::string_view kPolicyFormat =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE policyconfig PUBLIC "-//freedesktop//DTD PolicyKit Policy Configuration 1.0//EN"
 "http://www.freedesktop.org/software/polkit/policyconfig-1.dtd">
<policyconfig>
  <action id="{name}">
    <description gettext-domain="{table}">{prompt}</description>
    <message gettext-domain="{table}">{prompt}</message>
    <defaults>
      <allow_any>{who}</allow_any>
      <allow_inactive>{who}</allow_inactive>
      <allow_active>{who}</allow_active>
    </defaults>
  </action>
</policyconfig>
)";

constexpr std::string_view kInstalledMark =
    "  <!-- Installed with the helper: whoever installed it removes it. -->\n";

/// Returns the text with question marks for characters that XML cannot carry.
std::string cleanedForXml(std::string_view text) {
    std::string cleaned;
    for (std::size_t offset = 0; offset < text.size();) {
        const auto character = utf8CharacterAt(text, offset);
        const bool isControl = character.codePoint < U' ' || character.codePoint == U'\x7f';
        if (character.length == 0 || isControl) {
            cleaned.push_back('?');
            ++offset;
        } else {
            cleaned.append(text.substr(offset, character.length));
            offset += character.length;
        }
    }
    return cleaned;
}

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (auto at = text.find(what); at != std::string::npos;
         at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

std::string xmlAttribute(std::string_view text) {
    auto escaped = cleanedForXml(text);
    replaceAll(escaped, "&", "&amp;");
    replaceAll(escaped, "<", "&lt;");
    replaceAll(escaped, "\"", "&quot;");
    return escaped;
}

/// Uses one CDATA section: polkit keeps only the text after the last entity.
std::string xmlText(std::string_view text) {
    auto cleaned = cleanedForXml(text);
    replaceAll(cleaned, "]]>", "]] >");
    return "<![CDATA[" + cleaned + "]]>";
}

std::string fileNameOf(std::string_view rightName) {
    return appendPathExtension(rightName, "policy");
}

}  // namespace

std::string polkitPolicyText(std::string_view rightName, RightPolicy policy,
                             std::string_view prompt, std::string_view localizationTable) {
    return fmt::format(kPolicyFormat, fmt::arg("name", xmlAttribute(rightName)),
                       fmt::arg("table", xmlAttribute(localizationTable)),
                       fmt::arg("prompt", xmlText(prompt)),
                       fmt::arg("who", policy == RightPolicy::allow ? "yes" : "auth_admin"));
}

std::string installedPolkitPolicyText(std::string policyText) {
    constexpr std::string_view kFirstLine = "<policyconfig>\n";
    return policyText.insert(policyText.find(kFirstLine) + kFirstLine.size(), kInstalledMark);
}

AuthorizationStatus PolkitPolicyFiles::get(std::string_view rightName) const {
    struct stat attributes {};
    const auto path = appendPathComponent(_folder, fileNameOf(rightName));
    if (::fstatat(AT_FDCWD, path.c_str(), &attributes, AT_SYMLINK_NOFOLLOW) == 0) {
        return kAuthorizationSuccess;
    }
    return errno == ENOENT ? kAuthorizationDenied : kAuthorizationInternal;
}

bool PolkitPolicyFiles::set(std::string_view rightName, RightPolicy policy, std::string_view prompt,
                            std::string_view localizationTable) const {
    const auto folder = openLockedFolder(_folder);
    return folder && replaceFile(*folder, fileNameOf(rightName),
                                 polkitPolicyText(rightName, policy, prompt, localizationTable),
                                 kPolicyFileMode);
}

bool PolkitPolicyFiles::remove(std::string_view rightName) const {
    const auto folder = openLockedFolder(_folder);
    if (!folder) return false;
    const std::string name = fileNameOf(rightName);
    const auto present = readDefinitionsFile(*folder, name.c_str());
    if (present && present->text.find(kInstalledMark) != std::string::npos) return false;
    const Result<> removed = removeDefinitionsFile(*folder, name);
    return removed || failedWith(removed, ENOENT);
}

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
