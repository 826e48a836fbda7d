// SPDX-License-Identifier: MIT
#include "treewalk/walk_ahead.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <system_error>
#include <utility>

namespace corvalen {
namespace {

/// Walks smaller than this do not repay a second thread.
constexpr std::size_t kBatchesBeforeHelp = 2;
/// A batch is handed over after at most this many objects, wanted or not.
constexpr std::uint64_t kBatchWalked = 4096;
/// Bytes for the folders and names of a batch. The objects point into them, so they must not
/// reallocate: a batch ends when the next path might not fit.
constexpr std::size_t kTextRoom = std::size_t{192} * 1024;

}  // namespace

WalkAhead::WalkAhead(SearchedFolder folder, bool stayOnFileSystem, unsigned attributeMask,
                     const NameFilter& filter, long (*waits)() noexcept)
    : _warmer(folder, stayOnFileSystem, attributeMask, filter, _cancellation.user(), waits),
      _walk(std::move(folder.descriptor), folder.path, stayOnFileSystem, _cancellation),
      _filter(filter),
      _mask(attributeMask),
      _waits(waits) {
    _walk.setAttributeMask(attributeMask);
}

WalkAhead::~WalkAhead() {
    if (!_helper.joinable()) return;
    _abandoned = true;
    _awaited = true;
    _empty.release();
    _helper.join();
}

const WalkAhead::Object* WalkAhead::next() {
    const Object* object = takeObject();
    while (object != nullptr && isSkipped(*object))
        object = takeObject();
    return object;
}

const WalkAhead::Object* WalkAhead::takeObject() {
    if (_object != nullptr) _cancellation.setObjectCount(_object->index + 1);
    while (_taken == _current->objects.size()) {
        _object = nullptr;
        _cancellation.setObjectCount(_current->walked);
        _wasCancelled = _current->wasCancelled;
        if (_current->isLast) {
            _warmer.stop();
            return nullptr;
        }
        turnToNextBatch();
    }
    _wasCancelled = _cancellation.requested();
    if (_wasCancelled) return nullptr;
    _object = &_current->objects[_taken++];
    _attributes.forget();
    if (_object->examined != kNotExamined && !_examinesLate)
        _attributes.set(_current->examined[_object->examined]);
    return _object;
}

bool WalkAhead::isSkipped(const Object& object) noexcept {
    if (object.depth < _skippedDepth) _skippedDepth = 0;
    return _skippedDepth != 0;
}

const struct statx* WalkAhead::sampledAttributes() noexcept {
    const long before = _waits();
    const struct statx* attributes = readAttributes();
    _warmer.noteWaits(_waits() - before);
    return attributes;
}

void WalkAhead::turnToNextBatch() {
    _taken = 0;
    if (_beforeWait) _beforeWait();
    if (_helper.joinable()) {
        _awaited.store(true, std::memory_order_relaxed);
        _full.acquire();
        _awaited.store(false, std::memory_order_relaxed);
        std::swap(_current, _coming);
        // The next batch begins where this one ends.
        if (_current->lowestDepth >= _skippedDepth) _closedFrom = _skippedDepth;
        if (!_current->isLast) _empty.release();
    } else {
        _closedFrom = _skippedDepth;
        fill(*_current);
        if (++_batchesAlone == kBatchesBeforeHelp && !_current->isLast) startHelper();
    }
    if (_current->failure) std::rethrow_exception(_current->failure);
}

void WalkAhead::startHelper() noexcept {
    try {
        _helper = std::thread([this] { readAhead(); });
    } catch (const std::exception&) {
        // The caller's thread does all the work.
    }
}

void WalkAhead::readAhead() noexcept {
    for (bool isLast = false; !isLast;) {
        _empty.acquire();
        if (_abandoned) return;
        try {
            fill(*_coming);
            if (!_examinesLate) examine(*_coming);
        } catch (...) {
            _coming->failure = std::current_exception();
            _coming->isLast = true;
        }
        isLast = _coming->isLast;
        _full.release();
    }
}

void WalkAhead::fill(Batch& batch) {
    batch.objects.clear();
    batch.texts.clear();
    batch.examined.clear();
    batch.folders.clear();
    batch.objects.reserve(kBatchObjects);
    batch.texts.reserve(std::max(kTextRoom, _walk.longestPath() + 1));
    batch.lowestDepth = SIZE_MAX;
    for (const std::size_t from = std::exchange(_closedFrom, 0);
         from != 0 && _walk.depth() >= from;)
        _walk.skipDescendents();
    _warmer.resume();
    const std::uint64_t end = _walked + kBatchWalked;
    while (batch.objects.size() < kBatchObjects && batch.folders.size() + 2 <= kBatchFolders &&
           batch.texts.capacity() - batch.texts.size() > _walk.longestPath() && _walked < end &&
           !_abandoned.load(std::memory_order_relaxed)) {
        const WalkEntry* entry = _walk.next();
        if (entry == nullptr) {
            batch.isLast = true;
            batch.wasCancelled = _walk.wasCancelled();
            break;
        }
        batch.lowestDepth = std::min(batch.lowestDepth, _walk.parentDepth());
        if (!_filter || _filter(entry->name)) append(batch, *entry);
        _warmer.advance(++_walked);
    }
    batch.walked = _walked;
}

/// Examines objects from the first one on until the caller waits for the batch: so both threads
/// have as much to do.
void WalkAhead::examine(Batch& batch) {
    const long before = _waits();
    batch.examined.reserve(kBatchObjects);
    for (Object& object : batch.objects) {
        if (_awaited.load(std::memory_order_relaxed)) break;
        if (object.examined != kNotExamined) continue;
        LazyAttributes attributes;
        const struct statx* read =
            attributes.read(object.parent, object.name.data(), object.entered, _mask);
        if (read == nullptr) continue;
        object.examined = static_cast<std::uint32_t>(batch.examined.size());
        batch.examined.push_back(*read);
        if (_test != nullptr) object.answer = _test(object.address(), *read);
    }
    _warmer.noteWaits(_waits() - before);
}

void WalkAhead::append(Batch& batch, const WalkEntry& entry) {
    Object object;
    setFolder(batch, object, entry.name.size());
    object.name = {batch.texts.data() + batch.texts.size(), entry.name.size()};
    batch.texts.insert(batch.texts.end(), entry.name.data(),
                       entry.name.data() + entry.name.size() + 1);
    object.index = _walked;
    object.depth = static_cast<std::uint32_t>(_walk.parentDepth());
    object.innermostDepth = static_cast<std::uint32_t>(_walk.depth());
    object.type = entry.type;
    object.entered = hold(batch, _walk.enteredDirectory());
    if (const struct statx* known = _walk.knownAttributes()) {
        object.examined = static_cast<std::uint32_t>(batch.examined.size());
        batch.examined.push_back(*known);
    }
    batch.objects.push_back(object);
}

/// Shares the path with the object before it in the same directory, which the batch keeps open.
void WalkAhead::setFolder(Batch& batch, Object& object, std::size_t nameSize) {
    const SharedDirectory& parent = _walk.parentDirectory();
    if (parent && !batch.objects.empty() && batch.objects.back().parent.get() == parent->get()) {
        object.parent = batch.objects.back().parent;
        object.folder = batch.objects.back().folder;
        return;
    }
    object.parent = hold(batch, parent);
    std::string_view folder = _walk.currentAbsolutePathForDirectoryEntry();
    folder.remove_suffix(nameSize);
    object.folder = {batch.texts.data() + batch.texts.size(), folder.size()};
    batch.texts.insert(batch.texts.end(), folder.begin(), folder.end());
}

/// Keeps the directory open while the batch is in use. Returns none for null.
Descriptor WalkAhead::hold(Batch& batch, const SharedDirectory& folder) {
    if (!folder) return {};
    if (batch.folders.empty() || batch.folders.back() != folder) batch.folders.push_back(folder);
    return *folder;
}

namespace {

/// Maximum number of starts per walk: each walks the tree again from its top.
constexpr int kMostStarts = 4;
/// A pool starts at this many recent waits; each look forgets a quarter of them. Fewer may be waits
/// for memory that another thread maps.
constexpr long kWaitsBeforeStart = 6;
/// The pool ends after this many looks at which neither it nor the walk had waited.
constexpr int kQuietLooks = 64;
/// Objects between two checks of the lead over the walk.
constexpr std::uint64_t kObjectsPerComparison = 256;
constexpr std::chrono::milliseconds kPause{10};

}  // namespace

/// One thread that runs walkSubtrees(), which starts the others.
class CacheWarmer::Pool : private SubtreeVisitor {
  public:
    explicit Pool(const CacheWarmer& owner)
        : _owner(owner), _cancellation(owner._user), _thread([this] { run(); }) {}
    ~Pool() override {
        _cancellation.request();
        _thread.join();
    }

