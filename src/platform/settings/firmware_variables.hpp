// SPDX-License-Identifier: MIT
// Variables in the firmware's non-volatile memory.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Variables of the firmware. Any thread may call.
class FirmwareOptions {
  public:
    virtual ~FirmwareOptions() = default;

    /// Returns the value of a variable: a Boolean, a number, a string or data; std::nullopt
    /// if the variable does not exist.
    [[nodiscard]] virtual Result<std::optional<Value>> copyValue(std::string_view name) = 0;
    /// Writes the value; on failure the old one stays.
    [[nodiscard]] virtual Result<> setValue(std::string_view name, const Value& value) = 0;
};

/// Access to the firmware. Any thread may call.
class FirmwareVariables {
  public:
    virtual ~FirmwareVariables() = default;

    /// Returns null if the firmware has no variables.
    [[nodiscard]] virtual Result<std::unique_ptr<FirmwareOptions>> openOptions() = 0;
};

/// Maximum size of a variable's contents in bytes; its file also holds 4 bytes of attributes.
inline constexpr std::size_t kMaximumFirmwareVariableSize = std::size_t{64} * 1024;

/// The vendor GUID of variables that are named without one.
inline constexpr std::string_view kFirmwareVendorGuid = "5c7b5301-46ef-4c62-b705-f1cc62161855";

/// The variables of UEFI in an efivarfs (Documentation/filesystems/efivarfs.rst). A name is
/// "Name-GUID", or "Name" for a variable under `kFirmwareVendorGuid`. The contents of variables
/// under that GUID begin with "KVX" and a letter for the kind ("b", "n", "s", "d"), else they are
/// data; other variables hold data. An existing variable keeps its attributes, a new one is
/// non-volatile and visible at boot and run time.
[[nodiscard]] std::unique_ptr<FirmwareVariables> makeFirmwareVariables(
    std::string folder = "/sys/firmware/efi/efivars");

}  // namespace corvalen
