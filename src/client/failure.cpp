// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <cerrno>
#include <corvalen/failure.hpp>
#include <string_view>

#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {
namespace {

struct StatusText {
    AuthorizationStatus status;
    std::string_view text;
};

constexpr StatusText kStatusTexts[] = {
    {kAuthorizationInvalidSet, "The authorization right is not valid."},
    {kAuthorizationInvalidRef, "The authorization is not valid."},
    {kAuthorizationInvalidPointer, "The name of the authorization right is not valid."},
    {kAuthorizationDenied, "The authorization was denied."},
    {kAuthorizationCanceled, "The authorization was canceled by the user."},
    {kAuthorizationInteractionNotAllowed,
     "The authorization needs a user who can be asked, and there is none."},
    {kAuthorizationInternal, "The authority of this machine could not decide."},
};

struct CocoaText {
    std::int64_t code;
    int errnoValue;
    std::string_view text;
};

constexpr CocoaText kCocoaTexts[] = {
    {cocoa::kFileNoSuchFile, ENOENT, "The file does not exist."},
    {cocoa::kFileReadNoSuchFile, ENOENT, "The file does not exist."},
    {cocoa::kFileReadUnknown, EIO, "The file could not be read."},
    {cocoa::kFileReadNoPermission, EACCES, "The file could not be read: no permission."},
    {cocoa::kFileWriteUnknown, EIO, "The file could not be changed."},
    {cocoa::kFileWriteNoPermission, EACCES, "The file could not be changed: no permission."},
    {cocoa::kFileWriteFileExists, EEXIST, "A file with that name exists already."},
    {cocoa::kFileWriteOutOfSpace, ENOSPC, "The volume is full."},
    {cocoa::kFileWriteVolumeReadOnly, EROFS, "The volume is read-only."},
    {cocoa::kPropertyListReadCorrupt, EINVAL, "The property list is malformed."},
    {cocoa::kConnectionInvalid, ECONNREFUSED, "The privileged helper could not be reached."},
};

bool hasDescription(const Error& error) {
    const Dictionary* info = error.userInfo();
    return info != nullptr && info->find(kLocalizedDescriptionKey) != nullptr;
}

std::string descriptionOf(const Error& error) {
    if (hasDescription(error)) return error.localizedDescription();
    if (error.domain() == kOSStatusErrorDomain)
        for (const StatusText& known : kStatusTexts)
            if (known.status == error.code()) return std::string(known.text);
    if (error.domain() == kCocoaErrorDomain)
        for (const CocoaText& known : kCocoaTexts)
            if (known.code == error.code()) return std::string(known.text);
    return error.localizedDescription();
}

bool isAuthorizationStatus(std::int64_t code) noexcept {
    return code <= kAuthorizationInvalidSet && code >= kAuthorizationInternal;
}

/// The errno value of this error itself; 0 if it has none.
int ownErrno(const Error& error) noexcept {
    if (error.domain() == kPosixErrorDomain) return errnoFromPosixCode(error.code());
    if (error.domain() == kOSStatusErrorDomain) {
        if (error.code() == kAuthorizationCanceled) return ECANCELED;
        return isAuthorizationStatus(error.code()) ? EPERM : 0;
    }
    if (error.domain() == kCocoaErrorDomain)
        for (const CocoaText& known : kCocoaTexts)
            if (known.code == error.code()) return known.errnoValue;
    return 0;
}

void appendWords(std::string& words, const Error& error) {
    words += descriptionOf(error);
    const std::string* path = error.filePath();
    const std::string* suggestion = error.localizedRecoverySuggestion();
    const bool pathIsNamed =
        path == nullptr || words.find(*path) != std::string::npos ||
        (suggestion != nullptr && suggestion->find(*path) != std::string::npos);
    if (!pathIsNamed) words.append("\npath: ").append(*path);
    if (suggestion != nullptr && !suggestion->empty()) words.append("\n").append(*suggestion);
}

}  // namespace

FailureKind failureKind(const ErrorRef& error) noexcept {
    if (!error) return FailureKind::none;
    if (error->domain() == kCocoaErrorDomain && error->code() == cocoa::kConnectionInvalid)
        return FailureKind::notReachable;
    if (error->domain() == kOSStatusErrorDomain && isAuthorizationStatus(error->code()))
        return error->code() == kAuthorizationCanceled ? FailureKind::canceled
                                                       : FailureKind::notAuthorized;
    if (error->domain() == kPosixErrorDomain && error->userInfo() == nullptr) {
        const int value = errnoFromPosixCode(error->code());
        if (value == ECANCELED) return FailureKind::canceled;
        if (value == EPERM && ::geteuid() != 0) return FailureKind::notAuthorized;
    }
    return FailureKind::operation;
}

int hostErrno(const ErrorRef& error) noexcept {
    if (!error) return 0;
    if (error->domain() == kPosixErrorDomain) return ownErrno(*error);
    for (ErrorRef inner = error->underlyingError(); inner; inner = inner->underlyingError())
        if (inner->domain() == kPosixErrorDomain) return ownErrno(*inner);
    const int own = ownErrno(*error);
    return own != 0 ? own : EIO;
}

std::string describeFailure(const ErrorRef& error) {
    if (!error) return {};
    const ErrorRef localized =
        QRLPrivilegedOperationSet::localizedErrorForPrivilegedOperationError(error);
    std::string words;
    appendWords(words, *localized);
    for (ErrorRef inner = localized->underlyingError(); inner; inner = inner->underlyingError()) {
        words += "\ncaused by: ";
        appendWords(words, *inner);
    }
    return words;
}

}  // namespace corvalen
