// SPDX-License-Identifier: MIT
#include "treewalk/object_count.hpp"

#include <cerrno>

#include "platform/files/subtree_walk.hpp"
#include "treewalk/directory_enumerator.hpp"

namespace corvalen {
namespace {

/// Steps between two checks of the cancellation, enough to make their cost small.
constexpr int kQuickSteps = 16;
/// Ends the count at an object that only the enumerator walks correctly.
constexpr int kSpecial = ERANGE;

class Count : public SubtreeVisitor {
  public:
    Count(const DescentRules& rules, const NameFilter& filter) : _rules(rules), _filter(filter) {}

    Result<> visit(TreeWalk& walk, bool* enter, std::uint64_t* sum) override {
        ++*sum;
        if (!_rules.admit(walk)) {
            *enter = false;
            return {};
        }
        if (DescentRules::isSpecial(walk)) return failure(kSpecial);
        return {};
    }
    void warm(TreeWalk& walk) override {
        if (_filter(walk.entry().name)) (void)walk.attributes();
    }

  private:
    const DescentRules& _rules;
    const NameFilter& _filter;
};

std::optional<std::uint64_t> countInOrder(QRLDirectoryEnumerator walk, Cancellation& cancellation) {
    std::uint64_t total = 0;
    while (walk.next() != nullptr)
        cancellation.setObjectCount(++total);
    if (walk.wasCancelled()) return std::nullopt;
    return total;
}

}  // namespace

std::optional<std::uint64_t> countObjects(const SearchedFolder& folder, bool stayOnFileSystem,
                                          unsigned attributeMask, const NameFilter& filter) {
    Cancellation& cancellation = currentCancellation();
    UniqueFd top = openForListing(folder.descriptor).value_or(UniqueFd());
    const DescentRules rules(top, folder.path, stayOnFileSystem);
    Count count(rules, filter);
    const SubtreeOptions options{.walk = {.unlisted = TreeWalkOptions::Faults::pass,
                                          .moved = TreeWalkOptions::Faults::pass,
                                          .quickSteps = kQuickSteps,
                                          .attributeMask = attributeMask,
                                          .budget = SubtreeOptions::kBudgetOfMany,
                                          .cancellation = &cancellation},
                                 .mostWorkers = SubtreeOptions::kMostWorkers};
    const Result<std::uint64_t> sum = walkSubtrees(std::move(top), count, options);
    if (sum) return *sum;
    if (failedWith(sum, ECANCELED)) return std::nullopt;
    UniqueFd again = openForListing(folder.descriptor).value_or(UniqueFd());
    return countInOrder(QRLDirectoryEnumerator(std::move(again), folder.path, stayOnFileSystem),
                        cancellation);
}

}  // namespace corvalen
