// SPDX-License-Identifier: MIT
// create-fileobject: creates an empty file (mode 0644), an empty executable file (0755) or a
// directory (0755), owned by root. Arguments: path (S), type "F", "X" or "D" (S). Parents must
// exist.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {
namespace {

constexpr mode_t kFilePermissions = 0644;
constexpr mode_t kExecutablePermissions = 0755;

/// Follows a symlink. A dangling one returns false; makeObject() then fails with EEXIST.
bool leadsToAnObject(const Entry& entry) {
    return openObject({entry.parent(), entry.name().c_str(), /*followLink=*/true}).has_value();
}

Result<UniqueFd> makeObject(const Entry& entry, std::string_view typeCode) {
    if (typeCode == "D") return makeDirectory(entry.address(), kExecutablePermissions);
    if (entry.mustBeDirectory()) return failure(EISDIR);
    return makeFile(entry.address(), typeCode == "X" ? kExecutablePermissions : kFilePermissions);
}

}  // namespace

ErrorRef FileOperations::performOperationCreateFileobjectWithArguments(const Array& arguments) {
    return createFileSystemObjectAtPath(stringArgument(arguments, 0), stringArgument(arguments, 1));
}

ErrorRef FileOperations::createFileSystemObjectAtPath(const std::string& path,
                                                      std::string_view withTypeCode) {
    const bool isFolder = withTypeCode == "D";
    const bool known = withTypeCode == "F" || isFolder || withTypeCode == "X";
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked || !known) return makePosixError(EINVAL);
    const Result<Entry> entry = openEntry(*checked);
    if (entry && leadsToAnObject(*entry)) return makePosixError(EEXIST);
    const Result<UniqueFd> made =
        entry.and_then([&](const Entry& at) { return makeObject(at, withTypeCode); });
    if (!made) {
        return isFolder
                   ? makeFileError(FileAccess::write, made.error(), path)
                   : makeOperationError(OperationErrorCode::cannotCreateObject, {{path}, path});
    }
    // A failure from here on leaves the new object.
    if (::fchown(made->get(), 0, 0) != 0) return makePosixError(errno);
    return errorOf(syncObject(*made).and_then([&] { return syncDirectory(entry->parent()); }));
}

}  // namespace corvalen
