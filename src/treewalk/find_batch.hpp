// SPDX-License-Identifier: MIT
// The finds of a search on their way to the client.
#pragma once

#include <cstddef>

#include "foundation/value.hpp"
#include "operations/feedback.hpp"
#include "treewalk/directory_enumerator.hpp"

namespace corvalen {

/// Finds that one message carries.
inline constexpr std::size_t kFindBatchSize = 20;

/// Gathers file object info records and sends them in batches. Without a connection no record is
/// made, as nobody could see it.
class FindBatch {
  public:
    /// The connection is borrowed and may be null.
    explicit FindBatch(FeedbackConnection* connection);

    /// Adds the record of the object that the walk has just given; one that cannot be examined any
    /// more is left out. The walk's attribute mask is `fileObjectInfoStatxMask` or more.
    void add(QRLDirectoryEnumerator& walk);
    void add(Dictionary record) { _records.emplace_back(std::move(record)); }
    [[nodiscard]] bool isWanted() const noexcept { return _connection != nullptr; }

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
