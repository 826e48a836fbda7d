// SPDX-License-Identifier: MIT
// Rights as actions of polkit(8): one policy file each, named after the right.
#pragma once

#include <string>
#include <string_view>

#include "platform/linux/authorization_reference.hpp"

namespace corvalen {

/// The policy files of one folder. polkit sees a change by itself, within a second. Names are
/// checked by the caller. Any thread may call.
class PolkitPolicyFiles {
  public:
    explicit PolkitPolicyFiles(std::string_view folder) : _folder(folder) {}

    /// kAuthorizationDenied when there is no such file.
    [[nodiscard]] AuthorizationStatus get(std::string_view rightName) const;
    [[nodiscard]] bool set(std::string_view rightName, RightPolicy policy, std::string_view prompt,
                           std::string_view localizationTable) const;
    /// False also for a file that was installed with the helper: it goes with its package.
    [[nodiscard]] bool remove(std::string_view rightName) const;

  private:
    std::string _folder;
};

/// The text of a policy file. What XML has no place for (control characters, bytes that are no
/// UTF-8) becomes a question mark.
[[nodiscard]] std::string polkitPolicyText(std::string_view rightName, RightPolicy policy,
                                           std::string_view prompt,
                                           std::string_view localizationTable);

/// The text of a policy file marked as installed: `PolkitPolicyFiles::remove` leaves it alone.
[[nodiscard]] std::string installedPolkitPolicyText(std::string policyText);

}  // namespace corvalen
