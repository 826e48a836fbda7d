// SPDX-License-Identifier: MIT
#include "treewalk/known_owners.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "treewalk/directory_enumerator.hpp"

namespace corvalen {
namespace {

constexpr std::uint32_t kRoot = 0;
/// Bytes; holds at least one directory entry.
constexpr std::size_t kProbeSize = 8192;

bool canBeListed(Descriptor folder) {
    alignas(8) std::array<std::byte, kProbeSize> buffer;
    return readDirectoryEntries(folder, buffer) >= 0 && seekDirectory(folder, 0);
}

}  // namespace

UserSet::UserSet(std::vector<std::uint32_t> ids) : _ids(std::move(ids)) {
    std::sort(_ids.begin(), _ids.end());
}

bool UserSet::contains(std::uint32_t id) const noexcept {
    return std::binary_search(_ids.begin(), _ids.end(), id);
}

UserSet knownOwners(UserDatabase& database) {
    std::vector<std::uint32_t> ids = database.listedUserIDs();
    ids.push_back(kRoot);
    return UserSet(std::move(ids));
}

FolderOwnership inspectFolderOwnership(UniqueFd folder, const UserSet& users) {
    if (!canBeListed(folder)) return {};
    QRLDirectoryEnumerator walk(std::move(folder), "", true);
    walk.setAttributeMask(STATX_UID);
    while (walk.next() != nullptr) {
        const struct statx* attributes = walk.attributes();
        if (attributes == nullptr || users.contains(attributes->stx_uid))
            return {false, std::string(walk.currentRelativePathForDirectoryEntry())};
    }
    return {!walk.wasCancelled(), {}};
}

bool isFolderAtPath(std::string_view path, const UserSet& emptyOrAllContentsNotOwnedByUsersInSet) {
    const std::string ownPath(path);
    if (ownPath.find('\0') != std::string::npos) return false;
    if (emptyOrAllContentsNotOwnedByUsersInSet.empty()) return false;
    UniqueFd folder(::open(ownPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    return inspectFolderOwnership(std::move(folder), emptyOrAllContentsNotOwnedByUsersInSet)
        .emptyOrAllContentsNotOwned;
}

}  // namespace corvalen
