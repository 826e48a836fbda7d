// SPDX-License-Identifier: MIT
#include "platform/files/directory_stack.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/directory_reader.hpp"

namespace corvalen {

DirectoryStack::DirectoryStack(std::size_t budget) noexcept
    : _outer(std::max<std::size_t>(budget / 2, 1)),
      _inner(std::max<std::size_t>(budget, 2) - _outer) {}

void DirectoryStack::push(SharedDirectory directory) {
    _levels.push_back({std::move(directory), {}});
    if (_levels.size() <= _outer + _inner) return;
    Level& distant = _levels[_levels.size() - 1 - _inner];
    struct statx status {};
    if (!examineOpen(descriptorOf(distant.directory), objectStatxMask(), &status)) return;
    distant.identity = identityOf(status);
    distant.directory.reset();
}

Result<bool> DirectoryStack::openAbove() {
    if (_levels.size() < 2) return false;
    Level& above = _levels[_levels.size() - 2];
    if (above.directory) return false;
    for (const char* way : {"..", "."}) {
        Result<UniqueFd> found = openDirectoryAt(top(), way);
        if (!found) return failure(found.error());
        struct statx status {};
        if (!examineOpen(*found, objectStatxMask(), &status)) return failure(errno);
        if (identityOf(status) != above.identity) continue;
        above.directory = std::make_shared<UniqueFd>(*std::move(found));
        return true;
    }
    return failure(ESTALE);
}

}  // namespace corvalen
