// SPDX-License-Identifier: MIT
#include "treewalk/directory_enumerator.hpp"

#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "platform/system_log.hpp"

namespace corvalen {

namespace {

constexpr std::string_view kClassName = "QRLDirectoryEnumerator";
constexpr std::string_view kVolumeTree = "/.vol";

/// Kept: a level stores the length that its name adds to the path modulo 256.
constexpr std::size_t kAddedLengths = 256;

/// Buffered entries between two checks of the cancellation.
constexpr int kQuickSteps = 16;

void logMessage(std::string_view message) {
    std::string line(kClassName);
    line.append(": ").append(message).append("\n");
    consoleLog(line);
}

void logOnce(bool* logged, std::string_view message) {
    if (!std::exchange(*logged, true)) logMessage(message);
}

/// Kept: tests only the bit S_IFDIR, which block devices and sockets have too. The limits apply to
/// them; they cannot be entered.
bool hasDirectoryBit(EntryType type) noexcept {
    return type == EntryType::directory || type == EntryType::blockDevice ||
           type == EntryType::socket;
}

TreeWalkOptions optionsFor(Cancellation& cancellation) noexcept {
    return {.unlisted = TreeWalkOptions::Faults::pass,
            .moved = TreeWalkOptions::Faults::pass,
            .quickSteps = kQuickSteps,
            .cancellation = &cancellation};
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
    enumerator->_shouldStayOnFileSystem =
        stayOnFileSystem && ::lstat(base.c_str(), &attributes) == 0;
    enumerator->_baseFileSystemID = attributes.st_dev;
    return enumerator;
}

QRLDirectoryEnumerator::QRLDirectoryEnumerator(UniqueFd base, std::string_view path,
                                               bool stayOnFileSystem, Cancellation& cancellation)
    : TreeWalk(std::move(base), optionsFor(cancellation), path),
      _longestPath(path.size() + kMaximumRelativePathLength + kLongestName + 3),
      _insideVolumeTree(path.starts_with(kVolumeTree)),
      _baseIsRoot(path == "/") {
    if (stayOnFileSystem) {
        _shouldStayOnFileSystem =
            examineOpen(descriptorOf(parentDirectory()), STATX_MNT_ID, &_baseAttributes);
        _baseFileSystemID = deviceOf(_baseAttributes);
    }
}

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
    if (hasDirectoryBit(entry().type) && shouldDescend()) pushDirectoryEntry();
    return &entry();
}

bool QRLDirectoryEnumerator::shouldDescend() {
    if (!_shouldStayOnFileSystem) {
        // Enters no path that begins with "/.vol". Only bases inside and the root lead there.
        return !_insideVolumeTree &&
               !(_baseIsRoot && depth() == 1 && entry().name.starts_with(kVolumeTree.substr(1)));
    }
    // A bind mount has the device of its file system: only the mount differs.
    const struct statx* known = attributes();
    return known != nullptr && (known->stx_mode & S_IFDIR) != 0 &&
           deviceOf(*known) == _baseFileSystemID && isSameMount(*known, _baseAttributes);
}

bool QRLDirectoryEnumerator::withinLimits() {
    if (entry().name.size() + parentPathLength() + 1 > kMaximumRelativePathLength) {
        logOnce(&_loggedPathLimit, "maximum path length reached. Skipping...");
        return false;
    }
    if (depth() >= kMaximumOpenLevels || (hasCutName() && !mayRepeat())) {
        logOnce(&_loggedDepthLimit, "maximum number of nested directories reached. Skipping...");
        return false;
    }
    return true;
}

/// Bytes that the entry's name adds to its directory's path, separator included.
std::size_t QRLDirectoryEnumerator::addedLength() const noexcept {
    return entry().name.size() + (parentPathLength() > 0 ? 1 : 0);
}

/// Whether the level would store a smaller length.
bool QRLDirectoryEnumerator::hasCutName() const noexcept {
    return addedLength() >= kAddedLengths;
}

/// A cut name leads to objects that the walk reads anyway. Repetitions do not nest and are limited
/// in proportion to the other objects: else a few such names would cost 500 levels of them.
bool QRLDirectoryEnumerator::mayRepeat() const noexcept {
    return _repeatedFrom == 0 && _repetitionsLeft > 0;
}

void QRLDirectoryEnumerator::countRepetitions() noexcept {
    if (_repeatedFrom != 0 && depth() < _repeatedFrom) _repeatedFrom = 0;
    _repetitionsLeft += _repeatedFrom != 0 ? -1 : 1;
}

void QRLDirectoryEnumerator::pushDirectoryEntry() {
    if (entry().name.empty() || !withinLimits()) return;
    if (hasCutName()) {
        enterCutName();
    } else if (entry().type == EntryType::directory) {
        (void)enter();
    }
}

/// Opens the directory that the entry's name leads to when cut modulo 256; the directory being
/// read if nothing is left of the name.
void QRLDirectoryEnumerator::enterCutName() {
    const std::size_t separator = addedLength() - entry().name.size();
    const std::size_t added = addedLength() % kAddedLengths;
    std::string counted(entry().name, 0, added - std::min(added, separator));
    if (counted.empty()) counted = ".";
    UniqueFd directory = openDirectoryAt(address().parent, counted.c_str());
    if (!directory) return;
    pushInstead(std::move(directory), added);
    _repeatedFrom = depth();
}

}  // namespace corvalen
