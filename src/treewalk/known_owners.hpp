// SPDX-License-Identifier: MIT
// The known owners, and whether a directory holds any object of theirs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "platform/authorization/identity.hpp"

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

/// Returns the ids of all accounts that the database lists, and of root.
[[nodiscard]] UserSet knownOwners(UserDatabase& database);

struct FolderOwnership {
    /// The directory is empty, or no object below it on its file system belongs to the users.
    bool emptyOrAllContentsNotOwned = false;
    /// Else the relative path of the first object that they own or that cannot be examined.
    std::string firstOwned;
};

/// Examines everything below an open directory, not the directory itself. `users` must not be
/// empty. Returns false and an empty path if cancelled, or if the directory cannot be listed.
[[nodiscard]] FolderOwnership inspectFolderOwnership(UniqueFd folder, const UserSet& users);

/// The same by path; false too for an empty path or set.
[[nodiscard]] bool isFolderAtPath(std::string_view path,
                                  const UserSet& emptyOrAllContentsNotOwnedByUsersInSet);

}  // namespace corvalen
