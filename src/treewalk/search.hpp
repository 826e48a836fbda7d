// SPDX-License-Identifier: MIT
// What searches share: the folder that is searched, and the finds on their way to the client.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/feedback.hpp"

struct statx;

namespace corvalen {

/// An open folder and the path that leads to it without a link.
struct SearchedFolder {
    std::string path;
    /// Not open when nobody may read the folder: walks of it are empty.
    UniqueFd descriptor;
};

/// Resolves the links in `path` and opens what is there. The error is POSIX 22 for an empty path, 2
/// when nothing is there, 20 when it is no folder, null on success. A link that is put into the
/// resolved path meanwhile is not followed.
[[nodiscard]] ErrorRef openSearchedFolder(std::string_view path, SearchedFolder* folder);

/// The same with the first argument of an operation.
[[nodiscard]] ErrorRef openSearchedFolder(const Array& arguments, SearchedFolder* folder);

/// Whether a search wants an object, by its name. Called by several threads at once.
using NameFilter = std::function<bool(std::string_view name)>;

/// Finds that one message carries.
inline constexpr std::size_t kFindBatchSize = 20;

/// Gathers file object info records and sends them in batches. Without a connection no record is
/// made, as nobody could see it.
class FindBatch {
  public:
    /// The connection is borrowed and may be null.
    explicit FindBatch(FeedbackConnection* connection);

    /// Adds the record of an object; one that cannot be examined any more, and has no attributes,
    /// is left out. They hold the fields of `fileObjectInfoStatxMask`.
    void add(std::string_view path, const struct statx* attributes);

    [[nodiscard]] bool isFull() const noexcept { return _records.size() >= kFindBatchSize; }
    /// Sends what there is, also when it is nothing.
    void send(double fraction);
    void sendIfFull(double fraction) {
        if (isFull()) send(fraction);
    }

  private:
    FeedbackConnection* _connection;
    Array _records;
};

}  // namespace corvalen
