// SPDX-License-Identifier: MIT
// inspect-storagesize: adds up the sizes in bytes of everything below a directory, on all file
// systems, without the directory's own. Argument: directory (S). Answer: Size.
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "operations/errors.hpp"
#include "platform/files/subtree_walk.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Adds up the sizes that lstat(2) reports; skips objects that cannot be examined.
class Sizes : public SubtreeVisitor {
  public:
    Result<> visit(TreeWalk& walk, bool* /*enter*/, std::uint64_t* sum) override {
        if (const struct statx* attributes = walk.attributes())
            *sum = saturatedSum(*sum, attributes->stx_size);
        return {};
    }
};

}  // namespace

ErrorRef TreeWalkOperations::performOperationInspectStoragesizeWithArguments(
    const Array& arguments) {
    Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(arguments);
    if (!folder) return folder.error();
    Cancellation& cancellation = currentCancellation();
    SubtreeOptions options{.walk = {.unlisted = TreeWalkOptions::Faults::pass,
                                    .moved = TreeWalkOptions::Faults::pass,
                                    .attributeMask = STATX_SIZE,
                                    .budget = SubtreeOptions::kBudgetOfMany,
                                    .cancellation = &cancellation},
                           .mostWorkers = SubtreeOptions::kMostWorkers};
    Sizes sizes;
    const Result<std::uint64_t> sum = walkSubtrees(std::move(folder->descriptor), sizes, options);
    if (failedWith(sum, ECANCELED)) return cancelledError(cancellation);
    return sum ? makeOperationAnswer(kKeyObjectSize, *sum) : makePosixError(sum.error());
}

}  // namespace corvalen
