// SPDX-License-Identifier: MIT
// Error objects: a domain, a code, and user info.
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

/// An immutable error; any thread may read it. Absent user info differs from empty user info.
class Error {
  public:
    Error(std::string domain, std::int64_t code, std::optional<Dictionary> userInfo = std::nullopt)
        : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}

    [[nodiscard]] const std::string& domain() const noexcept { return _domain; }
    [[nodiscard]] std::int64_t code() const noexcept { return _code; }
    /// Null if the error has none.
    [[nodiscard]] const Dictionary* userInfo() const noexcept {
        return _userInfo ? &*_userInfo : nullptr;
    }

    /// The description in the user info; else strerror(3) for a POSIX error, or a sentence made of
    /// domain and code.
    [[nodiscard]] std::string localizedDescription() const;
    /// These return null if the user info does not have the value.
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

/// Returns the wire contract's code (BSD numbering) for an errno value; EIO if it has none.
[[nodiscard]] std::int64_t posixCodeFromErrno(int errnoValue) noexcept;
/// Returns this machine's errno value for a code of the wire contract; EIO if it has none.
[[nodiscard]] int errnoFromPosixCode(std::int64_t code) noexcept;

[[nodiscard]] ErrorRef makeError(std::string_view domain, std::int64_t code,
                                 std::optional<Dictionary> userInfo = std::nullopt);
/// A POSIX error with the wire contract's code for `errnoValue`.
[[nodiscard]] ErrorRef makePosixError(int errnoValue,
                                      std::optional<Dictionary> userInfo = std::nullopt);
[[nodiscard]] ErrorRef makeOSStatusError(std::int64_t status);

/// Whether a file operation read or wrote; selects the Cocoa code.
enum class FileAccess : std::uint8_t { read, write };
/// The error of a failed system call on a file: a Cocoa error with the path, and the POSIX error as
/// its underlying error.
[[nodiscard]] ErrorRef makeFileError(FileAccess access, int errnoValue, std::string_view path);

/// Stores `error` in `*out` unless `out` is null. Always returns false.
bool fail(ErrorRef* out, ErrorRef error) noexcept;
/// Same for the POSIX error of `errnoValue`; builds no error object if `out` is null.
bool failWithErrno(ErrorRef* out, int errnoValue);

}  // namespace corvalen
