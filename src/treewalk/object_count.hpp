// SPDX-License-Identifier: MIT
// The count of what a search will walk, by several threads.
#pragma once

#include <cstdint>
#include <optional>

#include "treewalk/search.hpp"

namespace corvalen {

/// Returns how many objects a QRLDirectoryEnumerator gives below the folder; nothing when the
/// current cancellation was requested. Counts out of order, and only where the enumerator would do
/// more than open directories by the enumerator itself. While its threads wait for the disk, they
/// also examine what the filter accepts, with the mask, so that the search finds it in memory.
/// Throws std::bad_alloc.
std::optional<std::uint64_t> countObjects(const SearchedFolder& folder, bool stayOnFileSystem,
                                          unsigned attributeMask, const NameFilter& filter);

}  // namespace corvalen
