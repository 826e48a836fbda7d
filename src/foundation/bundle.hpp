// SPDX-License-Identifier: MIT
// What a program or an application folder says about itself.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::string_view kInfoSection = "__info_plist";
inline constexpr std::string_view kServiceManagerSection = "__launchd_plist";

/// No information list is larger; checked before anything is read.
inline constexpr std::size_t kMaximumInformationListSize = std::size_t{1} << 20U;

/// Immutable; any thread may read it.
class Bundle {
  public:
    /// The running program, with the list embedded in its executable; the list is empty when there
    /// is none. Read once.
    static const Bundle& mainBundle();
    /// The folder of an application. Nothing when no folder is there. What lies in it belongs to
    /// others: a list that cannot be read counts as none.
    static std::optional<Bundle> bundleWithPath(std::string_view path);

    [[nodiscard]] const Dictionary& infoDictionary() const noexcept { return _info; }
    /// Each is null when the list does not have it as a string.
    [[nodiscard]] const std::string* bundleIdentifier() const noexcept;
    [[nodiscard]] const std::string* principalClassName() const noexcept;
    [[nodiscard]] const std::string* stringForInfoDictionaryKey(
        std::string_view key) const noexcept;

    /// Path of the main executable: CFBundleExecutable, else the folder's own name less its
    /// extension, in Contents/MacOS, Contents/Linux or the folder itself, whichever has it first.
    /// Nothing when none has.
    [[nodiscard]] const std::optional<std::string>& executablePath() const noexcept {
        return _executablePath;
    }

  private:
    Bundle() = default;

    Dictionary _info;
    std::optional<std::string> _executablePath;
};

/// The property list in a section of an executable file (elf(5)); nothing when the file has no such
/// section or it holds no dictionary.
[[nodiscard]] std::optional<Dictionary> embeddedPropertyList(const std::string& executable,
                                                             std::string_view section);

}  // namespace corvalen
