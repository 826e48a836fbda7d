// SPDX-License-Identifier: MIT
// prop-permissions
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

#include "operations/errors.hpp"
#include "platform/object_permissions.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/propagated_acl.hpp"
#include "treewalk/searched_folder.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

// Bits of the selection.
constexpr unsigned kAccessControlList = 0x01;
constexpr unsigned kOthersPermissions = 0x02;
constexpr unsigned kGroupPermissions = 0x04;
constexpr unsigned kOwnerPermissions = 0x08;
constexpr unsigned kGroup = 0x10;
constexpr unsigned kOwner = 0x20;
constexpr unsigned kMarkInherited = 0x40;
constexpr unsigned kOwnership = kGroup | kOwner;
constexpr unsigned kMode = kOthersPermissions | kGroupPermissions | kOwnerPermissions;

constexpr std::uint32_t kPermissionBits = 07777;
constexpr std::uint32_t kExecuteBits = 0111;
constexpr std::uint64_t kObjectsPerProgress = 100;

/// The folder whose permissions are handed on.
struct Model {
    uid_t owner = 0;
    gid_t group = 0;
    std::uint32_t mode = 0;
    PropagatedAcl list;
};

/// Reads the model; null or the error that ends the operation before it begins.
ErrorRef readModel(const SearchedFolder& folder, unsigned selection, ExtendedAcl& acl,
                   Model* model) {
    struct stat attributes {};
    const int status = folder.descriptor ? ::fstat(folder.descriptor.get(), &attributes)
                                         : ::stat(folder.path.c_str(), &attributes);
    if (status != 0) return makePosixError(errno);
    model->owner = attributes.st_uid;
    model->group = attributes.st_gid;
    model->mode = attributes.st_mode;
    if (!folder.descriptor) return nullptr;
    if (const int error = model->list.read(acl, folder.descriptor.get()))
        return makePosixError(error);
    if ((selection & kMarkInherited) != 0) model->list.markAsInherited();
    return nullptr;
}

/// Changes the objects of one walk, each relative to the open folder that holds it.
class Propagation {
  public:
    Propagation(QRLDirectoryEnumerator& walk, const Model& model, unsigned selection,
                ExtendedAcl& acl)
        : _walk(walk), _model(model), _selection(selection), _acl(acl) {
        walk.setAttributeMask(STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID);
    }

    /// Changes the object that the walk has given; null when all went well.
    ErrorRef change(const QRLDirectoryEnumerator::Entry& entry) {
        if ((_selection & kAccessControlList) != 0) {
            if (const int error = changeList(entry))
                return failure(OperationErrorCode::cannotSetAccessControlList, error);
        }
        if ((_selection & (kOwnership | kMode)) == 0) return nullptr;
        // The list has changed the mode that the walk may know already.
        if ((_selection & kAccessControlList) != 0) _walk.forgetAttributes();
        const struct statx* attributes = _walk.attributes();
        if (attributes == nullptr) return failure(OperationErrorCode::cannotReadAttributes, errno);
        if ((_selection & kOwnership) != 0) {
            if (ErrorRef error = changeOwner(entry, *attributes)) return error;
        }
        return (_selection & kMode) != 0 ? changeMode(entry, *attributes) : nullptr;
    }

  private:
    ErrorRef failure(OperationErrorCode code, int error) {
        OperationErrorDetails details;
        details.filePath = _walk.currentAbsolutePathForDirectoryEntry();
        details.underlyingError = makePosixError(error);
        return makeOperationError(code, details);
    }

    /// The list of a link is that of exactly the object it leads to, which is opened first.
    int changeList(const QRLDirectoryEnumerator::Entry& entry) {
        if (entry.type != EntryType::symbolicLink) {
            const struct statx* attributes = _walk.attributes();
            if (attributes == nullptr) return errno;
            const ObjectAddress object{_walk.parentDescriptor(), entry.name.data()};
            return _model.list.applyTo(_acl, object, attributes->stx_mode);
        }
        const UniqueFd target =
            openAnchor({_walk.parentDescriptor(), entry.name.data(), /*followLink=*/true});
        struct stat attributes {};
        if (!target || ::fstat(target.get(), &attributes) != 0) return errno;
        return _model.list.applyTo(_acl, {target.get(), ""}, attributes.st_mode);
    }

