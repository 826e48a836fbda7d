// SPDX-License-Identifier: MIT
// Preferences of applications, by user and host.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// Name of the global domain in arguments; stands for `kAnyApplication`.
inline constexpr std::string_view kGlobalDomain = "NSGlobalDomain";

/// Texts that stand for any or for the current application, user or host.
namespace preferences {
inline constexpr std::string_view kAnyApplication = "kCFPreferencesAnyApplication";
inline constexpr std::string_view kAnyUser = "kCFPreferencesAnyUser";
inline constexpr std::string_view kCurrentUser = "kCFPreferencesCurrentUser";
inline constexpr std::string_view kAnyHost = "kCFPreferencesAnyHost";
inline constexpr std::string_view kCurrentHost = "kCFPreferencesCurrentHost";
}  // namespace preferences

/// Selects preferences. Each member is one of the texts above or a name.
struct PreferencesDomain {
    std::string_view application;
    std::string_view user;
    std::string_view host;
};

/// Any thread may call; writers of the same file wait for each other.
class Preferences {
  public:
    virtual ~Preferences() = default;

    /// Sets the value of `key`, or removes the key if `value` is null, in the stored file, and
    /// syncs it. Returns false on failure, with the file as `replaceFile` leaves it.
    [[nodiscard]] virtual bool setValueAndSynchronize(std::string_view key, const Value* value,
                                                      const PreferencesDomain& domain) = 0;
};

/// Stores property lists: `<domain>.plist` in `anyUserFolder` for any user and in
/// `.config/preferences` of the home directory for one user, `ByHost/<domain>.<host>.plist` below
/// these for one host, with dots of the host written %2E and percent signs %25. The current host is
/// the host name, any application is ".GlobalPreferences". A user's file is read and written with
/// only that user's rights and without following links, so that a home directory cannot redirect
/// root. A file with other contents is left unchanged. Waiting for a lock fails after ten seconds,
/// since the user may hold it.
[[nodiscard]] std::unique_ptr<Preferences> makePreferences(
    std::string_view anyUserFolder = "/etc/xdg/preferences");

}  // namespace corvalen
