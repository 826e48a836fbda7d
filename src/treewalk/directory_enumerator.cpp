// SPDX-License-Identifier: MIT
#include "treewalk/directory_enumerator.hpp"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "foundation/path.hpp"
#include "platform/entry.hpp"
#include "platform/system_log.hpp"

namespace corvalen {

namespace {

constexpr std::string_view kClassName = "QRLDirectoryEnumerator";
constexpr std::string_view kVolumeTree = "/.vol";
const SharedFolder kNone;

constexpr std::size_t kEntryBufferSize = std::size_t{256} * 1024;
constexpr std::size_t kLargestRead = std::size_t{64} * 1024;
constexpr std::size_t kSmallestRead = std::size_t{32} * 1024;
constexpr std::size_t kEntryAlignment = 8;

/// No system call takes a longer name; file systems with 255 characters of UTF-16 reach 765 bytes.
constexpr std::size_t kLongestName = 4095;

/// What a level's record can count.
constexpr std::size_t kLargestAddedLength = 255;

/// Streams kept open: this many from the base downwards, and this many up from the innermost
/// level. Those between are opened again through their children.
constexpr std::ptrdiff_t kOuterStreams = 32;
constexpr std::ptrdiff_t kInnerStreams = 32;

/// Entries taken from the buffer between two questions for the cancellation.
constexpr int kQuickSteps = 16;

/// A mode counts as a folder's by this single bit, which block devices and sockets carry too: they
/// meet the limits like folders, and then cannot be opened.
constexpr unsigned kFolderBit = S_IFDIR;

void logMessage(std::string_view message) {
    std::string line(kClassName);
    line.append(": ").append(message).append("\n");
    consoleLog(line);
}

void logOnce(bool* logged, std::string_view message) {
    if (!std::exchange(*logged, true)) logMessage(message);
}

EntryType entryTypeOfMode(unsigned mode) noexcept {
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return EntryType::folder;
        case S_IFLNK:
            return EntryType::symbolicLink;
        case S_IFBLK:
            return EntryType::blockDevice;
        case S_IFSOCK:
            return EntryType::socket;
        default:
            return EntryType::other;
    }
}

bool hasFolderBit(EntryType type) noexcept {
    return type == EntryType::folder || type == EntryType::blockDevice || type == EntryType::socket;
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
    // The device is that of the path itself, also where it is a link.
    enumerator->_shouldStayOnFileSystem =
        stayOnFileSystem && ::lstat(base.c_str(), &attributes) == 0;
    enumerator->_baseFileSystemID = attributes.st_dev;
    return enumerator;
}

QRLDirectoryEnumerator::QRLDirectoryEnumerator(UniqueFd base, std::string_view path,
                                               bool stayOnFileSystem, WalkReach reach,
                                               Cancellation& cancellation)
    : _shouldStayOnFileSystem(stayOnFileSystem),
      _reach(reach),
      _insideVolumeTree(makesPaths() && path.starts_with(kVolumeTree)),
      _baseIsRoot(makesPaths() && path == "/"),
      _cancellation(&cancellation) {
    if (makesPaths()) {
        _pathBuffer.resize(path.size() + kMaximumRelativePathLength + kLongestName + 3);
        std::copy(path.begin(), path.end(), _pathBuffer.begin());
        _relativePathStart = path.size();
        if (!_baseIsRoot) _pathBuffer[_relativePathStart++] = '/';
        _directoryStack.reserve(kMaximumOpenLevels);
    }
    if (_shouldStayOnFileSystem) {
        _shouldStayOnFileSystem = examineOpen(base.get(), STATX_MNT_ID, &_baseAttributes);
        _baseFileSystemID = deviceOf(_baseAttributes);
    }
    if (base) _entryBuffer = std::make_unique_for_overwrite<std::byte[]>(kEntryBufferSize);
    openLevel(std::move(base), 0);
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

const QRLDirectoryEnumerator::Entry* QRLDirectoryEnumerator::next() {
    while (_topIndex >= 0) {
        Level& level = _directoryStack.back();
        if (mustEnd(level)) return nullptr;
        if (level.drained() && !readMoreEntries(level)) {
            popDirectory();
            continue;
        }
        if (!takeEntry(level)) continue;
        _repetitionsLeft += level.isRepetition ? -1 : 1;
        _entryLevel = _topIndex;
        _entryPathLength = _relativePathLength;
        _attributes.forget();
        if (_entry.type == EntryType::unknown && attributes() != nullptr)
            _entry.type = entryTypeOfMode(attributes()->stx_mode);
        if (_reach != WalkReach::directContents && hasFolderBit(_entry.type) && shouldDescend())
            pushDirectoryEntry();
        return &_entry;
    }
    return nullptr;
}

/// Asks for the cancellation after every step that made a system call. Entries that are only taken
/// from the buffer cost little more than the question, which is asked once for a few of them.
bool QRLDirectoryEnumerator::mustEnd(const Level& level) {
    if (_wasCancelled) return true;
    const bool wasQuick = !level.drained() && !_attributes.wereRead();
    if (wasQuick && --_quickSteps > 0) return false;
    _quickSteps = kQuickSteps;
    _wasCancelled = _cancellation->requested();
    return _wasCancelled;
}

bool QRLDirectoryEnumerator::readMoreEntries(Level& level) {
    if (!level.stream) return false;
    if (kEntryBufferSize - level.bufferStart < kSmallestRead) forgetBufferedEntries();
    if (level.seekBeforeRead && !seekDirectory(descriptorOf(level.stream), level.position))
        return false;
    level.seekBeforeRead = false;
    const std::size_t room = std::min(kEntryBufferSize - level.bufferStart, kLargestRead);
    const std::ptrdiff_t read = readDirectoryEntries(
        descriptorOf(level.stream), {_entryBuffer.get() + level.bufferStart, room});
    if (read <= 0) return false;
    level.unreadStart = level.bufferStart;
    level.unreadEnd = level.bufferStart + static_cast<std::size_t>(read);
    return true;
}

/// The buffer is full of what outer levels have not taken yet: they will read it again.
void QRLDirectoryEnumerator::forgetBufferedEntries() {
    for (Level& level : _directoryStack) {
        level.seekBeforeRead = level.seekBeforeRead || !level.drained();
        level.bufferStart = level.unreadStart = level.unreadEnd = 0;
    }
}

/// False for an entry that is none: the folder itself, its parent, a name nobody could use.
bool QRLDirectoryEnumerator::takeEntry(Level& level) {
    const RawDirectoryEntry raw = directoryEntryAt(
        {_entryBuffer.get() + level.unreadStart, level.unreadEnd - level.unreadStart});
    level.unreadStart += raw.length;
    level.position = raw.position;
    if (raw.name == "." || raw.name == ".." || raw.name.size() > kLongestName) return false;
    _entry = {raw.name, raw.type};
    return true;
}

bool QRLDirectoryEnumerator::shouldDescend() {
    if (!_shouldStayOnFileSystem) return !isBehindVolumeTree();
    const struct statx* known = attributes();
    return known != nullptr && (known->stx_mode & kFolderBit) != 0 &&
           deviceOf(*known) == _baseFileSystemID && isSameMount(*known, _baseAttributes);
}

/// Whether the absolute path begins with "/.vol"; shorter bases than the root cannot lead there.
bool QRLDirectoryEnumerator::isBehindVolumeTree() const noexcept {
    return _insideVolumeTree ||
           (_baseIsRoot && _topIndex == 0 && _entry.name.starts_with(kVolumeTree.substr(1)));
}

bool QRLDirectoryEnumerator::withinLimits() {
    if (!makesPaths()) return true;
    if (_entry.name.size() + _relativePathLength + 1 > kMaximumRelativePathLength) {
        logOnce(&_loggedPathLimit, "maximum path length reached. Skipping...");
        return false;
    }
    if (_topIndex >= kMaximumOpenLevels - 1 || (hasCutName() && !mayRepeat())) {
        logOnce(&_loggedDepthLimit, "maximum number of nested directories reached. Skipping...");
        return false;
    }
    return true;
}

/// Whether the level's record cannot count the entry's name with its separator.
bool QRLDirectoryEnumerator::hasCutName() const noexcept {
    return makesPaths() &&
           _entry.name.size() + (_entryPathLength > 0 ? 1 : 0) > kLargestAddedLength;
}

/// A cut name leads back to what the walk reads anyway. Repetitions do not nest, and their objects
/// stay in proportion to the others: else a few such names cost 500 levels of repetitions.
bool QRLDirectoryEnumerator::mayRepeat() const noexcept {
    return !_directoryStack.back().isRepetition && _repetitionsLeft > 0;
}

void QRLDirectoryEnumerator::pushDirectoryEntry() {
    if (_entry.name.empty() || !withinLimits()) return;
    std::uint8_t addedLength = 0;
    if (makesPaths()) {
        writeEntryNameBehind(_relativePathLength);
        // Kept modulo 256: see openEntry for what a longer name leads to.
        addedLength = static_cast<std::uint8_t>(_entry.name.size() + (_relativePathLength > 0));
    }
    bool repeatsParent = false;
    UniqueFd stream = openEntry(addedLength, &repeatsParent);
    if (!stream) return;
    const bool isRepetition = _directoryStack.back().isRepetition || hasCutName();
    _relativePathLength += addedLength;
    openLevel(std::move(stream), addedLength);
    _directoryStack.back().repeatsParent = repeatsParent;
    _directoryStack.back().isRepetition = isRepetition;
    closeDistantStream();
}

/// Opens what the counted part of the entry's name leads to: the folder itself, and for a name
/// that with its separator takes 256 bytes or more, what is left of it modulo 256; when nothing is
/// left, that is the folder being read.
UniqueFd QRLDirectoryEnumerator::openEntry(std::size_t addedLength, bool* repeatsParent) {
    const int parent = descriptorOf(_directoryStack.back().stream);
    const std::size_t separator = _relativePathLength > 0 ? 1 : 0;
    if (!hasCutName()) {
        if (_entry.type != EntryType::folder) return UniqueFd();
        return openDirectoryAt(parent, _entry.name.data());
    }
    *repeatsParent = addedLength <= separator;
    if (*repeatsParent) return reopenDirectory(parent);
    return openDirectoryAt(parent, std::string(_entry.name, 0, addedLength - separator).c_str());
}

void QRLDirectoryEnumerator::openLevel(UniqueFd stream, std::uint8_t addedLength) {
    Level level;
    if (stream) level.stream = std::make_shared<UniqueFd>(std::move(stream));
    level.addedLength = addedLength;
    if (!_directoryStack.empty()) {
        const Level& outer = _directoryStack.back();
        const std::size_t used = outer.drained() ? outer.bufferStart : outer.unreadEnd;
        level.bufferStart = (used + kEntryAlignment - 1) / kEntryAlignment * kEntryAlignment;
    }
    level.unreadStart = level.unreadEnd = level.bufferStart;
    _directoryStack.push_back(std::move(level));
    ++_topIndex;
}

void QRLDirectoryEnumerator::closeDistantStream() {
    const std::ptrdiff_t distant = _topIndex - kInnerStreams;
    if (distant < kOuterStreams) return;
    Level& level = _directoryStack[static_cast<std::size_t>(distant)];
    if (!level.stream || !readFileIdentity(descriptorOf(level.stream), &level.identity)) return;
    level.stream.reset();
    level.seekBeforeRead = true;
}

void QRLDirectoryEnumerator::popDirectory() {
    if (_topIndex < 0) return;
    const Level closed = std::move(_directoryStack.back());
    _directoryStack.pop_back();
    --_topIndex;
    _relativePathLength -= closed.addedLength;
    if (_topIndex < kOuterStreams || _directoryStack.back().stream) return;
    // A folder that was moved away meanwhile leads elsewhere now: what lies between it and the
    // streams kept open is at its end then.
    Level& level = _directoryStack.back();
    UniqueFd stream = openDirectoryIfSame(descriptorOf(closed.stream),
                                          closed.repeatsParent ? "." : "..", level.identity);
    if (stream) {
        level.stream = std::make_shared<UniqueFd>(std::move(stream));
    } else {
        level.unreadStart = level.unreadEnd;
    }
}

const SharedFolder& QRLDirectoryEnumerator::enteredFolder() const noexcept {
    if (!hasEntered() || hasCutName()) return kNone;
    return _directoryStack.back().stream;
}

UniqueFd QRLDirectoryEnumerator::takeEnteredFolder() {
    if (!hasEntered()) return UniqueFd();
    UniqueFd folder = std::move(*_directoryStack.back().stream);
    popDirectory();
    return folder;
}

const SharedFolder& QRLDirectoryEnumerator::parentFolder() const noexcept {
    if (_entryLevel < 0 || _entryLevel > _topIndex) return kNone;
    return _directoryStack[static_cast<std::size_t>(_entryLevel)].stream;
}

const struct statx* QRLDirectoryEnumerator::attributes() {
    return _attributes.read(descriptorOf(parentFolder()), _entry.name.data(),
                            descriptorOf(enteredFolder()), _attributeMask | STATX_MNT_ID);
}

void QRLDirectoryEnumerator::writeEntryNameBehind(std::size_t relativeLength) {
    char* end = _pathBuffer.data() + _relativePathStart + relativeLength;
    if (relativeLength > 0) *end++ = '/';
    std::memcpy(end, _entry.name.data(), _entry.name.size());
}

std::string_view QRLDirectoryEnumerator::currentRelativePathForDirectoryEntry() {
    if (!makesPaths() || _entryLevel < 0) return {};
    writeEntryNameBehind(_entryPathLength);
    const std::size_t separator = _entryPathLength > 0 ? 1 : 0;
    return {_pathBuffer.data() + _relativePathStart,
            _entryPathLength + separator + _entry.name.size()};
}

std::string_view QRLDirectoryEnumerator::currentAbsolutePathForDirectoryEntry() {
    const std::string_view relative = currentRelativePathForDirectoryEntry();
    return {_pathBuffer.data(), _relativePathStart + relative.size()};
}

}  // namespace corvalen
