// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/polkit.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

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

/// Unlocked: every change is one rename(2) or unlink(2), and anybody could hold a lock of a
/// directory that everybody may read.
Result<UniqueFd> openFolder(const std::string& path) {
    return openedBy(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
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
    const auto folder = openFolder(_folder);
    return folder && replaceFile(*folder, fileNameOf(rightName),
                                 polkitPolicyText(rightName, policy, prompt, localizationTable),
                                 kPolicyFileMode);
}

bool PolkitPolicyFiles::remove(std::string_view rightName) const {
    const auto folder = openFolder(_folder);
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

/// Reads JavaScript word by word.
class RuleReader {
  public:
    explicit RuleReader(std::string_view text) noexcept : _text(text) {}

    /// Skips to the next word, reads past it and returns it. Returns an empty one at the end.
    std::string_view nextWord() noexcept {
        while (!_text.empty() && !isOfWord(_text.front()))
            _text.remove_prefix(1);
        return takeWord();
    }
    /// Reads past the word at this place and returns it. Returns an empty one if none is here.
    std::string_view takeWord() noexcept {
        skipBlanks();
        const auto end = std::find_if_not(_text.begin(), _text.end(), isOfWord);
        return takePrefix(static_cast<std::size_t>(end - _text.begin()));
    }
    bool take(char wanted) noexcept {
        skipBlanks();
        if (!_text.starts_with(wanted)) return false;
        _text.remove_prefix(1);
        return true;
    }
    /// Reads past the quoted text at this place and returns it without its quotes. Returns
    /// std::nullopt if no quote is here.
    std::optional<std::string_view> takeLiteral() noexcept {
        skipBlanks();
        const std::size_t end = _text.empty() ? _text.npos : _text.find(_text.front(), 1);
        if (end == _text.npos || (_text.front() != '"' && _text.front() != '\''))
            return std::nullopt;
        return takePrefix(end + 1).substr(1, end - 1);
    }

  private:
    static bool isOfWord(char c) noexcept {
        return c == '_' || c == '$' || std::isalnum(static_cast<unsigned char>(c)) != 0;
    }
    void skipBlanks() noexcept {
        while (!_text.empty() && std::isspace(static_cast<unsigned char>(_text.front())) != 0)
            _text.remove_prefix(1);
    }
    std::string_view takePrefix(std::size_t size) noexcept {
        const std::string_view prefix = _text.substr(0, size);
        _text.remove_prefix(size);
        return prefix;
    }

    std::string_view _text;
};

/// Returns the first parameter of the function that is added as a rule here, empty if it has none;
/// std::nullopt if no function is written here.
std::optional<std::string_view> actionParameter(RuleReader& reader) {
    if (!reader.take('(') || reader.takeWord() != "function") return std::nullopt;
    (void)reader.takeWord();  // the function's own name
    if (!reader.take('(')) return std::nullopt;
    const std::string_view name = reader.takeWord();
    if (!reader.take(',') && !reader.take(')')) return std::nullopt;
    return name;
}

/// Whether an action is used here without its details: `.id`, or `.lookup("another detail")`.
bool leavesDetailsAlone(RuleReader reader, const PurposeDetails& details) {
    if (!reader.take('.')) return false;
    const std::string_view member = reader.takeWord();
    if (member == "id") return true;
    if (member != "lookup" || !reader.take('(')) return false;
    const auto name = reader.takeLiteral();
    return name && reader.take(')') &&
           std::none_of(details.begin(), details.end(),
                        [&](const auto& detail) { return detail.first == *name; });
}

/// JavaScript reaches the details in many ways, for example by making a text of the action. So
/// every use of an action must be one that is known to leave them alone.
bool mayLookAt(std::string_view rules, const PurposeDetails& details) {
    std::vector<std::string_view> actions;
    RuleReader words(rules);
    for (auto word = words.nextWord(); !word.empty(); word = words.nextWord()) {
        if (word == "arguments" || word == "eval") return true;
        if (word != "addRule" && word != "addAdminRule") continue;
        const auto action = actionParameter(words);
        if (!action) return true;
        if (!action->empty()) actions.push_back(*action);
    }
    RuleReader uses(rules);
    for (auto word = uses.nextWord(); !word.empty(); word = uses.nextWord()) {
        const bool isDeclared = std::any_of(actions.begin(), actions.end(), [&](const auto& each) {
            return each.data() == word.data();
        });
        const bool isAction = std::find(actions.begin(), actions.end(), word) != actions.end();
        if (isAction && !isDeclared && !leavesDetailsAlone(uses, details)) return true;
    }
    return false;
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
