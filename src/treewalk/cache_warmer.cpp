// SPDX-License-Identifier: MIT
#include "treewalk/cache_warmer.hpp"

#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

namespace corvalen {
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
