// SPDX-License-Identifier: MIT
// The preferences of any application, for any user and host.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// The value of the global domain in arguments, which stands for `kAnyApplication`.
inline constexpr std::string_view kGlobalDomain = "NSGlobalDomain";

/// The texts that stand for more than one application, user or host, or for our own.
namespace preferences {
inline constexpr std::string_view kAnyApplication = "kCFPreferencesAnyApplication";
inline constexpr std::string_view kAnyUser = "kCFPreferencesAnyUser";
inline constexpr std::string_view kCurrentUser = "kCFPreferencesCurrentUser";
inline constexpr std::string_view kAnyHost = "kCFPreferencesAnyHost";
inline constexpr std::string_view kCurrentHost = "kCFPreferencesCurrentHost";
}  // namespace preferences

/// Which preferences: each is one of the texts above or a name of its own.
struct PreferencesDomain {
    std::string_view application;
    std::string_view user;
    std::string_view host;
};

/// Any thread may call; writers of the same place wait for each other.
class Preferences {
  public:
    virtual ~Preferences() = default;

    /// Sets the value under `key`, or removes the key when `value` is null, and brings that to the
    /// stored file and the disk. False when that failed; then the file is as it was.
    [[nodiscard]] virtual bool setValueAndSynchronize(std::string_view key, const Value* value,
                                                      const PreferencesDomain& domain) = 0;
};

/// Property lists: `<domain>.plist` in `anyUserFolder` for any user and in `.config/preferences` of
/// the home folder for one, `ByHost/<domain>.<host>.plist` beside them, dots of the host written
/// %2E and percent signs %25; the current host goes by its host name, any application by
/// ".GlobalPreferences". A user's file is read and written with
/// that user's rights alone and through no link, so that nothing in a home folder leads elsewhere.
/// A file that holds something else is left as it is, and a lock that somebody else holds for more
/// than ten seconds is a failure: its owner may be the user.
[[nodiscard]] std::unique_ptr<Preferences> makePreferences(
    std::string_view anyUserFolder = "/etc/xdg/preferences");

}  // namespace corvalen
