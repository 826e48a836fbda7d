// SPDX-License-Identifier: MIT
// The system configuration: a stored file, the view of it in force, and a lock.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// One caller's access to one configuration file; its destruction releases the lock. For one
/// thread. The functions return false on failure.
class SystemConfigurationSession {
  public:
    virtual ~SystemConfigurationSession() = default;

    /// Takes the lock; waits for other holders, in this and other processes.
    [[nodiscard]] virtual bool lock() = 0;
    virtual void unlock() = 0;
    /// Change the session's copy, which the first change reads; they need the lock. Removing a
    /// missing key succeeds.
    [[nodiscard]] virtual bool setValue(std::string_view key, const Value& value) = 0;
    [[nodiscard]] virtual bool removeValue(std::string_view key) = 0;
    /// Puts the session's copy in force without storing it.
    [[nodiscard]] virtual bool applyChanges() = 0;
    /// Stores the session's copy atomically (`replaceFile`).
    [[nodiscard]] virtual bool commitChanges() = 0;
};

/// Any thread may call.
class SystemConfiguration {
  public:
    virtual ~SystemConfiguration() = default;

    /// Opens a session of a caller for the configuration file `identifier`; if empty, for the
    /// default one. Returns null on failure.
    [[nodiscard]] virtual std::unique_ptr<SystemConfigurationSession> create(
        std::string_view sessionName, std::string_view identifier) = 0;
};

inline constexpr std::string_view kDefaultConfigurationIdentifier = "preferences.plist";

/// Stores property lists named by identifier in `storeFolder`/system-configuration, which only root
/// can read. Those in force are in `runtimeFolder`/system-configuration, which all users can read.
/// An identifier is a file name without a leading dot.
[[nodiscard]] std::unique_ptr<SystemConfiguration> makeSystemConfiguration(
    std::string storeFolder, std::string runtimeFolder);

/// Puts stored files in force that are not: after a reboot the view is empty. A file in force
/// stays, even if it differs (applied, not committed). Skips files that cannot be read or whose
/// lock is held for a second.
void restoreRunningConfiguration(const std::string& storeFolder, const std::string& runtimeFolder);

}  // namespace corvalen
