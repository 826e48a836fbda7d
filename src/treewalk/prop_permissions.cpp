// SPDX-License-Identifier: MIT
// prop-permissions: gives everything below a directory the chosen parts of the directory's owner,
// group, permission bits and access control list. Arguments: directory (S); expected number of
// objects, for the fraction, or 0 for the count itself; stay on its file system (a Boolean);
// selection (N). Skips the contents of directories that cannot be listed. The first failure ends
// it, a symlink to nothing too if the list is selected; what was changed stays changed. Not synced.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/extended_acl.hpp"
#include "platform/files/object_address.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen {
namespace {

// The access control list that the directory hands on to the objects below it.

/// The named entries of a directory's list. An object that gets them keeps its own entries for
/// owner, owning group and others, which belong to its mode. Its mask becomes the union of the
/// named entries and the owning group, so that nobody gains or loses more than the list says. For
/// the same reason the named entries are cut to the mask of the directory's list, and the object's
/// owning group to its old mask. Directories also get the default list unchanged.
class PropagatedAcl {
  public:
    /// Reads the lists of the open directory with this st_mode.
    [[nodiscard]] Result<> read(ExtendedAcl& acl, Descriptor folder, std::uint32_t mode);
    /// Returns the directory's permission bits, with the owning group's permissions as group bits
    /// even if a list puts its mask there.
    [[nodiscard]] std::uint32_t permissionBits() const noexcept { return _permissionBits; }
    /// Whether objects get a list, so that their group bits become a mask.
    [[nodiscard]] bool hasNamedEntries() const noexcept { return !_named.empty(); }
    /// Marks the copies as inherited, not the directory's own list. No effect without a list.
    void markAsInherited() noexcept;

    /// Writes the list to an object with this st_mode, or removes the object's list if there is
    /// none to hand on. With named entries, the group bits in `taken` come from the directory.
    [[nodiscard]] Result<> applyTo(ExtendedAcl& acl, const ObjectAddress& object,
                                   std::uint32_t mode, std::uint32_t taken) const;

  private:
    /// Returns whether there was a list to change.
    Result<bool> applyAccessList(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                                 std::uint32_t taken) const;
    Result<> applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const;
    [[nodiscard]] bool exists() const noexcept { return !_named.empty() || !_inheritable.empty(); }

    std::vector<AclEntry> _named;
    unsigned _namedPermissions = 0;
    std::uint32_t _permissionBits = 0;
    ExternalAcl _inheritable;
    bool _inherited = false;
};

constexpr unsigned kGroupShift = 3;

/// Permissions of a list apart from its named entries. The owning group's are cut to the mask.
struct BasePermissions {
    unsigned owner = 0;
    unsigned group = 0;
    unsigned others = 0;
    unsigned mask = kAllAclPermissions;

