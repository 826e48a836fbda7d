// SPDX-License-Identifier: MIT
// The finds of a search on their way to the client.
#pragma once

#include <cstddef>
#include <string_view>

#include "corvalen/value.hpp"
#include "operations/feedback.hpp"

struct statx;

namespace corvalen {

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
