// SPDX-License-Identifier: MIT
// Rights as actions of polkit(8), each with a policy file named after it.
#pragma once

#include <string>
#include <string_view>

#include "platform/linux/authorization/reference.hpp"

namespace corvalen {

/// The policy files of one directory. polkit notices changes itself, within a second. The caller
/// checks names. Any thread may call.
class PolkitPolicyFiles {
  public:
    explicit PolkitPolicyFiles(std::string_view folder) : _folder(folder) {}

    /// Returns kAuthorizationDenied if there is no such file.
    [[nodiscard]] AuthorizationStatus get(std::string_view rightName) const;
    [[nodiscard]] bool set(std::string_view rightName, RightPolicy policy, std::string_view prompt,
                           std::string_view localizationTable) const;
    /// Returns false also for a file that was installed with the daemon: its package removes it.
    [[nodiscard]] bool remove(std::string_view rightName) const;

  private:
    std::string _folder;
};

/// Returns the text of a policy file. Characters that XML cannot carry (control characters, bytes
/// that are not UTF-8) become question marks.
[[nodiscard]] std::string polkitPolicyText(std::string_view rightName, RightPolicy policy,
                                           std::string_view prompt,
                                           std::string_view localizationTable);

/// Returns the text marked as installed, which `PolkitPolicyFiles::remove` keeps.
[[nodiscard]] std::string installedPolkitPolicyText(std::string policyText);

}  // namespace corvalen