    static BasePermissions ofMode(std::uint32_t mode) noexcept {
        return {mode >> 6U & kAllAclPermissions, mode >> kGroupShift & kAllAclPermissions,
                mode & kAllAclPermissions};
    }
    static BasePermissions ofList(const ExternalAcl& list) {
        BasePermissions base;
        for (const AclEntry& entry : entriesOf(list)) {
            if (entry.tag == acl_tag::kOwner) base.owner = entry.permissions;
            if (entry.tag == acl_tag::kOwningGroup) base.group = entry.permissions;
            if (entry.tag == acl_tag::kMask) base.mask = entry.permissions;
            if (entry.tag == acl_tag::kOthers) base.others = entry.permissions;
        }
        base.group &= base.mask;
        return base;
    }
};

Result<> PropagatedAcl::read(ExtendedAcl& acl, Descriptor folder, std::uint32_t mode) {
    _permissionBits = mode & (S_IRWXU | S_IRWXG | S_IRWXO);
    const ObjectAddress address{folder, ""};
    const Result<ExternalAcl> list = acl.readList(address, AclKind::access);
    if (!list) return failure(list.error());
    Result<ExternalAcl> inheritable = acl.readList(address, AclKind::inheritable);
    if (!inheritable) return failure(inheritable.error());
    const Result<bool> inherited = acl.readInheritedMark(address);
    if (!inherited) return failure(inherited.error());
    _inheritable = *std::move(inheritable);
    _inherited = *inherited;
    if (list->empty()) return {};
    const BasePermissions base = BasePermissions::ofList(*list);
    _permissionBits = (_permissionBits & ~unsigned{S_IRWXG}) | base.group << kGroupShift;
    for (AclEntry entry : entriesOf(*list)) {
        if (!entry.isNamed()) continue;
        entry.permissions &= base.mask;
        _namedPermissions |= entry.permissions;
        _named.push_back(entry);
    }
    return {};
}

void PropagatedAcl::markAsInherited() noexcept {
    _inherited = exists();
}

Result<> PropagatedAcl::applyTo(ExtendedAcl& acl, const ObjectAddress& object, std::uint32_t mode,
                                std::uint32_t taken) const {
    const Result<bool> touched = applyAccessList(acl, object, mode, taken);
    if (!touched) return failure(touched.error());
    if (S_ISDIR(mode)) {
        if (const Result<> applied = applyInheritableList(acl, object); !applied) return applied;
    } else if (!*touched) {
        return {};
    }
    const bool hasList = !_named.empty() || (S_ISDIR(mode) && !_inheritable.empty());
    return acl.setInheritedMark(object, _inherited && hasList);
}

Result<bool> PropagatedAcl::applyAccessList(ExtendedAcl& acl, const ObjectAddress& object,
                                            std::uint32_t mode, std::uint32_t taken) const {
    const Result<ExternalAcl> read = acl.readList(object, AclKind::access);
    if (!read) return failure(read.error());
    const ExternalAcl& old = *read;
    // Nothing to do if neither side has a list. A list to remove is replaced by its own three base
    // entries: removing it would leave its mask as the group's permissions.
    if (old.empty() && _named.empty()) return false;
    BasePermissions base =
        old.empty() ? BasePermissions::ofMode(mode) : BasePermissions::ofList(old);
    if (!_named.empty()) {
        const unsigned group = (taken & S_IRWXG) >> kGroupShift;
        base.group = (base.group & ~group) | (_permissionBits >> kGroupShift & group);
    }
    std::vector<AclEntry> entries{{acl_tag::kOwner, base.owner}};
    const auto appendNamed = [&](unsigned tag) {
        std::copy_if(_named.begin(), _named.end(), std::back_inserter(entries),
                     [tag](const AclEntry& entry) { return entry.tag == tag; });
    };
    appendNamed(acl_tag::kNamedUser);
    entries.push_back({acl_tag::kOwningGroup, base.group});
    appendNamed(acl_tag::kNamedGroup);
    if (!_named.empty()) entries.push_back({acl_tag::kMask, base.group | _namedPermissions});
    entries.push_back({acl_tag::kOthers, base.others});
    return acl.writeList(object, AclKind::access, externalAclOf(entries)).map([] { return true; });
}

Result<> PropagatedAcl::applyInheritableList(ExtendedAcl& acl, const ObjectAddress& object) const {
    if (_inheritable.empty()) return acl.removeList(object, AclKind::inheritable);
    return acl.writeList(object, AclKind::inheritable, _inheritable);
}

// Bits of the selection, of which only the low byte counts.
constexpr unsigned kAccessControlList = 0x01;
constexpr unsigned kOthersPermissions = 0x02;
constexpr unsigned kGroupPermissions = 0x04;
constexpr unsigned kOwnerPermissions = 0x08;
constexpr unsigned kGroup = 0x10;
constexpr unsigned kOwner = 0x20;
constexpr unsigned kMarkInherited = 0x40;  // with kAccessControlList
constexpr unsigned kOwnership = kGroup | kOwner;
constexpr unsigned kMode = kOthersPermissions | kGroupPermissions | kOwnerPermissions;

constexpr std::uint32_t kExecuteBits = 0111;
constexpr std::uint32_t kAccessBits = 0666;  // to read and write
constexpr std::uint64_t kObjectsPerProgress = 100;

/// The ownership and permissions to propagate, read from the top directory.
struct Model {
    uid_t owner = 0;
    gid_t group = 0;
    PropagatedAcl list;
};

/// Reads the model. An error ends the operation before any change. A directory that cannot be
/// opened needs no list: the walk of it is empty.
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

/// Whether an object has rights that a change of its owner may clear (chown(2)): set-ID bits, and
/// file capabilities, which have an effect on executable files only.
bool losesRights(const ObjectAddress& object, const struct statx& attributes) {
    if ((attributes.stx_mode & (S_ISUID | S_ISGID)) != 0) return true;
    return S_ISREG(attributes.stx_mode) && (attributes.stx_mode & kExecuteBits) != 0 &&
           hasFileCapabilities(object);
}

/// Changes the objects of one walk, each relative to its open directory.
class Propagation {
  public:
    Propagation(WalkAhead& walk, const Model& model, unsigned selection, ExtendedAcl& acl)
        : _walk(walk), _model(model), _selection(selection), _acl(acl) {}

    /// Changes the object that the walk returned; null on success.
    ErrorRef change(const WalkAhead::Object& object) {
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
            if (ErrorRef error = propagateOwner(object)) return error;
        }
        return (_selection & kMode) != 0 ? propagateMode(object, *attributes) : nullptr;
    }