    /// Whether any of its threads has waited since the last call.
    [[nodiscard]] bool hasWaited() noexcept { return _waitsFound.exchange(0) != 0; }

  private:
    void run() noexcept {
        const SubtreeOptions options{.walk = {.unlisted = TreeWalkOptions::Faults::pass,
                                              .moved = TreeWalkOptions::Faults::pass,
                                              .attributeMask = _owner._mask,
                                              .budget = SubtreeOptions::kBudgetOfMany,
                                              .cancellation = &_cancellation},
                                     .counts = false,
                                     .mostWorkers = SubtreeOptions::kMostWorkers,
                                     .waitsFound = &_waitsFound,
                                     .waits = _owner._waits};
        try {
            (void)walkSubtrees(openForListing(_owner._top).value_or(UniqueFd()), *this, options);
        } catch (const std::exception&) {
            // The walk reads the rest itself.
        }
    }

    Result<> visit(TreeWalk& walk, bool* enter, std::uint64_t* sum) override {
        if (++*sum % kObjectsPerComparison == 0) waitForWalk();
        const bool isWanted = !_owner._filter || _owner._filter(walk.entry().name);
        if (isWanted && _owner._mask != 0) (void)walk.attributes();
        if (*enter) *enter = _owner._rules.admit(walk) && !DescentRules::isSpecial(walk);
        return {};
    }

