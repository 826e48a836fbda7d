// SPDX-License-Identifier: MIT
#include "cli/denial.hpp"

#include <unistd.h>

#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>

namespace corvalen::cli {
namespace {

constexpr std::int64_t kInteractionNotAllowed = -60007;
constexpr std::int64_t kInternal = -60008;

bool isStatus(const ErrorRef& error, std::int64_t status) {
    return error->domain() == kOSStatusErrorDomain && error->code() == status;
}

bool isPermissionErrorWithoutParticulars(const ErrorRef& error) {
    return error && error->domain() == kPosixErrorDomain && error->userInfo() == nullptr &&
           errnoFromPosixCode(error->code()) == EPERM;
}

std::string adviceForAsking(Asking asking) {
    switch (asking) {
        case Asking::switchedOff:
            return "Leave out --no-ask-password: an administrator's password is then asked for on "
                   "this terminal.";
        case Asking::noTerminal:
            return "Run it on a terminal, where an administrator's password can be typed, or as "
                   "root.";
        case Asking::onThisTerminal:
        case Asking::notNeeded:
            break;
    }
    return "Run it as root, or let an administrator authenticate.";
}

DenialText refusal(const Denial& denial) {
    if (!denial.hasPolkit)
        return {"not authorized: only root may do this",
                "No polkit answers on this machine that could ask for a password: run it as root."};
    if (denial.asking == Asking::onThisTerminal)
        return {"not authorized: the password was not accepted, or a rule denies the operation",
                "Give an administrator's password. 'pkaction --verbose --action-id " +
                    denial.right + "' shows who may."};
    return {"not authorized: polkit does not allow it to this user without a password",
            adviceForAsking(denial.asking)};
}

}  // namespace

DenialText denialText(const Denial& denial) {
    if (denial.isRightMissing)
        return {"not authorized: the right '" + denial.right + "' is not defined on this machine",
                "Define the rights as root: corvalenctl install-rights"};
    if (isStatus(denial.error, kInteractionNotAllowed))
        return {"not authorized: somebody has to authenticate, and nobody can be asked",
                adviceForAsking(denial.asking)};
    if (isStatus(denial.error, kInternal))
        return {"not authorized: the authority of this machine could not decide",
                "'corvalenctl status' shows which authority it is; see its log, as in 'journalctl "
                "-u polkit'."};
    const bool isRefusal = isPermissionErrorWithoutParticulars(denial.error);
    if (isRefusal && !denial.isRoot) return refusal(denial);
    return {describeFailure(denial.error),
            "'corvalenctl status' shows the authority that decides on this machine."};
}

std::optional<Denial> examineDenial(std::string_view operation, const ErrorRef& error,
                                    Asking asking) {
    const bool isDenied = failureKind(error) == FailureKind::notAuthorized;
    const bool canBeDenial = isDenied || isPermissionErrorWithoutParticulars(error);
    if (!canBeDenial || findOperation(operation) == nullptr) return std::nullopt;
    Denial denial{{}, error, asking, ::geteuid() == 0};
    const RightState state = rightState(operation, &denial.right);
    denial.hasPolkit = state != RightState::builtIn;
    denial.isRightMissing = state == RightState::missing;
    if (!isDenied && !denial.isRightMissing) return std::nullopt;
    return denial;
}

}  // namespace corvalen::cli
