// SPDX-License-Identifier: MIT
// Error objects: a domain, a code, and user information.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view kOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";

inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view kLocalizedRecoverySuggestionKey = "NSLocalizedRecoverySuggestion";
inline constexpr std::string_view kFilePathKey = "NSFilePath";
inline constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";

/// Codes of the Cocoa error domain that this system uses.
namespace cocoa {
inline constexpr std::int64_t kFileNoSuchFile = 4;
inline constexpr std::int64_t kFileReadUnknown = 256;
inline constexpr std::int64_t kFileReadNoPermission = 257;
inline constexpr std::int64_t kFileReadNoSuchFile = 260;
inline constexpr std::int64_t kFileWriteUnknown = 512;
inline constexpr std::int64_t kFileWriteNoPermission = 513;
inline constexpr std::int64_t kFileWriteFileExists = 516;
inline constexpr std::int64_t kFileWriteOutOfSpace = 640;
inline constexpr std::int64_t kFileWriteVolumeReadOnly = 642;
inline constexpr std::int64_t kPropertyListReadCorrupt = 3840;
inline constexpr std::int64_t kPropertyListWriteInvalid = 3852;
inline constexpr std::int64_t kConnectionInvalid = 4099;
}  // namespace cocoa

/// An immutable error. User information may be absent, which is not the same as empty.
class Error {
  public:
    Error(std::string domain, std::int64_t code, std::optional<Dictionary> userInfo = std::nullopt)
        : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}

    [[nodiscard]] const std::string& domain() const noexcept { return _domain; }
    [[nodiscard]] std::int64_t code() const noexcept { return _code; }
    /// Null when the error carries none.
    [[nodiscard]] const Dictionary* userInfo() const noexcept {
        return _userInfo ? &*_userInfo : nullptr;
    }

    /// The description in the user information, else a sentence made of domain and code; for
    /// POSIX codes the host's text for the error.
    [[nodiscard]] std::string localizedDescription() const;
    /// Null when there is none.
    [[nodiscard]] const std::string* localizedRecoverySuggestion() const noexcept;
    [[nodiscard]] const std::string* filePath() const noexcept;
    [[nodiscard]] ErrorRef underlyingError() const noexcept;

    friend bool operator==(const Error&, const Error&) = default;

  private:
    [[nodiscard]] const std::string* userInfoString(std::string_view key) const noexcept;

    std::string _domain;
    std::int64_t _code;
    std::optional<Dictionary> _userInfo;
};

/// The number of this errno in the wire contract (the BSD numbering); EIO for one without a
/// counterpart.
[[nodiscard]] std::int64_t posixCodeFromErrno(int errnoValue) noexcept;
/// The host's errno for a POSIX code of the wire contract; EIO for one the host does not have.
[[nodiscard]] int errnoFromPosixCode(std::int64_t code) noexcept;

[[nodiscard]] ErrorRef makeError(std::string_view domain, std::int64_t code,
                                 std::optional<Dictionary> userInfo = std::nullopt);
/// A POSIX error for the host's errno value, which is translated to the contract's code.
[[nodiscard]] ErrorRef makePosixError(int errnoValue,
                                      std::optional<Dictionary> userInfo = std::nullopt);
[[nodiscard]] ErrorRef makeOSStatusError(std::int64_t status);

/// Whether a file operation was reading or changing: it decides the Cocoa code.
enum class FileAccess : std::uint8_t { read, write };
/// The file manager's error for a failed system call: a Cocoa error with the path and the POSIX
/// error underneath.
[[nodiscard]] ErrorRef makeFileError(FileAccess access, int errnoValue, std::string_view path);

/// Stores `error` in `*out` when the caller wants to know. Always false, to be returned.
bool fail(ErrorRef* out, ErrorRef error) noexcept;
/// The same with the POSIX error of an errno value; no error object is built for a null `out`.
bool failWithErrno(ErrorRef* out, int errnoValue);

}  // namespace corvalen
