// SPDX-License-Identifier: MIT
// Copies and moves of objects, for the file manager.
#pragma once

#include <utility>

#include "foundation/cancellation.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/file_flags.hpp"
#include "platform/files/object_address.hpp"
#include "platform/files/object_removal.hpp"

namespace corvalen {

/// Copies the object, a directory with its contents, to an address in a directory that no other
/// user can enter. Does not copy flags. Returns the open copy. ECANCELED after the cancellation,
/// which also counts objects. On failure the partial copy stays.
[[nodiscard]] Result<Object> copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags,
                                      Cancellation& cancellation);

/// The failure of a move; the path is below the old place.
struct MoveError : TreeError {
    using TreeError::TreeError;
    // NOLINTNEXTLINE(google-explicit-constructor): a failure in the tree
    MoveError(TreeError error) : TreeError(std::move(error)) {}

    bool aboutDestination = false;  // the error concerns the new place
};

/// Moves the object to another file system, all or nothing; see FileManager::moveItem.
[[nodiscard]] Result<void, MoveError> moveAcross(const Entry& from, const Entry& to,
                                                 FileFlags& flags);

}  // namespace corvalen
