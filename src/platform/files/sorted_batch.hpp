// SPDX-License-Identifier: MIT
// The rest of a large directory, which is faster to visit in the order of its inodes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/files/directory_reader.hpp"

namespace corvalen {

/// Entries of a directory, returned in inode order if they are many. Keeps them until all were
/// returned. For one thread. Throws std::bad_alloc.
class SortedBatch {
  public:
    /// A large one has 4 MiB of names and 131,072 entries at most, another one a quarter.
    explicit SortedBatch(bool isLarge)
        : _mostNames(isLarge ? 4 * kNames : kNames),
          _mostEntries(isLarge ? 4 * kEntries : kEntries),
          _names(std::make_unique_for_overwrite<char[]>(_mostNames)) {
        _order.reserve(_mostEntries);
    }

    void clear() noexcept {
        _used = _next = 0;
        _order.clear();
    }
    /// Whether add() has room for any entries of this many bytes.
    [[nodiscard]] bool hasRoomFor(std::size_t bytes) const noexcept {
        constexpr std::size_t kSmallestEntry = 24;  // of getdents64(2)
        return _mostNames - _used >= bytes &&
               _mostEntries - _order.size() >= bytes / kSmallestEntry;
    }
    /// Copies the entries; returns the position after the last one.
    std::int64_t add(std::span<const std::byte> entries) {
        std::int64_t position = 0;
        for (std::size_t at = 0; at < entries.size();) {
            const RawDirectoryEntry raw = directoryEntryAt(entries.subspan(at));
            at += raw.length;
            position = raw.position;
            _order.emplace_back(raw.inode, static_cast<std::uint32_t>(_used));
            _names[_used] = static_cast<char>(raw.type);
            std::memcpy(&_names[_used + 1], raw.name.data(), raw.name.size() + 1);
            _used += raw.name.size() + 2;
        }
        return position;
    }
    /// Call after the last add().
    void sort() {
        constexpr std::size_t kSortedFrom = 10000;
        if (_order.size() >= kSortedFrom) std::sort(_order.begin(), _order.end());
    }
    /// Number of entries to return.
    [[nodiscard]] std::size_t left() const noexcept { return _order.size() - _next; }
    /// Returns the next entry, without its inode and position. There must be one.
    RawDirectoryEntry take() noexcept {
        const char* entry = &_names[_order[_next++].second];
        return {std::string_view(entry + 1), static_cast<EntryType>(*entry)};
    }

  private:
    static constexpr std::size_t kNames = std::size_t{1} << 20;  // bytes
    static constexpr std::size_t kEntries = std::size_t{1} << 15;

    const std::size_t _mostNames;
    const std::size_t _mostEntries;
    /// The type and the NUL-terminated name of each entry.
    std::unique_ptr<char[]> _names;
    std::size_t _used = 0;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> _order;  // inode, offset in `_names`
    std::size_t _next = 0;
};

}  // namespace corvalen
