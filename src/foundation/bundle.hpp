// SPDX-License-Identifier: MIT
// The information list and the main executable of a program or an application directory.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::string_view kInfoSection = "__info_plist";
inline constexpr std::string_view kServiceManagerSection = "__launchd_plist";

/// Maximum size of an information list in bytes; checked before reading.
inline constexpr std::size_t kMaximumInformationListSize = std::size_t{1} << 20U;

/// Immutable: any thread may read it.
class Bundle {
  public:
    /// The running program. Its list is embedded in its executable and read on first use; without
    /// one it is empty.
    static const Bundle& mainBundle();
    /// The application directory at `path`; std::nullopt if `path` is not a directory. Its contents
    /// are untrusted: a list that cannot be read counts as empty.
    static std::optional<Bundle> bundleWithPath(std::string_view path);

    [[nodiscard]] const Dictionary& infoDictionary() const noexcept { return _info; }
    /// These return null if the list has no string under the key.
    [[nodiscard]] const std::string* bundleIdentifier() const noexcept;
    [[nodiscard]] const std::string* principalClassName() const noexcept;
    [[nodiscard]] const std::string* stringForInfoDictionaryKey(
        std::string_view key) const noexcept;

    /// Path of the main executable: the first regular file with the name in CFBundleExecutable, or
    /// else with the directory's name without its extension, in Contents/MacOS, Contents/Linux, or
    /// the directory itself; std::nullopt if no such file exists. For the main bundle, the target
    /// of /proc/self/exe.
    [[nodiscard]] const std::optional<std::string>& executablePath() const noexcept {
        return _executablePath;
    }

  private:
    Bundle() = default;

    Dictionary _info;
    std::optional<std::string> _executablePath;
};

/// Reads the property list in `section` of an executable file (elf(5)). Returns std::nullopt if the
/// file has no such section or the section holds no dictionary.
[[nodiscard]] std::optional<Dictionary> embeddedPropertyList(const std::string& executable,
                                                             std::string_view section);

}  // namespace corvalen
