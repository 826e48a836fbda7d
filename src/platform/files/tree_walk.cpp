// SPDX-License-Identifier: MIT
#include "platform/files/tree_walk.hpp"

#include <algorithm>
#include <cstring>

#include "platform/files/sorted_batch.hpp"

namespace corvalen {
namespace {

constexpr std::size_t kBufferSize = TreeWalkOptions::kBufferSize;
constexpr std::size_t kLargestRead = std::size_t{64} * 1024;
constexpr std::size_t kSmallestRead = std::size_t{32} * 1024;
constexpr std::size_t kEntryAlignment = 8;

/// Maximum number of levels that have a batch at a time, of which one may be large.
constexpr int kMostBatches = 3;
/// A walk that has at least this many bytes or entries may give some to another one: of a batch as
/// many as fit into about this many bytes.
constexpr std::size_t kManyUnread = std::size_t{16} * 1024;
constexpr std::size_t kManyInBatch = 512;
constexpr std::size_t kMostGiven = std::size_t{32} * 1024;

/// Levels, and bytes of a path: the memory of a walk grows with both, and anybody can make deeper
/// trees.
constexpr std::size_t kMaximumDepth = std::size_t{1} << 20;
constexpr std::size_t kMaximumPathLength = std::size_t{64} << 20;

const SharedDirectory kNone;

bool isDotOrDotDot(const char* name) noexcept {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

struct TreeWalk::Level {
    std::size_t pathEnd = 0;  // of the directory's path
    /// Start of this level's part of the buffer, and the unread rest of that part.
    std::size_t bufferStart = 0;
    std::size_t unreadStart = 0;
    std::size_t unreadEnd = 0;
    /// Position after the last entry that was taken from the buffer or read into the batch.
    std::int64_t position = 0;
    bool seekBeforeRead = false;
    bool isLarge = false;
    std::unique_ptr<SortedBatch> batch;

    [[nodiscard]] bool drained() const noexcept {
        return unreadStart == unreadEnd && (!batch || batch->left() == 0);
    }
};

TreeWalk::TreeWalk(UniqueFd top, const TreeWalkOptions& options, std::string_view base)
    : TreeWalk({.directory = top ? std::make_shared<UniqueFd>(std::move(top)) : nullptr,
                .path = std::string(base),
                .levelsAbove = options.levelsAbove,
                .pathLength = options.pathLengthAbove,
                .entries = {},
                .position = {}},
               options) {}

TreeWalk::TreeWalk(WalkRest rest, const TreeWalkOptions& options)
    : _options(placedAt(rest, options)),
      _attributeMask(options.attributeMask),
      _directories(options.budget),
      _buffer(options.buffer),
      _path(rest.path.begin(), rest.path.end()),
      _baseLength(rest.path.size() + (rest.path.empty() || rest.path == "/" ? 0 : 1)),
      _parentPathEnd(_baseLength) {
    _path.resize(_baseLength, '/');
    if (!rest.directory) return;
    if (_buffer == nullptr) {
        _ownBuffer = std::make_unique_for_overwrite<std::byte[]>(kBufferSize);
        _buffer = _ownBuffer.get();
    }
    addLevel(std::move(rest.directory), _baseLength);
    std::copy(rest.entries.begin(), rest.entries.end(), _buffer);
    Level& level = _levels.back();
    level.unreadEnd = rest.entries.size();
    level.seekBeforeRead = rest.position.has_value();
    level.position = rest.position.value_or(0);
    _given = rest.isCut ? 1 : 0;
}

TreeWalk::~TreeWalk() = default;

TreeWalkOptions TreeWalk::placedAt(const WalkRest& rest, TreeWalkOptions options) noexcept {
    options.levelsAbove = rest.levelsAbove;
    options.pathLengthAbove = rest.pathLength;
    return options;
}

std::optional<WalkRest> TreeWalk::giveRest() {
    std::size_t index = 0;
    while (index < _given && index < _depth && _levels[index].drained())
        ++index;
    if (index + 1 >= _depth) return std::nullopt;
    Level& level = _levels[index];
    if (!_directories.at(index) || level.batch) return std::nullopt;
    WalkRest rest = restAt(index);
    // The base ends with a separator.
    rest.path.assign(_path.data(), index == 0 && _baseLength > 1 ? _baseLength - 1 : level.pathEnd);
    const std::size_t middle = middleOf(level);
    rest.entries.assign(_buffer + middle, _buffer + level.unreadEnd);
    if (level.seekBeforeRead) rest.position = level.position;
    rest.isCut = index < _given;
    level.unreadEnd = middle;
    _given = std::max(_given, index + 1);
    return rest;
}

std::optional<WalkRest> TreeWalk::giveEntries() {
    if (_depth == 0) return std::nullopt;
    Level& level = _levels.back();
    const std::size_t unread = level.unreadEnd - level.unreadStart;
    const std::size_t inBatch = level.batch ? level.batch->left() : 0;
    if (unread < kManyUnread && inBatch < kManyInBatch) return std::nullopt;
    WalkRest rest = restAt(_depth - 1);
    rest.isCut = true;
    const std::size_t middle = middleOf(level);
    rest.entries.assign(_buffer + level.unreadStart, _buffer + middle);
    while (level.unreadStart < middle)
        (void)takeUnread(level);
    for (std::size_t count = inBatch / 2; count > 0 && rest.entries.size() < kMostGiven; --count)
        appendDirectoryEntry(rest.entries, level.batch->take());
    return rest;
}

/// The place of a directory of this walk, without path and entries.
WalkRest TreeWalk::restAt(std::size_t index) const {
    WalkRest rest;
    rest.directory = _directories.at(index);
    rest.levelsAbove = _options.levelsAbove + index;
    rest.pathLength = relativeLength(_levels[index].pathEnd);
    return rest;
}

/// Returns the start of the entry in the middle of the unread ones.
std::size_t TreeWalk::middleOf(const Level& level) const {
    std::size_t at = level.unreadStart;
    const std::size_t middle = at + (level.unreadEnd - at) / 2;
    for (std::size_t next = at; next <= middle && next < level.unreadEnd;) {
        at = next;
        next += directoryEntryAt({_buffer + at, level.unreadEnd - at}).length;
    }
    return at;
}

TreeWalk::Step TreeWalk::next() {
    if (_isLeaving) pop();
    while (_error == 0 && _depth > 0) {
        Level& level = _levels.back();
        const bool hasEntry = !level.drained();
        // An entry from the buffer costs little more than a check of the cancellation.
        const bool isQuick = hasEntry && !_attributes.wereRead() && --_quickSteps > 0;
        if (!isQuick && isCancelled()) {
            _error = ECANCELED;
        } else if (hasEntry || readMore(level)) {
            if (takeEntry(level)) return Step::object;
        } else if (leaveInnermost()) {
            return Step::left;
        }
    }
    // After an error, path() names the current directory.
    _entry = {};
    _entryLevel = _depth > 0 ? _depth - 1 : 0;
    _parentPathEnd = _depth > 0 ? _levels.back().pathEnd : _baseLength;
    return Step::end;
}

bool TreeWalk::isCancelled() noexcept {
    _quickSteps = _options.quickSteps;
    return _options.cancellation != nullptr && _options.cancellation->requested();
}

bool TreeWalk::readMore(Level& level) {
    const Descriptor directory = _directories.top();
    if (!directory || _depth <= _given) return false;
    if (kBufferSize - level.bufferStart < kSmallestRead) forgetBuffered();
    const bool fromStart = _options.resume == TreeWalkOptions::Resume::fromStart;
    const bool takesBatch = level.isLarge && (level.batch || _batches < kMostBatches);
    std::ptrdiff_t read = -1;
    if (!std::exchange(level.seekBeforeRead, false) ||
        seekDirectory(directory, fromStart ? 0 : level.position)) {
        read = takesBatch ? readBatch(level, directory) : readBuffer(level, directory);
    }
    // ENOENT: the directory was removed and has no entries left.
    if (read < 0 && errno != ENOENT && _options.unlisted == TreeWalkOptions::Faults::end)
        _error = errno;
    return read > 0;
}

std::ptrdiff_t TreeWalk::readBuffer(Level& level, Descriptor directory) {
    const std::size_t room = std::min(kBufferSize - level.bufferStart, kLargestRead);
    const std::ptrdiff_t read =
        readDirectoryEntries(directory, {_buffer + level.bufferStart, room});
    if (read <= 0) return read;
    level.unreadStart = level.bufferStart;
    level.unreadEnd = level.bufferStart + static_cast<std::size_t>(read);
    const bool wasLarge = static_cast<std::size_t>(read) > room / 2;
    level.isLarge =
        wasLarge && _options.order == TreeWalkOptions::Order::byInode && hasInodesOnDisk(directory);
    return read;
}

/// Reads as much as the batch holds. Returns -1 only if it read no entry.
std::ptrdiff_t TreeWalk::readBatch(Level& level, Descriptor directory) {
    if (!level.batch) {
        const bool isLarge = _options.largeBatch && _batches == 0;
        level.batch = std::make_unique<SortedBatch>(isLarge);
        ++_batches;
    }
    SortedBatch& batch = *level.batch;
    batch.clear();
    const std::span<std::byte> room{_buffer + level.bufferStart,
                                    std::min(kBufferSize - level.bufferStart, kLargestRead)};
    std::ptrdiff_t read = 0;
    while (batch.hasRoomFor(room.size()) && (read = readDirectoryEntries(directory, room)) > 0)
        level.position = batch.add(room.first(static_cast<std::size_t>(read)));
    batch.sort();
    return batch.left() == 0 ? read : 1;
}

/// Empties the buffer, which is full; outer levels will read their unread entries again, except
/// those that would read what another walk has.
void TreeWalk::forgetBuffered() {
    for (std::size_t index = 0; index < _depth; ++index) {
        Level& level = _levels[index];
        const bool hasUnread = level.unreadStart != level.unreadEnd;
        if (hasUnread && index < _given) {
            level.batch = std::make_unique<SortedBatch>(false);
            ++_batches;
            (void)level.batch->add(
                {_buffer + level.unreadStart, level.unreadEnd - level.unreadStart});
        }
        level.seekBeforeRead = level.seekBeforeRead || hasUnread;
        level.bufferStart = level.unreadStart = level.unreadEnd = 0;
    }
}

RawDirectoryEntry TreeWalk::takeUnread(Level& level) noexcept {
    const RawDirectoryEntry raw =
        directoryEntryAt({_buffer + level.unreadStart, level.unreadEnd - level.unreadStart});
    level.unreadStart += raw.length;
    level.position = raw.position;
    return raw;
}

/// Returns false for ".", ".." and over-long names.
bool TreeWalk::takeEntry(Level& level) {
    const bool isUnread = level.unreadStart != level.unreadEnd;
    const RawDirectoryEntry raw = isUnread ? takeUnread(level) : level.batch->take();
    if (isDotOrDotDot(raw.name.data()) || raw.name.size() > kLongestName) return false;
    _entry = {raw.name, raw.type};
    _entryLevel = _depth - 1;
    _parentPathEnd = level.pathEnd;
    _enteredIsEntry = false;
    _attributes.forget();
    if (_entry.type == EntryType::unknown && attributes() != nullptr)
        _entry.type = entryTypeOf(*attributes());
    return true;
}

/// Leaves the exhausted innermost directory. Returns whether that is a step of the walk.
bool TreeWalk::leaveInnermost() {
    if (_error != 0 || !ascend()) return false;
    if (!_options.givesLeft || _depth == 1) {
        pop();
        return false;
    }
    _entryLevel = _depth - 2;
    _parentPathEnd = _levels[_entryLevel].pathEnd;
    const std::size_t nameStart = _parentPathEnd + (_entryLevel > 0 ? 1 : 0);
    const std::size_t nameEnd = _levels.back().pathEnd;
    _path[nameEnd] = '\0';
    _entry = {{&_path[nameStart], nameEnd - nameStart}, EntryType::directory};
    _isLeaving = _enteredIsEntry = true;
    _attributes.forget();
    return true;
}

/// Prepares the level above the innermost one for reading on. Returns false after an error.
bool TreeWalk::ascend() {
    if (_depth < 2) return true;
    const Result<bool> reopened = _directories.openAbove();
    Level& above = _levels[_depth - 2];
    if (reopened) {
        above.seekBeforeRead = above.seekBeforeRead || *reopened;
        return true;
    }
    if (_options.moved == TreeWalkOptions::Faults::end) {
        _error = reopened.error().number;
        return false;
    }
    // The closed levels count as exhausted.
    above.unreadStart = above.unreadEnd;
    return true;
}

void TreeWalk::pop() noexcept {
    if (_levels.back().batch) --_batches;
    _levels.pop_back();
    _directories.pop();
    --_depth;
    _isLeaving = false;
}

void TreeWalk::skip() {
    if (_depth > 0 && ascend()) pop();
}

Result<UniqueFd> TreeWalk::open() const noexcept {
    if (_depth >= kMaximumDepth || _parentPathEnd >= kMaximumPathLength)
        return failure(ENAMETOOLONG);
    const ObjectAddress object = address();
    return _options.mounts == TreeWalkOptions::Mounts::refused
               ? openOnSameMount(object.parent, object.name)
               : openDirectoryAt(object.parent, object.name);
}

void TreeWalk::push(UniqueFd directory) {
    addLevel(std::make_shared<UniqueFd>(std::move(directory)),
             writeBehind(_parentPathEnd, _entry.name));
    _enteredIsEntry = true;
}

Result<> TreeWalk::enter() {
    Result<UniqueFd> directory = open();
    if (!directory) return failure(directory.error());
    push(*std::move(directory));
    return {};
}

void TreeWalk::pushInstead(UniqueFd directory, std::size_t addedLength) {
    (void)writeBehind(_parentPathEnd, _entry.name);
    addLevel(std::make_shared<UniqueFd>(std::move(directory)), _parentPathEnd + addedLength);
}

void TreeWalk::addLevel(SharedDirectory directory, std::size_t pathEnd) {
    Level level;
    level.pathEnd = pathEnd;
    if (_depth > 0) {
        const Level& outer = _levels.back();
        const bool hasUnread = outer.unreadStart != outer.unreadEnd;
        const std::size_t used = hasUnread ? outer.unreadEnd : outer.bufferStart;
        level.bufferStart = (used + kEntryAlignment - 1) / kEntryAlignment * kEntryAlignment;
    }
    level.unreadStart = level.unreadEnd = level.bufferStart;
    _levels.push_back(std::move(level));
    _directories.push(std::move(directory));
    ++_depth;
}

const struct statx* TreeWalk::attributes() noexcept {
    return _attributes.read(descriptorOf(parentDirectory()), _entry.name.data(),
                            descriptorOf(enteredDirectory()), _attributeMask | STATX_MNT_ID);
}

const SharedDirectory& TreeWalk::parentDirectory() const noexcept {
    return _entryLevel < _depth ? _directories.at(_entryLevel) : kNone;
}

const SharedDirectory& TreeWalk::enteredDirectory() const noexcept {
    const bool isEntered = _enteredIsEntry && _entryLevel + 1 < _depth;
    return isEntered ? _directories.at(_entryLevel + 1) : kNone;
}

std::string_view TreeWalk::path() {
    std::size_t end = _parentPathEnd;
    if (!_entry.name.empty()) end = writeBehind(end, _entry.name);
    return {_path.data(), end};
}

/// Writes a name after the path of a directory. Returns its end, which has space for a NUL.
std::size_t TreeWalk::writeBehind(std::size_t end, std::string_view name) {
    const std::size_t nameStart = end + (end > _baseLength ? 1 : 0);
    const std::size_t needed = nameStart + name.size() + 1;
    if (_path.size() < needed) _path.resize(2 * needed);
    if (nameStart > end) _path[end] = '/';
    // The name of a directory that is left is already there.
    if (name.data() != &_path[nameStart]) std::memcpy(&_path[nameStart], name.data(), name.size());
    return nameStart + name.size();
}

}  // namespace corvalen
