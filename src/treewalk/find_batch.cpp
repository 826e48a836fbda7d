// SPDX-License-Identifier: MIT
#include "treewalk/find_batch.hpp"

#include <string>
#include <utility>

#include "fileops/file_object_info.hpp"

namespace corvalen {

FindBatch::FindBatch(FeedbackConnection* connection) : _connection(connection) {
    if (isWanted()) _records.reserve(kFindBatchSize);
}

void FindBatch::add(QRLDirectoryEnumerator& walk) {
    if (!isWanted()) return;
    const struct statx* attributes = walk.attributes();
    if (attributes == nullptr) return;
    add(makeFileObjectInfo(std::string(walk.currentAbsolutePathForDirectoryEntry()), *attributes));
}

void FindBatch::send(double fraction) {
    if (!isWanted()) return;
    Array records;
    records.reserve(kFindBatchSize);
    records.swap(_records);
    std::vector<Dictionary::Entry> entries;
    entries.reserve(2);
    entries.push_back({std::string(kQRLPORK_ProgressFraction), fraction});
    entries.push_back({std::string(kQRLPORK_FileObjectInfo), std::move(records)});
    _connection->processPrivilegedOperationFeedback(Dictionary::fromEntries(std::move(entries)));
}

}  // namespace corvalen
