// SPDX-License-Identifier: MIT
// modify-acl: replaces the access control lists of one object.
#include <cerrno>
#include <optional>

#include "fileops/file_operations.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationModifyAclWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    const Data* data = dataArgument(arguments, 1);
    const std::optional<ExternalAclPair> lists =
        path && data != nullptr ? splitExternalAcl(data->view()) : std::nullopt;
    if (!lists) return makePosixError(EINVAL);
    Object object;
    int code = openObject(*path, &object);
    // Only a directory can have a default list.
    if (code == 0 && !lists->inheritable.empty() && !object.isDirectory()) code = EINVAL;
    if (code == 0) code = _extendedAcl.writeList(object.address(), AclKind::access, lists->access);
    if (code == 0 && object.isDirectory()) {
        code = lists->inheritable.empty()
                   ? _extendedAcl.removeList(object.address(), AclKind::inheritable)
                   : _extendedAcl.writeList(object.address(), AclKind::inheritable,
                                            lists->inheritable);
    }
    if (code != 0) return makePosixError(code);
    (void)_extendedAcl.setInheritedMark(object.address(), false);
    return nullptr;
}

}  // namespace corvalen
