// SPDX-License-Identifier: MIT
// Which owners are known, and whether a folder holds anything of theirs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "platform/user_database.hpp"

namespace corvalen {

/// An immutable set of user ids.
class UserSet {
  public:
    explicit UserSet(std::vector<std::uint32_t> ids);

    [[nodiscard]] bool contains(std::uint32_t id) const noexcept;
    [[nodiscard]] bool empty() const noexcept { return _ids.empty(); }

  private:
    std::vector<std::uint32_t> _ids;
};

/// Every account that the database lists, and root, who is always known.
[[nodiscard]] UserSet knownOwners(UserDatabase& database);

/// What a folder holds.
struct FolderOwnership {
    /// Empty, or everything below it on its file system belongs to none of the users.
    bool emptyOrAllContentsNotOwned = false;
    /// Else the relative path of the first object that kept it from that, if there was one.
    std::string firstOwned;
};

/// Looks below an open folder, whose own owner does not count. Not for an empty set. A cancelled
/// look finds neither.
[[nodiscard]] FolderOwnership inspectFolderOwnership(UniqueFd folder, const UserSet& users);

/// The same by path: false also for an empty path, an empty set, and what cannot be listed.
[[nodiscard]] bool isFolderAtPath(std::string_view path,
                                  const UserSet& emptyOrAllContentsNotOwnedByUsersInSet);

}  // namespace corvalen
