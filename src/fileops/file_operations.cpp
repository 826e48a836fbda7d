// SPDX-License-Identifier: MIT
// Registration.
#include "fileops/file_operations.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include "fileops/immutable_flag.hpp"

namespace corvalen {

void FileOperations::registerMethods(MethodTable& table) {
    using Self = FileOperations;
    table.add("performOperationModifySystemfileWithArguments:", *this,
              &Self::performOperationModifySystemfileWithArguments);
    table.add("performOperationCreateFileobjectWithArguments:", *this,
              &Self::performOperationCreateFileobjectWithArguments);
    table.add("performOperationRenameFileobjectWithArguments:", *this,
              &Self::performOperationRenameFileobjectWithArguments);
    table.add("performOperationDeleteFileobjectsWithArguments:feedbackConnection:", *this,
              &Self::performOperationDeleteFileobjectsWithArguments);
    table.add("performOperationDeleteFoldercontentsWithArguments:feedbackConnection:", *this,
              &Self::performOperationDeleteFoldercontentsWithArguments);
    table.add("performOperationInspectFileobjectWithArguments:", *this,
              &Self::performOperationInspectFileobjectWithArguments);
    table.add("performOperationTouchFileobjectWithArguments:", *this,
              &Self::performOperationTouchFileobjectWithArguments);
    table.add("performOperationModifyProtectionWithArguments:", *this,
              &Self::performOperationModifyProtectionWithArguments);
    table.add("performOperationModifyHfsattrWithArguments:", *this,
              &Self::performOperationModifyHfsattrWithArguments);
    table.add("performOperationCreateLinkWithArguments:", *this,
              &Self::performOperationCreateLinkWithArguments);
    table.add("performOperationModifyAclWithArguments:", *this,
              &Self::performOperationModifyAclWithArguments);
}

std::uint32_t FileOperations::fileSystemIDForPath(const std::string& path) noexcept {
    struct statx attributes {};
    const int result = ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                               STATX_TYPE, &attributes);
    return result == 0 ? deviceIdentifier(attributes) : kNoFileSystemID;
}

}  // namespace corvalen
