// SPDX-License-Identifier: MIT
// The system configuration: a stored file, the view of it that is in force, and a lock.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// One caller's access to one configuration file; its end gives the lock up. For one thread.
class SystemConfigurationSession {
  public:
    virtual ~SystemConfigurationSession() = default;

    /// Takes the lock and waits for other holders, in this and other processes.
    [[nodiscard]] virtual bool lock() = 0;
    virtual void unlock() = 0;
    /// Change the session's copy, which is read with the first change; only while locked. Removing
    /// a key that is not there succeeds.
    [[nodiscard]] virtual bool setValue(std::string_view key, const Value& value) = 0;
    [[nodiscard]] virtual bool removeValue(std::string_view key) = 0;
    /// Puts the session's copy in force, without storing it.
    [[nodiscard]] virtual bool applyChanges() = 0;
    /// Stores the session's copy: the file is the old or the new one, whatever happens.
    [[nodiscard]] virtual bool commitChanges() = 0;
};

/// Any thread may call.
class SystemConfiguration {
  public:
    virtual ~SystemConfiguration() = default;

    /// Opens a session in the name of a caller for the configuration file `identifier`, the
    /// default one when that is empty. Null on failure.
    [[nodiscard]] virtual std::unique_ptr<SystemConfigurationSession> create(
        std::string_view sessionName, std::string_view identifier) = 0;
};

inline constexpr std::string_view kDefaultConfigurationIdentifier = "preferences.plist";

/// Property lists by their identifiers: stored in `storeFolder`/system-configuration, which only
/// root can see, and in force in `runtimeFolder`/system-configuration, which everybody can read. An
/// identifier is one file name that does not begin with a dot.
[[nodiscard]] std::unique_ptr<SystemConfiguration> makeSystemConfiguration(
    std::string storeFolder, std::string runtimeFolder);

/// Puts every stored file in force that is not: after a reboot the running view is empty. A file
/// that is in force already stays, also when it differs (applied and not committed). Files that
/// cannot be read, or whose lock somebody holds for a second, are passed over.
void restoreRunningConfiguration(const std::string& storeFolder, const std::string& runtimeFolder);

}  // namespace corvalen