    void waitForWalk() noexcept {
        const std::uint64_t warmed = _warmed += kObjectsPerComparison;
        while (warmed > _owner._walked + kMostAhead && !_cancellation.requested()) {
            _waitsFound = 1;  // a pause does not mean that the tree is in memory
            std::this_thread::sleep_for(kPause);
        }
    }

    const CacheWarmer& _owner;
    Cancellation _cancellation;
    std::atomic<std::uint64_t> _waitsFound{0};
    std::atomic<std::uint64_t> _warmed{0};
    std::thread _thread;  // declared last: it uses the other members
};

CacheWarmer::CacheWarmer(const SearchedFolder& folder, bool stayOnFileSystem, unsigned mask,
                         NameFilter filter, std::uint32_t user, long (*waits)() noexcept)
    : _top(openForListing(folder.descriptor).value_or(UniqueFd())),
      _rules(_top, folder.path, stayOnFileSystem),
      _mask(mask),
      _filter(std::move(filter)),
      _user(user),
      _waits(waits) {}

CacheWarmer::~CacheWarmer() = default;

void CacheWarmer::stop() noexcept {
    _pool.reset();
}

void CacheWarmer::look(std::uint64_t walked) noexcept {
    _walked.store(walked, std::memory_order_relaxed);
    const long switches = _waits();
    const long waits = switches - std::exchange(_switches, switches) + _waitsElsewhere.exchange(0);
    _recentWaits += waits - _recentWaits / 4;
    if (waits >= SubtreeOptions::kWaitsPerLook) {
        _quietLooks = 0;
        if (!_pool && _starts < kMostStarts && _recentWaits >= kWaitsBeforeStart) start();
    } else if (_pool && ++_quietLooks == kQuietLooks) {
        _quietLooks = 0;
        if (!_pool->hasWaited()) stop();
    }
}

void CacheWarmer::start() noexcept {
    ++_starts;
    try {
        _pool = std::make_unique<Pool>(*this);
    } catch (const std::exception&) {
        // The walk goes on alone.
    }
}

}  // namespace corvalen
