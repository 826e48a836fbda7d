// SPDX-License-Identifier: MIT
#include "fileops/named_entry.hpp"

#include <cerrno>
#include <utility>

#include "operations/errors.hpp"

namespace corvalen {

Result<Entry, ErrorRef> openNamed(const std::string& path) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    Result<Entry> entry = checked ? openEntry(*checked) : failure(ENOENT);
    return std::move(entry).map_error(
        [&](SystemError error) { return makeFileError(FileAccess::write, error, path); });
}

}  // namespace corvalen
