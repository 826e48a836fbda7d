// SPDX-License-Identifier: MIT
// prop-permissions
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/object_permissions.hpp"
#include "treewalk/propagated_acl.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

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

/// The ownership and permissions to propagate, read from the top directory.
struct Model {
    uid_t owner = 0;
    gid_t group = 0;
    PropagatedAcl list;
};

/// Reads the model. An error ends the operation before any change.
Result<Model> readModel(const SearchedFolder& folder, unsigned selection, ExtendedAcl& acl) {
    struct stat attributes {};
    const int status = folder.descriptor ? ::fstat(folder.descriptor.get(), &attributes)
                                         : ::stat(folder.path.c_str(), &attributes);
    if (status != 0) return failure(errno);
    Model model;
    model.owner = attributes.st_uid;
    model.group = attributes.st_gid;
    if (!folder.descriptor) return model;
    const Result<> read = model.list.read(acl, folder.descriptor, attributes.st_mode);
    if (!read) return failure(read.error());
    if ((selection & kMarkInherited) != 0) model.list.markAsInherited();
    return model;
}

/// Changes the objects of one walk, each relative to its open directory.
class Propagation {
  public:
    Propagation(WalkAhead& walk, const Model& model, unsigned selection, ExtendedAcl& acl)
        : _walk(walk), _model(model), _selection(selection), _acl(acl) {}

    /// Changes the object that the walk returned; null on success. Reads its attributes again,
    /// because the walk may have read them ahead.
    ErrorRef change(const WalkAhead::Object& object) {
        _walk.forgetAttributes();
        if ((_selection & kAccessControlList) != 0) {
            const Result<> changed = changeList(object);
            if (!changed)
                return errorAt(object, OperationErrorCode::cannotSetAccessControlList, changed);
            // Setting the list changed the mode.
            _walk.forgetAttributes();
        }
        if ((_selection & (kOwnership | kMode)) == 0) return nullptr;
        const struct statx* attributes = _walk.attributes();
        if (attributes == nullptr)
            return errorAt(object, OperationErrorCode::cannotReadAttributes, failure(errno));
        if ((_selection & kOwnership) != 0) {
            if (ErrorRef error = propagateOwner(object, *attributes)) return error;
        }
        return (_selection & kMode) != 0 ? propagateMode(object, *attributes) : nullptr;
    }

  private:
    /// Null if the change of the object succeeded.
    static ErrorRef errorAt(const WalkAhead::Object& object, OperationErrorCode code,
                            const Result<>& changed) {
        if (changed) return nullptr;
        OperationErrorDetails details;
        details.filePath = object.path;
        details.underlyingError = makePosixError(changed.error());
        return makeOperationError(code, details);
    }

    /// Uses the descriptor of an entered directory, which saves the look-up of its name.
    static ObjectAddress addressOf(const WalkAhead::Object& object) noexcept {
        if (object.entered) return {object.entered};
        return {object.parent, object.name.data()};
    }

    /// For a symlink, changes the list of its target, which is opened first so that it cannot be
    /// swapped.
    Result<> changeList(const WalkAhead::Object& object) {
        if (object.type != EntryType::symbolicLink) {
            const struct statx* attributes = _walk.attributes();
            if (attributes == nullptr) return failure(errno);
            return _model.list.applyTo(_acl, {object.parent, object.name.data()},
                                       attributes->stx_mode, takenBits(attributes->stx_mode));
        }
        const Result<UniqueFd> target =
            openAnchor({object.parent, object.name.data(), /*followLink=*/true});
        if (!target) return failure(target.error());
        struct stat attributes {};
        if (::fstat(target->get(), &attributes) != 0) return failure(errno);
        // A mode applies to the symlink, which has none, not to its target.
        return _model.list.applyTo(_acl, {*target, ""}, attributes.st_mode, 0);
    }

    ErrorRef propagateOwner(const WalkAhead::Object& object, const struct statx& attributes) {
        if (losesRights(object, attributes)) {
            Dictionary userInfo;
            userInfo.set(kFilePathKey, object.path);
            return makePosixError(EINVAL, std::move(userInfo));
        }
        const uid_t owner = (_selection & kOwner) != 0 ? _model.owner : kUnchangedID;
        const gid_t group = (_selection & kGroup) != 0 ? _model.group : kUnchangedID;
        return errorAt(object, OperationErrorCode::cannotChangeOwner,
                       changeOwner(addressOf(object), owner, group));
    }

