// SPDX-License-Identifier: MIT
#include "treewalk/search.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "fileops/file_object_info.hpp"
#include "foundation/path.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/entry.hpp"

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
