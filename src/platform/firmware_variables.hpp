// SPDX-License-Identifier: MIT
// Variables in the firmware's non-volatile memory.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// The entry that holds the firmware's variables. A status is 0 or a POSIX code.
class FirmwareOptions {
  public:
    virtual ~FirmwareOptions() = default;

    /// The value of a variable, a Boolean, a number, a string or data; nothing when there is no
    /// such variable, and nothing with a status when it cannot be read.
    [[nodiscard]] virtual std::optional<Value> copyValue(std::string_view name,
                                                         std::int32_t* status) = 0;
    /// Writes the whole value, or nothing of it when it fails.
    [[nodiscard]] virtual std::int32_t setValue(std::string_view name, const Value& value) = 0;
};

/// Access to the firmware. Any thread may call.
class FirmwareVariables {
  public:
    virtual ~FirmwareVariables() = default;

    /// Null with status 0 on a machine whose firmware keeps no variables; null with a status when
    /// it keeps some that cannot be had.
    [[nodiscard]] virtual std::unique_ptr<FirmwareOptions> openOptions(std::int32_t* status) = 0;
};

/// A variable's file holds 4 bytes of attributes and at most so many of contents.
inline constexpr std::size_t kMaximumFirmwareVariableSize = std::size_t{64} * 1024;

/// The vendor GUID of the variables that are named without one.
inline constexpr std::string_view kFirmwareVendorGuid = "5c7b5301-46ef-4c62-b705-f1cc62161855";

/// The variables of UEFI below an efivarfs (Documentation/filesystems/efivarfs.rst). A name is
/// "Name-GUID", or "Name" alone for a variable under `kFirmwareVendorGuid`. Ours begin with
/// "KVX" and a letter for the kind ("b", "n", "s", "d"); what is without that is data. The
/// attributes of a variable are kept, a new one is non-volatile and visible at boot and run time.
[[nodiscard]] std::unique_ptr<FirmwareVariables> makeFirmwareVariables(
    std::string folder = "/sys/firmware/efi/efivars");

}  // namespace corvalen
