// SPDX-License-Identifier: MIT
// The rights file: one right a line, "name definition prompt", made to be read and changed by an
// administrator. Empty lines and lines that begin with "#" are left alone. The definition is
// "allow", "default" or "authenticate-admin"; any other word admits user 0 only, as do two lines
// that disagree.
#pragma once

#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "platform/linux/authorization_reference.hpp"

struct stat;

namespace corvalen {

/// Keeps what the file says and looks once a question whether it changed. Any thread may call.
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
    /// Tells two states of the file apart; all zero when there is none.
    struct Stamp {
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t modified = 0;
        std::int64_t changed = 0;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    [[nodiscard]] static Stamp stampOf(const struct stat& attributes) noexcept;
    using Policies = std::map<std::string, RightPolicy, std::less<>>;

    [[nodiscard]] static Policies parse(std::string_view text);
    [[nodiscard]] static Answer answer(const Policies& policies, std::string_view rightName);
    [[nodiscard]] std::optional<Stamp> currentStamp() const noexcept;
    [[nodiscard]] bool reload();
    [[nodiscard]] bool rewrite(std::string_view rightName, std::string_view newLine);

    const std::string _path;
    const std::string _folder;
    const std::string _name;
    std::shared_mutex _lock;  // guards what follows
    bool _isLoaded = false;
    Stamp _stamp;
    Policies _policies;
};

}  // namespace corvalen
