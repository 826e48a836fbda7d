// SPDX-License-Identifier: MIT
#include "treewalk/find_batch.hpp"

#include <string>
#include <utility>

#include "fileops/file_object_info.hpp"

namespace corvalen {

FindBatch::FindBatch(FeedbackConnection* connection) : _connection(connection) {
    if (_connection != nullptr) _records.reserve(kFindBatchSize);
}

void FindBatch::add(std::string_view path, const struct statx* attributes) {
    if (_connection == nullptr || attributes == nullptr) return;
    _records.emplace_back(makeFileObjectInfo(std::string(path), *attributes));
}

void FindBatch::send(double fraction) {
    if (_connection == nullptr) return;
    Array records;
    records.reserve(kFindBatchSize);
    records.swap(_records);
    std::vector<Dictionary::Entry> entries;
    entries.reserve(2);
    entries.push_back({std::string(kQRLPORK_FileObjectInfo), std::move(records)});
    entries.push_back({std::string(kQRLPORK_ProgressFraction), fraction});
    _connection->processPrivilegedOperationFeedback(Dictionary::fromEntries(std::move(entries)));
}

}  // namespace corvalen
