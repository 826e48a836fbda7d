// SPDX-License-Identifier: MIT
#include "corvalen/error.hpp"

#include <fmt/core.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace corvalen {

namespace {

struct CodePair {
    int host;
    int wire;
};

// Errors that Linux and the wire contract number differently. 1 to 34 are equal except 11: EAGAIN
// on Linux, EDEADLK in the contract.
constexpr std::array kCodePairs = {
    CodePair{EDEADLK, 11},
    CodePair{EAGAIN, 35},
    CodePair{EINPROGRESS, 36},
    CodePair{EALREADY, 37},
    CodePair{ENOTSOCK, 38},
    CodePair{EDESTADDRREQ, 39},
    CodePair{EMSGSIZE, 40},
    CodePair{EPROTOTYPE, 41},
    CodePair{ENOPROTOOPT, 42},
    CodePair{EPROTONOSUPPORT, 43},
    CodePair{ESOCKTNOSUPPORT, 44},
    CodePair{ENOTSUP, 45},
    CodePair{EPFNOSUPPORT, 46},
    CodePair{EAFNOSUPPORT, 47},
    CodePair{EADDRINUSE, 48},
    CodePair{EADDRNOTAVAIL, 49},
    CodePair{ENETDOWN, 50},
    CodePair{ENETUNREACH, 51},
    CodePair{ENETRESET, 52},
    CodePair{ECONNABORTED, 53},
    CodePair{ECONNRESET, 54},
    CodePair{ENOBUFS, 55},
    CodePair{EISCONN, 56},
    CodePair{ENOTCONN, 57},
    CodePair{ESHUTDOWN, 58},
    CodePair{ETOOMANYREFS, 59},
    CodePair{ETIMEDOUT, 60},
    CodePair{ECONNREFUSED, 61},
    CodePair{ELOOP, 62},
    CodePair{ENAMETOOLONG, 63},
    CodePair{EHOSTDOWN, 64},
    CodePair{EHOSTUNREACH, 65},
    CodePair{ENOTEMPTY, 66},
    CodePair{EUSERS, 68},
    CodePair{EDQUOT, 69},
    CodePair{ESTALE, 70},
    CodePair{EREMOTE, 71},
    CodePair{ENOLCK, 77},
    CodePair{ENOSYS, 78},
    CodePair{EOVERFLOW, 84},
    CodePair{ECANCELED, 89},
    CodePair{EIDRM, 90},
    CodePair{ENOMSG, 91},
    CodePair{EILSEQ, 92},
    CodePair{EBADMSG, 94},
    CodePair{EMULTIHOP, 95},
    CodePair{ENODATA, 96},
    CodePair{ENOLINK, 97},
    CodePair{ENOSR, 98},
    CodePair{ENOSTR, 99},
    CodePair{EPROTO, 100},
    CodePair{ETIME, 101},
    CodePair{EOWNERDEAD, 105},
    CodePair{ENOTRECOVERABLE, 104},
    // Codes that Linux does not distinguish. The first pair of an errno value is the one it is sent
    // as.
    CodePair{ENODATA, 93},
    CodePair{EOPNOTSUPP, 102},
};

constexpr int kLastSharedCode = 34;

std::int64_t cocoaCode(FileAccess access, int errnoValue) noexcept {
    const bool reading = access == FileAccess::read;
    switch (errnoValue) {
        case ENOENT:
            return reading ? cocoa::kFileReadNoSuchFile : cocoa::kFileNoSuchFile;
        case EPERM:
        case EACCES:
            return reading ? cocoa::kFileReadNoPermission : cocoa::kFileWriteNoPermission;
        case EEXIST:
            return reading ? cocoa::kFileReadUnknown : cocoa::kFileWriteFileExists;
        case ENOSPC:
        case EDQUOT:
            return reading ? cocoa::kFileReadUnknown : cocoa::kFileWriteOutOfSpace;
        case EROFS:
            return reading ? cocoa::kFileReadUnknown : cocoa::kFileWriteVolumeReadOnly;
        default:
            return reading ? cocoa::kFileReadUnknown : cocoa::kFileWriteUnknown;
    }
}

}  // namespace

std::string Error::localizedDescription() const {
    const std::string* text = userInfoString(kLocalizedDescriptionKey);
    if (text != nullptr && !text->empty()) return *text;
    if (_domain == kPosixErrorDomain) {
        std::array<char, 128> buffer{};
        return ::strerror_r(errnoFromPosixCode(_code), buffer.data(), buffer.size());
    }
    return fmt::format("The operation could not be completed. ({} error {}.)", _domain, _code);
}

const std::string* Error::userInfoString(std::string_view key) const noexcept {
    const Value* value = _userInfo ? _userInfo->find(key) : nullptr;
    return value != nullptr ? value->string() : nullptr;
}

const std::string* Error::localizedRecoverySuggestion() const noexcept {
    return userInfoString(kLocalizedRecoverySuggestionKey);
}

const std::string* Error::filePath() const noexcept {
    return userInfoString(kFilePathKey);
}

ErrorRef Error::underlyingError() const noexcept {
    const Value* value = _userInfo ? _userInfo->find(kUnderlyingErrorKey) : nullptr;
    return value != nullptr ? value->error() : nullptr;
}

std::int64_t posixCodeFromErrno(int errnoValue) noexcept {
    for (const CodePair& pair : kCodePairs) {
        if (pair.host == errnoValue) return pair.wire;
    }
    return errnoValue >= 0 && errnoValue <= kLastSharedCode ? errnoValue : EIO;
}

int errnoFromPosixCode(std::int64_t code) noexcept {
    for (const CodePair& pair : kCodePairs) {
        if (pair.wire == code) return pair.host;
    }
    return code >= 0 && code <= kLastSharedCode ? static_cast<int>(code) : EIO;
}

ErrorRef makeError(std::string_view domain, std::int64_t code, std::optional<Dictionary> userInfo) {
    return std::make_shared<const Error>(std::string(domain), code, std::move(userInfo));
}

ErrorRef makePosixError(int errnoValue, std::optional<Dictionary> userInfo) {
    return makeError(kPosixErrorDomain, posixCodeFromErrno(errnoValue), std::move(userInfo));
}

ErrorRef makeOSStatusError(std::int64_t status) {
    return makeError(kOSStatusErrorDomain, status);
}

ErrorRef makeFileError(FileAccess access, int errnoValue, std::string_view path) {
    return makeError(kCocoaErrorDomain, cocoaCode(access, errnoValue),
                     Dictionary{{std::string(kFilePathKey), path},
                                {std::string(kUnderlyingErrorKey), makePosixError(errnoValue)}});
}

bool fail(ErrorRef* out, ErrorRef error) noexcept {
    if (out != nullptr) *out = std::move(error);
    return false;
}

bool failWithErrno(ErrorRef* out, int errnoValue) {
    if (out != nullptr) *out = makePosixError(errnoValue);
    return false;
}

}  // namespace corvalen
