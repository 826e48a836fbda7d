// SPDX-License-Identifier: MIT
#include "fileops/named_entry.hpp"

#include <cerrno>

namespace corvalen {

bool openNamed(const std::string& path, Entry* entry, ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    const int code = checked ? openEntry(*checked, entry) : ENOENT;
    if (code != 0) *error = makeFileError(FileAccess::write, code, path);
    return code == 0;
}

}  // namespace corvalen
