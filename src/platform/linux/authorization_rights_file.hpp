// SPDX-License-Identifier: MIT
// The rights file: one right a line, "name definition prompt", made to be read and changed by an
// administrator. Empty lines and lines that begin with "#" are left alone. The definition is
// "allow", "default" or "authenticate-admin"; any other word admits user 0 only, as do two lines
// that disagree.
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "platform/linux/authorization_reference.hpp"

struct stat;

namespace corvalen {

/// Keeps what the file says, and the file open: each question looks whether that very file has been
/// changed, replaced or removed since, and once a second whether it is still the one at the path,
/// which it is not when the folder was moved away. Any thread may call.
class RightsFile {
  public:
    explicit RightsFile(std::string_view path);

    enum class Answer : std::uint8_t { allow, administrator, undefined, unreadable };
    [[nodiscard]] Answer find(std::string_view rightName);

    /// Both make the folder (mode 0700) when it is missing, keep every other line, and hold off
    /// other processes meanwhile. False on failure; removing what is not there succeeds.
    [[nodiscard]] bool set(std::string_view rightName, const Value& definition,
                           std::string_view prompt);
    [[nodiscard]] bool remove(std::string_view rightName);

  private:
    /// Tells two states of a file apart; all zero when there is none. A file that was removed or
    /// replaced has a link less.
    struct Stamp {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t links = 0;
        std::uint64_t size = 0;
        std::int64_t modified = 0;
        std::int64_t changed = 0;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    [[nodiscard]] static Stamp stampOf(const struct stat& attributes) noexcept;
    using Policies = std::map<std::string, RightPolicy, std::less<>>;

    [[nodiscard]] static Policies parse(std::string_view text);
    [[nodiscard]] static Answer answer(const Policies& policies, std::string_view rightName);
    [[nodiscard]] std::optional<Stamp> stampAtPath() const noexcept;
    [[nodiscard]] bool isUnchanged() noexcept;
    [[nodiscard]] bool reload();
    [[nodiscard]] bool rewrite(std::string_view rightName, std::string_view newLine);

    const std::string _path;
    const std::string _folder;
    const std::string _name;
    std::shared_mutex _lock;  // guards what follows
    bool _isLoaded = false;
    /// What was read; null when there was no file.
    UniqueFd _file;
    Stamp _stamp;
    Policies _policies;
    /// When the path was looked at, in seconds.
    std::atomic<std::int64_t> _lookedAtPath = 0;
};

}  // namespace corvalen
