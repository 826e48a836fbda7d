// SPDX-License-Identifier: MIT
#include "treewalk/search.hpp"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

#include "fileops/file_object_info.hpp"
#include "foundation/path.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/subtree_walk.hpp"
#include "treewalk/directory_enumerator.hpp"

namespace corvalen {

Result<SearchedFolder, ErrorRef> openSearchedFolder(std::string_view path) {
    if (path.empty()) return failure(makePosixError(EINVAL));
    std::string resolved = resolveSymlinksInPath(path);
    struct stat attributes {};
    if (resolved.find('\0') != std::string::npos || ::stat(resolved.c_str(), &attributes) != 0)
        return failure(makePosixError(ENOENT));
    if (!S_ISDIR(attributes.st_mode)) return failure(makePosixError(ENOTDIR));
    UniqueFd descriptor = openResolvedDirectory(resolved.c_str()).value_or(UniqueFd());
    return SearchedFolder{std::move(resolved), std::move(descriptor)};
}

Result<SearchedFolder, ErrorRef> openSearchedFolder(const Array& arguments) {
    return openSearchedFolder(stringArgument(arguments, 0));
}

FindBatch::FindBatch(FeedbackConnection* connection) : _connection(connection) {
    if (_connection != nullptr) _records.reserve(kFindBatchSize);
}

void FindBatch::add(std::string path, const struct statx* attributes) {
    if (_connection == nullptr || attributes == nullptr) return;
    _records.emplace_back(makeFileObjectInfo(std::move(path), *attributes));
}

void FindBatch::send(double fraction) {
    if (_connection != nullptr)
        _connection->processPrivilegedOperationFeedback(takeMessage(fraction));
}

void FindBatch::sendLater(double fraction) {
    const Clock::time_point now = Clock::now();
    _isKeeping = now - _lastSent < kLongestDelay;
    if (_isKeeping) return _connection->processLater(takeMessage(fraction));
    _lastSent = now;
    send(fraction);
}

void FindBatch::flushOld() {
    if (Clock::now() - _lastSent >= kLongestDelay) flush();
}

void FindBatch::flush() {
    if (!_isKeeping) return;
    _connection->flush();
    _lastSent = Clock::now();
    _isKeeping = false;
}

Dictionary FindBatch::takeMessage(double fraction) {
    Array records;
    records.reserve(kFindBatchSize);
    records.swap(_records);
    std::vector<Dictionary::Entry> entries;
    entries.reserve(2);
    entries.push_back({std::string(kQRLPORK_FileObjectInfo), std::move(records)});
    entries.push_back({std::string(kQRLPORK_ProgressFraction), fraction});
    return Dictionary::fromEntries(std::move(entries));
}

namespace {

/// Ends the count at an object that only the enumerator walks correctly.
constexpr int kSpecial = ERANGE;

class Count : public SubtreeVisitor {
  public:
    Count(const DescentRules& rules, const NameFilter& filter) : _rules(rules), _filter(filter) {}

    Result<> visit(TreeWalk& walk, bool* enter, std::uint64_t* sum) override {
        if (++*sum % kSampled == 0 && _filter(walk.entry().name)) ++_wanted;
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

    [[nodiscard]] std::uint64_t wanted() const noexcept { return _wanted * kSampled; }

  private:
    /// The filter is asked about one object in this many.
    static constexpr std::uint64_t kSampled = 32;

    const DescentRules& _rules;
    const NameFilter& _filter;
    std::atomic<std::uint64_t> _wanted{0};
};

std::optional<ObjectCount> countInOrder(QRLDirectoryEnumerator walk, Cancellation& cancellation) {
    std::uint64_t total = 0;
    while (walk.next() != nullptr)
        cancellation.setObjectCount(++total);
    if (walk.wasCancelled()) return std::nullopt;
    return ObjectCount{.objects = total};
}

}  // namespace

std::optional<ObjectCount> countObjects(const SearchedFolder& folder, bool stayOnFileSystem,
                                        unsigned attributeMask, const NameFilter& filter) {
    Cancellation& cancellation = currentCancellation();
    UniqueFd top = openForListing(folder.descriptor).value_or(UniqueFd());
    const DescentRules rules(top, folder.path, stayOnFileSystem);
    Count count(rules, filter);
    const SubtreeOptions options{.walk = {.unlisted = TreeWalkOptions::Faults::pass,
                                          .moved = TreeWalkOptions::Faults::pass,
                                          .quickSteps = TreeWalkOptions::kQuickSteps,
                                          .attributeMask = attributeMask,
                                          .budget = SubtreeOptions::kBudgetOfMany,
                                          .cancellation = &cancellation},
                                 .mostWorkers = SubtreeOptions::kMostWorkers};
    const Result<std::uint64_t> sum = walkSubtrees(std::move(top), count, options);
    if (sum) return ObjectCount{*sum, true, count.wanted()};
    if (failedWith(sum, ECANCELED)) return std::nullopt;
    UniqueFd again = openForListing(folder.descriptor).value_or(UniqueFd());
    return countInOrder(QRLDirectoryEnumerator(std::move(again), folder.path, stayOnFileSystem),
                        cancellation);
}

}  // namespace corvalen