  private:
    /// Null if the change of the object succeeded.
    static ErrorRef errorAt(const WalkAhead::Object& object, OperationErrorCode code,
                            const Result<>& changed) {
        if (changed) return nullptr;
        const std::string path = object.path();
        OperationErrorDetails details;
        details.filePath = path;
        details.underlyingError = makePosixError(changed.error());
        return makeOperationError(code, details);
    }

    /// Examines and changes through one descriptor: else an object put in its place would get a
    /// list that was made from its mode. For a symlink, changes the list of its target.
    Result<> changeList(const WalkAhead::Object& object) {
        if (object.entered) {
            const struct statx* attributes = _walk.attributes();
            if (attributes == nullptr) return failure(errno);
            return _model.list.applyTo(_acl, object.address(), attributes->stx_mode,
                                       takenBits(attributes->stx_mode));
        }
        const bool isLink = object.type == EntryType::symbolicLink;
        const Result<UniqueFd> anchor = openAnchor({object.parent, object.name.data(), isLink});
        if (!anchor) return failure(anchor.error());
        struct stat attributes {};
        if (::fstat(anchor->get(), &attributes) != 0) return failure(errno);
        // A mode applies to the symlink, which has none, not to its target.
        const std::uint32_t taken = isLink ? 0 : takenBits(attributes.st_mode);
        return _model.list.applyTo(_acl, {*anchor, ""}, attributes.st_mode, taken);
    }

    ErrorRef propagateOwner(const WalkAhead::Object& object) {
        if (_walk.passesTest()) {
            Dictionary userInfo;
            userInfo.set(kFilePathKey, object.path());
            return makePosixError(EINVAL, std::move(userInfo));
        }
        const uid_t owner = (_selection & kOwner) != 0 ? _model.owner : kUnchangedID;
        const gid_t group = (_selection & kGroup) != 0 ? _model.group : kUnchangedID;
        return errorAt(object, OperationErrorCode::cannotChangeOwner,
                       changeOwner(object.address(), owner, group));
    }

    ErrorRef propagateMode(const WalkAhead::Object& object, const struct statx& attributes) {
        if (S_ISLNK(attributes.stx_mode)) return nullptr;
        const mode_t mode = propagatedMode(attributes.stx_mode);
        const bool keepsRights = (mode & (S_ISUID | S_ISGID)) != 0 ||
                                 (changedBits(attributes.stx_mode) & kAccessBits) != kAccessBits;
        const bool mayBeSwapped = keepsRights && !object.entered;
        return errorAt(
            object, OperationErrorCode::cannotChangePermissions,
            mayBeSwapped ? propagateModeOfOne(object) : changeMode(object.address(), mode));
    }

    /// Reads and sets the mode through one descriptor: else an object swapped in meanwhile would
    /// gain the bits that the other one keeps.
    Result<> propagateModeOfOne(const WalkAhead::Object& object) {
        const Result<UniqueFd> anchor = openAnchor({object.parent, object.name.data()});
        if (!anchor) return failure(anchor.error());
        struct stat attributes {};
        if (::fstat(anchor->get(), &attributes) != 0) return failure(errno);
        if (S_ISLNK(attributes.st_mode)) return {};
        return changeMode({*anchor}, propagatedMode(attributes.st_mode));
    }

    /// An object that was given a list with named entries keeps its group bits: they are its mask.
    [[nodiscard]] std::uint32_t changedBits(std::uint32_t mode) const noexcept {
        const bool hasMask =
            (_selection & kAccessControlList) != 0 && _model.list.hasNamedEntries();
        return hasMask ? takenBits(mode) & ~std::uint32_t{S_IRWXG} : takenBits(mode);
    }
    [[nodiscard]] mode_t propagatedMode(std::uint32_t mode) const noexcept {
        const std::uint32_t changed = changedBits(mode);
        return (mode & kPermissionBits & ~changed) | (_model.list.permissionBits() & changed);
    }

    /// Returns the permission bits that an object with this mode takes from the directory. Kept:
    /// sockets and block devices have the bit S_IFDIR too; only objects without it keep their own
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
    const bool stayOnFileSystem = numberArgument(arguments, 2).boolValue();
    const unsigned selection = numberArgument(arguments, 3).unsignedCharValue();
    const Result<Model> model = readModel(*folder, selection, _acl);
    if (!model) return makePosixError(model.error());

    WalkAhead walk(*std::move(folder), stayOnFileSystem, STATX_TYPE | STATX_MODE);
    // A new mode depends on the old one, which must not be that of an object since replaced. A
    // change of owner depends on nothing: the kernel drops set-ID bits that came meanwhile.
    if ((selection & (kMode | kAccessControlList)) != 0) walk.examineLate();
    walk.setTest(losesRights);
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
