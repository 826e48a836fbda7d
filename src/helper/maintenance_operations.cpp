// SPDX-License-Identifier: MIT
// What the daemon does for itself when it is removed from a machine.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "helper/log_line.hpp"
#include "helper/privileged_helper.hpp"

namespace corvalen {
namespace {

/// A path as an open folder and one name in it.
struct ParentAndName {
    UniqueFd parent;
    std::string name;
    /// A trailing slash says that the object has to be a folder.
    bool mustBeFolder = false;
};

/// Opens the folder that a path names. A failure leaves the parent empty, with errno.
ParentAndName openParent(std::string_view path) {
    ParentAndName result;
    const std::size_t end = path.find_last_not_of('/');
    if (end == std::string_view::npos) {
        result.name = "/";
        result.parent.reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        return result;
    }
    result.mustBeFolder = end + 1 < path.size();
    path = path.substr(0, end + 1);
    const std::size_t slash = path.rfind('/');
    result.name = path.substr(slash == std::string_view::npos ? 0 : slash + 1);
    const std::string folder(slash == std::string_view::npos ? "." : path.substr(0, slash + 1));
    result.parent.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return result;
}

/// Takes the flags off that keep an object from being removed. False when that cannot be done.
bool clearProtection(FileFlags& fileFlags, const ObjectAddress& object,
                     const struct statx& attributes) {
    std::uint32_t flags = 0;
    if (fileFlags.readFlags(object, attributes, &flags) != 0) return true;  // it keeps none
    if ((flags & kSystemProtectionFlags) != 0) return false;
    if ((flags & kUserProtectionFlags) == 0) return true;
    return fileFlags.setFlags(object, flags & ~kUserProtectionFlags) == 0;
}

}  // namespace

ErrorRef QRLPrivilegedHelper::deleteFileSystemObjectsWithPaths(const Array& paths) {
    ErrorRef result;
    for (const Value& element : paths) {
        const std::string* path = element.string();
        if (path == nullptr) continue;
        _log.debug(LogLine("Deleting file system object '{}'.", *path));
        enforceRemovalOfFileSystemObjectAtPath(*path, &result);
    }
    return result;
}

bool QRLPrivilegedHelper::enforceRemovalOfFileSystemObjectAtPath(std::string_view path,
                                                                 ErrorRef* error) {
    if (path.empty() || path.find('\0') != std::string_view::npos)
        return failWithErrno(error, EINVAL);
    // The folder stays the one that was opened, and what is examined stays the anchored object,
    // whoever renames things meanwhile.
    const ParentAndName object = openParent(path);
    if (!object.parent) return failWithErrno(error, errno);
    const UniqueFd anchor = openAnchor({object.parent.get(), object.name.c_str()});
    struct statx attributes {};
    if (!anchor || ::statx(anchor.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &attributes) != 0)
        return failWithErrno(error, errno);
    if (isWhiteout(attributes)) return failWithErrno(error, EIO);
    const bool isFolder = S_ISDIR(attributes.stx_mode);
    if (object.mustBeFolder && !isFolder) return failWithErrno(error, ENOTDIR);

    if (!clearProtection(*_fileFlags, {anchor.get(), ""}, attributes))
        return failWithErrno(error, EIO);
    if (::unlinkat(object.parent.get(), object.name.c_str(), isFolder ? AT_REMOVEDIR : 0) != 0)
        return failWithErrno(error, errno);
    return true;
}

ErrorRef QRLPrivilegedHelper::prepareUninstall() {
    AuthorizationStatus status = kAuthorizationSuccess;
    const auto reference = _authorization->create(&status);
    if (status != kAuthorizationSuccess) return makeOSStatusError(status);
    _operationSet->removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
        *_authorization, reference.get());
    return nullptr;
}

}  // namespace corvalen
