// SPDX-License-Identifier: MIT
#include "treewalk/directory_enumerator.hpp"

#include <fcntl.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/log/logs.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kVolumeTree = "/.vol";

}  // namespace

DescentRules::DescentRules(Descriptor base, std::string_view path, bool stayOnFileSystem)
    : _insideVolumeTree(path.starts_with(kVolumeTree)), _baseIsRoot(path == "/") {
    if (!stayOnFileSystem || !examineOpen(base, STATX_MNT_ID, &_base)) return;
    _staysOnFileSystem = true;
    _fileSystem = deviceOf(_base);
}

void DescentRules::setFileSystem(std::optional<std::uint64_t> device) noexcept {
    _staysOnFileSystem = device.has_value();
    _fileSystem = device.value_or(0);
}

bool DescentRules::admitDirectory(TreeWalk& walk) const {
    if (!_staysOnFileSystem) {
        // Only a walk from "/" meets /.vol, at its first level.
        return !_insideVolumeTree && !(_baseIsRoot && walk.depth() == 1 &&
                                       walk.entry().name.starts_with(kVolumeTree.substr(1)));
    }
    // A bind mount has the same device but another mount ID.
    const struct statx* known = walk.attributes();
    return known != nullptr && (known->stx_mode & S_IFDIR) != 0 &&
           deviceOf(*known) == _fileSystem && isSameMount(*known, _base);
}

bool DescentRules::exceedsPathLength(const TreeWalk& walk) noexcept {
    return walk.entry().name.size() + walk.parentPathLength() + 1 > kMaximumRelativePathLength;
}

bool DescentRules::exceedsDepth(const TreeWalk& walk) noexcept {
    return walk.depth() >= kMaximumOpenLevels;
}

std::size_t DescentRules::addedLength(const TreeWalk& walk) noexcept {
    return walk.pathLength() - walk.parentPathLength();
}

bool DescentRules::hasCutName(const TreeWalk& walk) noexcept {
    return addedLength(walk) >= kAddedLengths;
}

bool DescentRules::isSpecial(const TreeWalk& walk) noexcept {
    return exceedsPathLength(walk) || exceedsDepth(walk) || hasCutName(walk);
}

namespace {

constexpr std::string_view kClassName = "QRLDirectoryEnumerator";

void logMessage(std::string_view message) {
    std::string line(kClassName);
    line.append(": ").append(message).append("\n");
    consoleLog(line);
}

void logOnce(bool* logged, std::string_view message) {
    if (!std::exchange(*logged, true)) logMessage(message);
}

TreeWalkOptions optionsFor(Cancellation& cancellation, std::byte* buffer = nullptr) noexcept {
    return {.unlisted = TreeWalkOptions::Faults::pass,
            .moved = TreeWalkOptions::Faults::pass,
            .quickSteps = TreeWalkOptions::kQuickSteps,
            .buffer = buffer,
            .cancellation = &cancellation};
}

/// Maximum length of a path below a base.
std::size_t longestPathBelow(std::string_view base) noexcept {
    return base.size() + kMaximumRelativePathLength + TreeWalk::kLongestName + 3;
}

}  // namespace

std::unique_ptr<QRLDirectoryEnumerator> QRLDirectoryEnumerator::enumeratorAtPath(
    std::string_view path, bool stayOnFileSystem) {
    if (path.empty()) return nullptr;
    const std::string base(path);
    struct stat attributes {};
    if (base.find('\0') != std::string::npos || ::stat(base.c_str(), &attributes) != 0 ||
        !S_ISDIR(attributes.st_mode)) {
        logMessage("attempt to initialize with invalid path '" + base + "'");
        return nullptr;
    }
    UniqueFd folder(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    auto enumerator =
        std::make_unique<QRLDirectoryEnumerator>(std::move(folder), base, stayOnFileSystem);
    // The device of the path itself, even of a symlink.
    if (stayOnFileSystem && ::lstat(base.c_str(), &attributes) == 0)
        enumerator->_rules.setFileSystem(attributes.st_dev);
    else
        enumerator->_rules.setFileSystem(std::nullopt);
    return enumerator;
}

QRLDirectoryEnumerator::QRLDirectoryEnumerator(UniqueFd base, std::string_view path,
                                               bool stayOnFileSystem, Cancellation& cancellation)
    : TreeWalk(std::move(base), optionsFor(cancellation), path),
      _longestPath(longestPathBelow(path)),
      _rules(descriptorOf(parentDirectory()), path, stayOnFileSystem) {}

QRLDirectoryEnumerator::QRLDirectoryEnumerator(WalkRest rest, const DescentRules& rules,
                                               Cancellation& cancellation, std::byte* buffer)
    : TreeWalk(std::move(rest), optionsFor(cancellation, buffer)),
      _longestPath(longestPathBelow(path())),
      _rules(rules),
      _loggedPathLimit(true),
      _loggedDepthLimit(true),
      _repetitionsLeft(std::numeric_limits<std::int64_t>::min() / 2) {}

std::optional<std::string> QRLDirectoryEnumerator::nextObject() {
    if (next() == nullptr) return std::nullopt;
    return std::string(currentRelativePathForDirectoryEntry());
}

std::vector<std::string> QRLDirectoryEnumerator::allObjects() {
    std::vector<std::string> objects;
    while (auto object = nextObject())
        objects.push_back(std::move(*object));
    return objects;
}

const WalkEntry* QRLDirectoryEnumerator::next() {
    if (TreeWalk::next() != Step::object) return nullptr;
    countRepetitions();
    if (_rules.admit(*this)) pushDirectoryEntry();
    return &entry();
}

bool QRLDirectoryEnumerator::withinLimits() {
    if (DescentRules::exceedsPathLength(*this)) {
        logOnce(&_loggedPathLimit, "maximum path length reached. Skipping...");
        return false;
    }
    if (DescentRules::exceedsDepth(*this) || (DescentRules::hasCutName(*this) && !mayRepeat())) {
        logOnce(&_loggedDepthLimit, "maximum number of nested directories reached. Skipping...");
        return false;
    }
    return true;
}

/// A cut name leads to objects that the walk reads anyway. Repetitions do not nest and are limited
/// in proportion to the other objects: else a few such names would cost 500 levels of them.
bool QRLDirectoryEnumerator::mayRepeat() const noexcept {
    return _repeatedFrom == 0 && _repetitionsLeft > 0;
}

void QRLDirectoryEnumerator::countRepetitions() noexcept {
    if (depth() < _repeatedFrom) _repeatedFrom = 0;
    _repetitionsLeft += _repeatedFrom != 0 ? -1 : 1;
}

void QRLDirectoryEnumerator::pushDirectoryEntry() {
    if (entry().name.empty() || !withinLimits()) return;
    if (DescentRules::hasCutName(*this)) {
        enterCutName();
    } else if (entry().type == EntryType::directory) {
        (void)enter();
    }
}

/// Opens the directory that the entry's name leads to when cut modulo 256; the directory being
/// read if nothing is left of the name.
void QRLDirectoryEnumerator::enterCutName() {
    const std::size_t whole = DescentRules::addedLength(*this);
    const std::size_t separator = whole - entry().name.size();
    const std::size_t added = whole % DescentRules::kAddedLengths;
    std::string counted(entry().name, 0, added - std::min(added, separator));
    if (counted.empty()) counted = ".";
    Result<UniqueFd> directory = openDirectoryAt(address().parent, counted.c_str());
    if (!directory) return;
    pushInstead(*std::move(directory), added);
    _repeatedFrom = depth();
}

}  // namespace corvalen