    ErrorRef changeOwner(const QRLDirectoryEnumerator::Entry& entry,
                         const struct statx& attributes) {
        if ((attributes.stx_mode & (S_ISUID | S_ISGID)) != 0) {
            Dictionary userInfo;
            userInfo.set(kFilePathKey, _walk.currentAbsolutePathForDirectoryEntry());
            return makePosixError(EINVAL, std::move(userInfo));
        }
        const uid_t owner = (_selection & kOwner) != 0 ? _model.owner : kUnchangedID;
        const gid_t group = (_selection & kGroup) != 0 ? _model.group : kUnchangedID;
        const int entered = _walk.enteredDescriptor();
        const int error =
            entered >= 0 ? changeOwnerOf(entered, owner, group)
                         : changeOwnerAt(_walk.parentDescriptor(), entry.name.data(), owner, group);
        return error == 0 ? nullptr : failure(OperationErrorCode::cannotChangeOwner, error);
    }

    ErrorRef changeMode(const QRLDirectoryEnumerator::Entry& entry,
                        const struct statx& attributes) {
        if (S_ISLNK(attributes.stx_mode)) return nullptr;
        const mode_t mode = propagatedMode(attributes.stx_mode);
        const int entered = _walk.enteredDescriptor();
        int error = 0;
        if ((mode & (S_ISUID | S_ISGID)) != 0) {
            error = changeModeOfSetID(entry);
        } else if (entered >= 0) {
            error = changeModeOf(entered, mode);
        } else {
            error = changeModeAt(_walk.parentDescriptor(), entry.name.data(), mode);
        }
        return error == 0 ? nullptr : failure(OperationErrorCode::cannotChangePermissions, error);
    }

    /// Set-ID bits go only to the very object they were read from: another one that was put in its
    /// place meanwhile would gain them.
    int changeModeOfSetID(const QRLDirectoryEnumerator::Entry& entry) {
        const UniqueFd anchor = openAnchor({_walk.parentDescriptor(), entry.name.data()});
        struct stat attributes {};
        if (!anchor || ::fstat(anchor.get(), &attributes) != 0) return errno;
        if (S_ISLNK(attributes.st_mode)) return 0;
        return changeModeOfAnchor(anchor.get(), propagatedMode(attributes.st_mode));
    }

    /// Set-ID and sticky bits stay, and execute bits of everything that is not a folder, which the
    /// single folder bit tells.
    [[nodiscard]] mode_t propagatedMode(std::uint32_t mode) const noexcept {
        std::uint32_t taken = 0;
        if ((_selection & kOwnerPermissions) != 0) taken |= S_IRWXU;
        if ((_selection & kGroupPermissions) != 0) taken |= S_IRWXG;
        if ((_selection & kOthersPermissions) != 0) taken |= S_IRWXO;
        if ((mode & S_IFDIR) == 0) taken &= ~kExecuteBits;
        return (mode & kPermissionBits & ~taken) | (_model.mode & taken);
    }

    QRLDirectoryEnumerator& _walk;
    const Model& _model;
    const unsigned _selection;
    ExtendedAcl& _acl;
};

}  // namespace

ErrorRef TreeWalkOperations::performOperationPropPermissionsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    SearchedFolder folder;
    if (ErrorRef error = openSearchedFolder(arguments, &folder)) return error;
    const auto expected = static_cast<double>(numberAt(arguments, 1).unsignedIntegerValue());
    const bool stay = numberAt(arguments, 2).boolValue();
    const unsigned selection = numberAt(arguments, 3).unsignedCharValue();
    Model model;
    if (ErrorRef error = readModel(folder, selection, _acl, &model)) return error;

    QRLDirectoryEnumerator walk(std::move(folder.descriptor), folder.path, stay);
    Propagation propagation(walk, model, selection, _acl);
    const double divisor = expected == 0 ? 1.0 : expected;
    ErrorRef error;
    std::uint64_t count = 1;
    while (const QRLDirectoryEnumerator::Entry* entry = walk.next()) {
        error = propagation.change(*entry);
        if (error) break;
        if (count % kObjectsPerProgress == 0)
            sendProgress(feedbackConnection, static_cast<double>(count) / divisor);
        ++count;
    }
    sendProgress(feedbackConnection, 1.0);
    return error;
}

}  // namespace corvalen
