// SPDX-License-Identifier: MIT
#include "helper/request_pipeline.hpp"

#include <cerrno>

#include "operations/operation_arguments.hpp"

namespace corvalen {
namespace {

/// Frees a reference at the end of the scope, and destroys its rights if `destroyingRights`: that
/// is the work of "discard-auth".
class ReferenceRelease {
  public:
    ReferenceRelease(std::unique_ptr<Authorization> reference, bool destroyingRights) noexcept
        : _reference(std::move(reference)), _destroyingRights(destroyingRights) {}
    ~ReferenceRelease() {
        if (!_reference || !_destroyingRights) return;
        try {
            _reference->destroyRights();
        } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor cannot report it
        }
    }
    ReferenceRelease(const ReferenceRelease&) = delete;
    ReferenceRelease& operator=(const ReferenceRelease&) = delete;

    [[nodiscard]] Authorization* get() const noexcept { return _reference.get(); }

  private:
    std::unique_ptr<Authorization> _reference;
    bool _destroyingRights;
};

ErrorRef errorForStatus(AuthorizationStatus status) {
    switch (status) {
        case kAuthorizationSuccess:
            return nullptr;
        case kAuthorizationDenied:
            return makePosixError(EPERM);
        case kAuthorizationCanceled:
            return makePosixError(ECANCELED);
        default:
            return makeOSStatusError(status);
    }
}

}  // namespace

ErrorRef checkAuthorization(AuthorizationService& service, const PrivilegedRequest& request,
                            const OperationEntry* operation) {
    if (request.authorizationData.size() != kAuthorizationExternalFormLength)
        return makePosixError(EINVAL);
    if (operation == nullptr || operation->identifier.empty() || operation->rightName.empty())
        return makePosixError(EINVAL);

    AuthorizationStatus status = kAuthorizationSuccess;
    const ReferenceRelease reference(
        service.createFromExternalForm(request.authorizationData, request.peer, &status),
        request.code == kDiscardAuthCode);
    if (status == kAuthorizationSuccess) {
        const auto purpose = [&] {
            static const Array none;
            return purposeOfRequest(*operation, request.arguments ? *request.arguments : none);
        };
        status = reference.get() != nullptr
                     ? reference.get()->copyRight(operation->rightName, purpose)
                     : kAuthorizationInternal;
    }
    return errorForStatus(status);
}

}  // namespace corvalen
