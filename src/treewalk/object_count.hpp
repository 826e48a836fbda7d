// SPDX-License-Identifier: MIT
// Counts the objects that a search will walk, with several threads.
#pragma once

#include <cstdint>
#include <optional>

#include "treewalk/search.hpp"

namespace corvalen {

/// Returns how many objects a QRLDirectoryEnumerator returns below the folder; std::nullopt if the
/// current cancellation was requested. Counts out of order; falls back to the enumerator where that
/// does more than open directories. Threads that wait for the disk also examine the objects that
/// the filter accepts, so that the search finds them in memory. Throws std::bad_alloc.
std::optional<std::uint64_t> countObjects(const SearchedFolder& folder, bool stayOnFileSystem,
                                          unsigned attributeMask, const NameFilter& filter);

}  // namespace corvalen
