// SPDX-License-Identifier: MIT
// One name rule of a pattern search.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace corvalen {

/// Match types of a rule, as the client numbers them.
inline constexpr signed char kMatchWholeName = 0;
inline constexpr signed char kMatchNamePrefix = 1;
inline constexpr signed char kMatchNameExtension = 2;

/// A match type and the text that is compared with names, byte for byte.
class QRLFileNameMatchDescriptor {
  public:
    [[nodiscard]] signed char matchType() const noexcept { return _matchType; }
    void setMatchType(signed char matchType) noexcept { _matchType = matchType; }
    [[nodiscard]] const std::string& matchString() const noexcept { return _matchString; }
    void setMatchString(std::string matchString) { _matchString = std::move(matchString); }

    /// Whether this rule holds for a name without slashes.
    [[nodiscard]] bool matchesName(std::string_view name) const noexcept;

  private:
    signed char _matchType = kMatchWholeName;
    std::string _matchString;
};

}  // namespace corvalen
