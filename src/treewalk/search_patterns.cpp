// SPDX-License-Identifier: MIT
// search-patterns: finds all objects below a directory whose name matches one of several rules.
// Walks twice: to count, for the fraction, and to match. Arguments: directory, stay on its file
// system ("0" or "1"), then pairs of a match type and a text that is not empty (all S).
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "fileops/file_object_info.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "treewalk/search.hpp"
#include "treewalk/split_walk.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen {

namespace {

/// Match types; the client sends them as "0", "1" and "2".
constexpr signed char kMatchWholeName = 0;
constexpr signed char kMatchNamePrefix = 1;
constexpr signed char kMatchNameExtension = 2;

/// A rule: a match type and a string. Compares bytes.
class QRLFileNameMatchDescriptor {
  public:
    [[nodiscard]] signed char matchType() const noexcept { return _matchType; }
    void setMatchType(signed char matchType) noexcept { _matchType = matchType; }
    [[nodiscard]] const std::string& matchString() const noexcept { return _matchString; }
    void setMatchString(std::string matchString) { _matchString = std::move(matchString); }

    /// `name` is one path component.
    [[nodiscard]] bool matchesName(std::string_view name) const noexcept;

  private:
    signed char _matchType = kMatchWholeName;
    std::string _matchString;
};

bool QRLFileNameMatchDescriptor::matchesName(std::string_view name) const noexcept {
    switch (_matchType) {
        case kMatchWholeName:
            return name == _matchString;
        case kMatchNamePrefix:
            return name.starts_with(_matchString);
        default:
            // ends_with() is cheap and rejects most names before pathExtension().
            return name.ends_with(_matchString) && pathExtension(name) == _matchString;
    }
}

using Rules = std::vector<QRLFileNameMatchDescriptor>;

constexpr std::size_t kFirstRuleIndex = 2;
constexpr std::size_t kSmallestArgumentCount = 4;
constexpr double kSetUpFraction = 0.01;

/// Returns the low byte of a text that is one UTF-16 unit, else std::nullopt. Kept: only this byte
/// of a match type counts, so U+0130 is "0".
std::optional<std::uint8_t> lowByteOfOnlyUnit(std::string_view text) {
    const auto byte = [text](std::size_t index) -> unsigned {
        return static_cast<unsigned char>(text[index]);
    };
    if (text.size() == 1) return static_cast<std::uint8_t>(byte(0));
    if (text.size() == 2 && (byte(0) & 0xE0U) == 0xC0)
        return static_cast<std::uint8_t>(byte(0) << 6U | (byte(1) & 0x3FU));
    if (text.size() == 3 && (byte(0) & 0xF0U) == 0xE0)
        return static_cast<std::uint8_t>(byte(1) << 6U | (byte(2) & 0x3FU));
    return std::nullopt;
}

bool readRule(const std::string& type, const std::string& matchString, Rules* rules) {
    const std::optional<std::uint8_t> unit = lowByteOfOnlyUnit(type);
    if (!unit || *unit < '0' || *unit > '0' + kMatchNameExtension) return false;
    if (matchString.empty()) return false;
    QRLFileNameMatchDescriptor rule;
    rule.setMatchType(static_cast<signed char>(*unit - '0'));
    rule.setMatchString(matchString);
    rules->push_back(std::move(rule));
    return true;
}

bool readRules(const Array& arguments, Rules* rules) {
    rules->reserve((arguments.size() - kFirstRuleIndex) / 2);
    for (std::size_t index = kFirstRuleIndex; index < arguments.size(); index += 2) {
        if (!readRule(stringArgument(arguments, index), stringArgument(arguments, index + 1),
                      rules))
            return false;
    }
    return true;
}

bool anyMatches(const Rules& rules, std::string_view name) noexcept {
    for (const QRLFileNameMatchDescriptor& rule : rules) {
        if (rule.matchesName(name)) return true;
    }
    return false;
}

}  // namespace

ErrorRef TreeWalkOperations::performOperationSearchPatternsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    if (arguments.size() < kSmallestArgumentCount || arguments.size() % 2 != 0)
        return makePosixError(EINVAL);
    Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(arguments);
    if (!folder) return folder.error();
    bool stayOnFileSystem = false;
    Rules rules;
    if (!getBool(&stayOnFileSystem, arguments[1].string()) || !readRules(arguments, &rules))
        return makePosixError(EINVAL);
    sendProgress(feedbackConnection, kSetUpFraction);

    Cancellation& cancellation = currentCancellation();
    const unsigned mask = fileObjectInfoStatxMask();
    const NameFilter filter = [&rules](std::string_view name) { return anyMatches(rules, name); };
    const std::optional<ObjectCount> total = countObjects(*folder, stayOnFileSystem, mask, filter);
    if (!total) return cancelledError(cancellation);
    if (total->objects == 0) return makePosixError(ENOENT);  // Kept: an empty directory is an error

    FindBatch batch(feedbackConnection);
    const auto sendFinds = [&](auto& walk) {
        walk.setBeforeWait([&batch] { batch.flush(); });
        while (const auto* object = walk.next()) {
            batch.add(object->path(), walk.attributes());
            batch.sendIfFull(static_cast<double>(object->index) /
                             static_cast<double>(total->objects));
        }
        return !walk.wasCancelled();
    };
    std::optional<SplitWalk> split;
    try {
        if (SplitWalk::suits(*total)) split.emplace(*folder, stayOnFileSystem, mask, filter);
    } catch (const std::system_error&) {
        // No thread can be started; WalkAhead can do without.
    }
    bool isWhole = false;
    if (split) {
        isWhole = sendFinds(*split);
    } else {
        WalkAhead walk(*std::move(folder), stayOnFileSystem, mask, filter);
        isWhole = sendFinds(walk);
    }
    if (!isWhole) return cancelledError(cancellation);
    batch.send(1.0);
    return nullptr;
}

}  // namespace corvalen
