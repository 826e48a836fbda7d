// SPDX-License-Identifier: MIT
#include <array>
#include <string_view>

#include "operations/operation_rows.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen {
namespace {

constexpr std::uint64_t kAllow = 0;
constexpr std::uint64_t kDefaultRule = 1;
constexpr std::uint64_t kNoFeedback = 0;
constexpr std::uint64_t kProgress = 1;
constexpr std::uint64_t kLiveOutput = 256;

/// Count and types of the arguments.
struct Signature {
    std::int64_t count;
    const char* typeCodes;
};
constexpr Signature kNoArguments{0, nullptr};
constexpr Signature kAnyStrings{kVariableArgumentCount, nullptr};
/// One letter per argument: S string, N number, D data.
constexpr Signature types(const char* codes) {
    return {static_cast<std::int64_t>(std::string_view(codes).size()), codes};
}

// Capabilities that an operation needs beyond user 0's rights as an owner of files.
using namespace capability;
constexpr CapabilitySet kNothing = 0;
/// Reads everything; gives no right to change anything.
constexpr CapabilitySet kSearch = kReadAnything;
/// Makes and removes entries in any directory, also a sticky one.
constexpr CapabilitySet kEdit = kReadAnything | kChangeAnything | kActAsOwner;
/// Same for objects with protection flags.
constexpr CapabilitySet kEditProtected = kEdit | kUnlock;
constexpr CapabilitySet kSetOwner = kGiveAway | kKeepSpecialBits;
/// Copies every attribute to a new object, trusted.* and file capabilities too (xattr(7)).
constexpr CapabilitySet kReplace = kEditProtected | kSetOwner | kAdminister | kSetFilePrivileges;
/// Writes a store and keeps its owner and mode.
constexpr CapabilitySet kWriteStore = kSetOwner | kActAsOwner;
constexpr CapabilitySet kSetDriveTimer = kAdminister | kCommandDrives;
/// Kernel variables have permission checks of their own, by subject.
constexpr CapabilitySet kSetKernelVariable =
    kAdminister | kConfigureNetwork | kCommandDrives | kSetLimits;

constexpr bool isMethodOf(std::string_view method, std::string_view identifier) {
    constexpr std::string_view kStart = "performOperation";
    constexpr std::string_view kEnd = "WithArguments";
    if (!method.starts_with(kStart) || !method.ends_with(kEnd)) return false;
    method.remove_prefix(kStart.size());
    method.remove_suffix(kEnd.size());
    bool startsWord = true;
    for (const char letter : identifier) {
        const bool isHyphen = letter == '-';
        if (!isHyphen) {
            const char wanted = static_cast<char>(startsWord ? letter - 'a' + 'A' : letter);
            if (!method.starts_with(wanted)) return false;
            method.remove_prefix(1);
        }
        startsWord = isHyphen;
    }
    return method.empty();
}

// The set looks a method up by the selector that the identifier makes.
#define OPERATION(code, identifier, group, method, ...)                               \
    static_assert((code) >= kPrepareUninstallCode || isMethodOf(#method, identifier), \
                  "the method is not named by the identifier");
#include "operations/operation_rows.def"
#undef OPERATION

constexpr std::array kTable = {
#define OPERATION(code, identifier, group, method, policy, feedback, arguments, capabilities, \
                  prompt)                                                                     \
    StaticOperationDescription{code,     identifier,        policy,                           \
                               feedback, (arguments).count, (arguments).typeCodes,            \
                               prompt,   capabilities},
#include "operations/operation_rows.def"
#undef OPERATION
    StaticOperationDescription{kEndOfTableCode, nullptr, 0, 0, 0, nullptr, nullptr},
};

}  // namespace

std::span<const StaticOperationDescription> operationTable() noexcept {
    return std::span(kTable).first(kTable.size() - 1);
}

}  // namespace corvalen
