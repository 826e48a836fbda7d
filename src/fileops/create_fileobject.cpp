// SPDX-License-Identifier: MIT
// create-fileobject: creates an empty file, an executable one, or a directory.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/new_object.hpp"
#include "platform/processes/thread_umask.hpp"

namespace corvalen {
namespace {

constexpr mode_t kFilePermissions = 0644;
constexpr mode_t kExecutablePermissions = 0755;

/// Follows a symlink; false for a dangling one.
bool leadsToAnObject(const Entry& entry) {
    Object object;
    return openObject({entry.parent(), entry.name().c_str(), true}, &object) == 0;
}

int makePlainFile(const Entry& entry, bool executable, UniqueFd* made) {
    if (entry.mustBeDirectory()) return EISDIR;
    return makeFile(entry.address(), executable ? kExecutablePermissions : kFilePermissions, made);
}

}  // namespace

ErrorRef FileOperations::performOperationCreateFileobjectWithArguments(const Array& arguments) {
    const ScopedUmask permissionsAsGiven(0);
    return createFileSystemObjectAtPath(stringArgument(arguments, 0), stringArgument(arguments, 1));
}

ErrorRef FileOperations::createFileSystemObjectAtPath(const std::string& path,
                                                      std::string_view withTypeCode) {
    const bool isFolder = withTypeCode == "D";
    const bool known = withTypeCode == "F" || isFolder || withTypeCode == "X";
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked || !known) return makePosixError(EINVAL);
    Entry entry;
    UniqueFd made;
    int code = openEntry(*checked, &entry);
    if (code == 0 && leadsToAnObject(entry)) return makePosixError(EEXIST);
    if (code == 0)
        code = isFolder ? makeDirectory(entry.address(), kExecutablePermissions, &made)
                        : makePlainFile(entry, withTypeCode == "X", &made);
    if (code != 0) {
        return isFolder
                   ? makeFileError(FileAccess::write, code, path)
                   : makeOperationError(OperationErrorCode::cannotCreateObject, {{path}, path});
    }
    if (::fchown(made.get(), 0, 0) != 0) return makePosixError(errno);
    code = syncObject(made.get());
    if (code == 0) code = syncDirectory(entry.parent());
    return code == 0 ? nullptr : makePosixError(code);
}

}  // namespace corvalen
