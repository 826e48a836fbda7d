// SPDX-License-Identifier: MIT
// modify-acl: replaces the access control list of one object, symlinks followed, and the default
// list of a directory. Arguments: path (S), the access list in the kernel's form (D). For a
// directory its default list may follow in the same data; without one it loses its default list. A
// failure may leave the first list set.
#include <cerrno>
#include <optional>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationModifyAclWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    const Data* data = dataArgument(arguments, 1);
    const std::optional<ExternalAclPair> lists =
        path && data != nullptr ? splitExternalAcl(data->view()) : std::nullopt;
    if (!lists) return makePosixError(EINVAL);
    const Result<Object> object = openObject(*path);
    if (!object) return makePosixError(object.error());
    // Only a directory can have a default list.
    if (!lists->inheritable.empty() && !object->isDirectory()) return makePosixError(EINVAL);
    const ObjectAddress address = object->address();
    Result<> changed = _extendedAcl.writeList(address, AclKind::access, lists->access);
    if (changed && object->isDirectory()) {
        changed = lists->inheritable.empty()
                      ? _extendedAcl.removeList(address, AclKind::inheritable)
                      : _extendedAcl.writeList(address, AclKind::inheritable, lists->inheritable);
    }
    if (!changed) return makePosixError(changed.error());
    // A mark that stays is shown, but grants nothing.
    (void)_extendedAcl.setInheritedMark(address, false);
    return nullptr;
}

}  // namespace corvalen