    /// A change of owner clears set-ID bits and file capabilities. Checks only executable files for
    /// capabilities: on others they have no effect, and checking every file costs a twentieth of
    /// the whole time.
    static bool losesRights(const WalkAhead::Object& object, const struct statx& attributes) {
        if ((attributes.stx_mode & (S_ISUID | S_ISGID)) != 0) return true;
        return S_ISREG(attributes.stx_mode) && (attributes.stx_mode & kExecuteBits) != 0 &&
               hasFileCapabilities(addressOf(object));
    }

    ErrorRef propagateMode(const WalkAhead::Object& object, const struct statx& attributes) {
        if (S_ISLNK(attributes.stx_mode)) return nullptr;
        const mode_t mode = propagatedMode(attributes.stx_mode);
        const bool isSetID = (mode & (S_ISUID | S_ISGID)) != 0;
        return errorAt(object, OperationErrorCode::cannotChangePermissions,
                       isSetID ? propagateSetID(object) : changeMode(addressOf(object), mode));
    }

    /// Reads and sets the mode through one descriptor: else an object swapped in meanwhile would
    /// gain the set-ID bits.
    Result<> propagateSetID(const WalkAhead::Object& object) {
        const Result<UniqueFd> anchor = openAnchor({object.parent, object.name.data()});
        if (!anchor) return failure(anchor.error());
        struct stat attributes {};
        if (::fstat(anchor->get(), &attributes) != 0) return failure(errno);
        if (S_ISLNK(attributes.st_mode)) return {};
        return changeMode({*anchor}, propagatedMode(attributes.st_mode));
    }

    /// An object that was given a list with named entries keeps its group bits: they are its mask.
    [[nodiscard]] mode_t propagatedMode(std::uint32_t mode) const noexcept {
        std::uint32_t taken = takenBits(mode);
        if ((_selection & kAccessControlList) != 0 && _model.list.hasNamedEntries())
            taken &= ~std::uint32_t{S_IRWXG};
        return (mode & kPermissionBits & ~taken) | (_model.list.permissionBits() & taken);
    }

    /// Returns the selected permission bits; without the directory bit an object keeps its own
    /// execute bits.
    [[nodiscard]] std::uint32_t takenBits(std::uint32_t mode) const noexcept {
        std::uint32_t taken = 0;
        if ((_selection & kOwnerPermissions) != 0) taken |= S_IRWXU;
        if ((_selection & kGroupPermissions) != 0) taken |= S_IRWXG;
        if ((_selection & kOthersPermissions) != 0) taken |= S_IRWXO;
        return (mode & S_IFDIR) == 0 ? taken & ~kExecuteBits : taken;
    }

    WalkAhead& _walk;
    const Model& _model;
    const unsigned _selection;
    ExtendedAcl& _acl;
};

}  // namespace

ErrorRef TreeWalkOperations::performOperationPropPermissionsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(arguments);
    if (!folder) return folder.error();
    const auto expected = static_cast<double>(numberArgument(arguments, 1).unsignedIntegerValue());
    const bool stay = numberArgument(arguments, 2).boolValue();
    const unsigned selection = numberArgument(arguments, 3).unsignedCharValue();
    const Result<Model> model = readModel(*folder, selection, _acl);
    if (!model) return makePosixError(model.error());

    WalkAhead walk(*std::move(folder), stay, STATX_TYPE | STATX_MODE);
    Propagation propagation(walk, *model, selection, _acl);
    const double divisor = expected == 0 ? 1.0 : expected;
    ErrorRef error;
    while (const WalkAhead::Object* object = walk.next()) {
        error = propagation.change(*object);
        if (error) break;
        const std::uint64_t count = object->index + 1;
        if (count % kObjectsPerProgress == 0)
            sendProgress(feedbackConnection, static_cast<double>(count) / divisor);
    }
    if (walk.wasCancelled()) error = cancelledError(currentCancellation());
    sendProgress(feedbackConnection, 1.0);
    return error;
}

}  // namespace corvalen
