// SPDX-License-Identifier: MIT
#include <array>
#include <string_view>

#include "operations/operation_rows.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen {
namespace {

// The policy of a right: everybody has it, or the authority's default rule decides (polkit: an
// administrator must authenticate; built-in authority: only user 0 has it).
constexpr std::uint64_t kAllow = 0;
constexpr std::uint64_t kDefaultRule = 1;
// The feedback while the operation runs: none, fractions and found objects, or a utility's output.
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

// Capabilities that an operation needs beyond user 0's rights as an owner of files;
// threads.hpp has the kernel's names of their parts. docs/decisions/capabilities-by-operation.md
// says which system call needs which.
using namespace capability;
constexpr CapabilitySet kNothing = 0;
/// Reads everything; gives no right to change anything.
constexpr CapabilitySet kSearch = kReadAnything;
/// Changes attributes of any object: flags, dates, lists and modes need its owner, no write access.
constexpr CapabilitySet kEditAttributes = kSearch | kActAsOwner;
/// Makes, changes and removes entries in any directory, also a sticky one. kChangeAnything includes
/// what kReadAnything gives.
constexpr CapabilitySet kEdit = kChangeAnything | kActAsOwner;
/// Same for objects with protection flags.
constexpr CapabilitySet kEditProtected = kEdit | kUnlock;
/// Changes owners and keeps set-ID bits.
constexpr CapabilitySet kSetOwner = kGiveAway | kKeepSpecialBits;
/// Copies every attribute to a new object, trusted.* and file capabilities too (xattr(7)).
constexpr CapabilitySet kReplace = kEdit | kSetOwner | kAdminister | kSetFilePrivileges;
/// Writes a store of user 0 and keeps its owner and mode.
constexpr CapabilitySet kWriteStore = kGiveAway | kActAsOwner;
/// Sends ATA commands to drives.
constexpr CapabilitySet kSetDriveTimer = kAdminister | kCommandDrives;
/// Kernel variables have permission checks of their own, by subject.
constexpr CapabilitySet kSetKernelVariable =
    kAdminister | kConfigureNetwork | kCommandDrives | kSetLimits | kSeeProcesses;

/// The selector of an identifier drops all characters but small letters and hyphens.
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
            if (letter < 'a' || letter > 'z') return false;
            const char wanted = static_cast<char>(startsWord ? letter - 'a' + 'A' : letter);
            if (!method.starts_with(wanted)) return false;
            method.remove_prefix(1);
        }
        startsWord = isHyphen;
    }
    return method.empty();
}

// The set looks a method up by the selector that the identifier makes. Maintenance operations have
// no selector: their codes are the largest.
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
