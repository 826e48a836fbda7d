// SPDX-License-Identifier: MIT
#include "operations/errors.hpp"

#include <array>
#include <cerrno>

#include "operations/names.hpp"

namespace corvalen {
namespace {

struct ErrorTexts {
    std::string_view description;
    std::string_view suggestion;
};

// By code. The texts are also keys of the localization table: do not reword them.
constexpr std::array<ErrorTexts, 19> kErrorTexts = {{
    {"", ""},
    {"A required component of OS X is missing in your system installation.",
     "Please verify that the UNIX program %@ is present at its standard path '%@'."},
    {"Permission settings for a system utility at the Unix level are unsafe. The command cannot be "
     "executed for security reasons.",
     "Please verify that the executable '%@' and its parent folder are owned by the operating "
     "system and cannot be modified by any user."},
    {"It was not possible to complete the operation successfully.",
     "The operating system could not perform the requested operation. It returned error code %d."},
    {"It was not possible to create the specified file system object.",
     "Please verify that objects can be created at the location '%@'."},
    {"The location for the backup file is blocked by a folder.",
     "If possible, please remove the folder currently present at the location '%@'."},
    {"It is not possible to delete a file system object of type 'whiteout'.",
     "Please check the type of the object located at '%@'. Whiteouts cannot really exist in "
     "current versions of OS X."},
    {"The operating system could not change protection flags.",
     "Please check if the file system storing the object '%@' is working properly."},
    {"Single User Mode is required to remove this object.",
     "The object located at '%@' uses special protection which should only be deactivated when the "
     "system is not in full operation. Please restart the operating system in Single User Mode and "
     "remove the protection attribute."},
    {"It was not possible to access the power management preferences.",
     "The operating system has a technical problem to determine the current power management "
     "settings for this computer."},
    {"It was not possible to set new power management preferences.",
     "The operating system could not change the power management settings for this computer. The "
     "error code is %d."},
    {"It was not possible to modify a NVRAM setting.",
     "The operating system could not change a value in the non-volatile memory of this computer. "
     "The error code is %d."},
    {"A preference setting could not be updated successfully.",
     "The operating system was unable to change a preference setting. Please ensure to "
     "authenticate as administrator."},
    {"The system configuration could not be updated successfully.",
     "The operating system was unable to change a preference setting in the system configuration. "
     "The reason is unknown."},
    {"An Access Control List could not be set.",
     "The operating system was unable to change the rights for a file system object via an Access "
     "Control List."},
    {"It was not possible to determine the attributes of a file system object.",
     "The operating system was unable to get attributes or other status information about a file "
     "or folder."},
    {"It was not possible to change the owner of a file system object.",
     "The operating system was unable to set a new owner for a file and folder."},
    {"It was not possible to change the POSIX permissions of a file system object.",
     "The operating system was unable to establish new permission settings for a file or folder."},
    {"An object or its parent folder are explicitly protected against changes.",
     "The object has either been protected manually (not necessarily by permissions), or is "
     "located on a read-only volume. Please verify that the object at '%@' and its parent folder "
     "can be modified."},
}};

const ErrorTexts& textsOf(OperationErrorCode code) noexcept {
    const auto index = static_cast<std::size_t>(code);
    return kErrorTexts[index < kErrorTexts.size() ? index : 0];
}

std::string fillPlaceholders(std::string_view text, const std::vector<std::string>& arguments) {
    std::string filled;
    for (const auto& argument : arguments) {
        const auto percent = text.find('%');
        if (percent == std::string_view::npos) break;
        filled.append(text.substr(0, percent)).append(argument);
        text.remove_prefix(percent + 2);
    }
    return filled.append(text);
}

}  // namespace

std::string_view operationErrorDescription(OperationErrorCode code) noexcept {
    return textsOf(code).description;
}

std::string_view operationErrorSuggestion(OperationErrorCode code) noexcept {
    return textsOf(code).suggestion;
}

ErrorRef makeOperationError(OperationErrorCode code, const OperationErrorDetails& details) {
    const auto& texts = textsOf(code);
    Dictionary userInfo;
    if (!texts.description.empty()) {
        userInfo.set(kLocalizedDescriptionKey, texts.description);
        userInfo.set(kLocalizedRecoverySuggestionKey,
                     fillPlaceholders(texts.suggestion, details.suggestionArguments));
    }
    if (!details.filePath.empty()) userInfo.set(kFilePathKey, details.filePath);
    if (details.underlyingError) userInfo.set(kUnderlyingErrorKey, details.underlyingError);
    return makeError(kErrorDomain, static_cast<std::int64_t>(code), std::move(userInfo));
}

ErrorRef makeOperationAnswer(std::string_view key, Value value) {
    Dictionary userInfo;
    userInfo.set(key, std::move(value));
    return makeError(kErrorDomain, static_cast<std::int64_t>(OperationErrorCode::answer),
                     std::move(userInfo));
}

ErrorRef cancelledError(const Cancellation& cancellation) {
    Dictionary userInfo;
    userInfo.set(kKeyObjectCount, cancellation.objectCount());
    return makePosixError(ECANCELED, std::move(userInfo));
}

}  // namespace corvalen
