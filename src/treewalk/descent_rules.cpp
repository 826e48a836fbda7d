// SPDX-License-Identifier: MIT
#include "treewalk/descent_rules.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kVolumeTree = "/.vol";

}  // namespace

DescentRules::DescentRules(Descriptor base, std::string_view path, bool stayOnFileSystem)
    : _insideVolumeTree(path.starts_with(kVolumeTree)), _baseIsRoot(path == "/") {
    if (!stayOnFileSystem || !examineOpen(base, STATX_MNT_ID, &_base)) return;
    _staysOnFileSystem = true;
    _fileSystem = deviceOf(_base);
}

void DescentRules::setFileSystem(std::optional<std::uint64_t> device) noexcept {
    _staysOnFileSystem = device.has_value();
    _fileSystem = device.value_or(0);
}

bool DescentRules::admitDirectory(TreeWalk& walk) const {
    if (!_staysOnFileSystem) {
        // Only a walk from "/" meets /.vol, at its first level.
        return !_insideVolumeTree && !(_baseIsRoot && walk.depth() == 1 &&
                                       walk.entry().name.starts_with(kVolumeTree.substr(1)));
    }
    // A bind mount has the same device but another mount ID.
    const struct statx* known = walk.attributes();
    return known != nullptr && (known->stx_mode & S_IFDIR) != 0 &&
           deviceOf(*known) == _fileSystem && isSameMount(*known, _base);
}

bool DescentRules::exceedsPathLength(const TreeWalk& walk) noexcept {
    return walk.entry().name.size() + walk.parentPathLength() + 1 > kMaximumRelativePathLength;
}

bool DescentRules::exceedsDepth(const TreeWalk& walk) noexcept {
    return walk.depth() >= kMaximumOpenLevels;
}

std::size_t DescentRules::addedLength(const TreeWalk& walk) noexcept {
    return walk.pathLength() - walk.parentPathLength();
}

bool DescentRules::hasCutName(const TreeWalk& walk) noexcept {
    return addedLength(walk) >= kAddedLengths;
}

bool DescentRules::isSpecial(const TreeWalk& walk) noexcept {
    return exceedsPathLength(walk) || exceedsDepth(walk) || hasCutName(walk);
}

}  // namespace corvalen
