// SPDX-License-Identifier: MIT
// Files of right definitions, read only if they can be trusted; atomic_file.hpp replaces them.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"
#include "platform/linux/authorization/reference.hpp"

struct stat;

namespace corvalen {

/// Maximum size in bytes.
inline constexpr std::size_t kMaxDefinitionsFileSize = 256UL * 1024;

struct DefinitionsFile {
    UniqueFd file;
    /// Read before the text.
    struct stat attributes {};
    std::string text;
};

/// Reads the regular file `name` of an open directory; follows no link. EFBIG above the limit,
/// EPERM if it is not a regular file or a user other than root and this process's may write it.
[[nodiscard]] Result<DefinitionsFile> readDefinitionsFile(Descriptor folder, const char* name);

/// Removes the file and syncs the directory.
[[nodiscard]] Result<> removeDefinitionsFile(Descriptor folder, const std::string& name);

/// Opens a directory and locks it against other writers (flock(2)) until the descriptor is closed.
[[nodiscard]] Result<UniqueFd> openLockedFolder(const std::string& path);

/// Caches the definitions and keeps the file open. Each query checks the open file for a change,
/// replacement or removal, and once a second the path, which leads elsewhere if the directory was
/// moved. Any thread may call.
class RightsFile {
  public:
    explicit RightsFile(std::string_view path);

    enum class Answer : std::uint8_t { allow, administrator, undefined, unreadable };
    [[nodiscard]] Answer find(std::string_view rightName);

    /// Both create a missing directory (mode 0700), keep all other lines, and lock out other
    /// processes meanwhile. Return false on failure; removing a missing right succeeds.
    [[nodiscard]] bool set(std::string_view rightName, const Value& definition,
                           std::string_view prompt);
    [[nodiscard]] bool remove(std::string_view rightName);

  private:
    /// Distinguishes two states of a file; all zero without a file. Removal or replacement lowers
    /// the number of links.
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
    std::shared_mutex _lock;  // guards the members below
    bool _isLoaded = false;
    /// The file that was read; empty without a file.
    UniqueFd _file;
    Stamp _stamp;
    Policies _policies;
    /// Time of the last check of the path, in seconds.
    std::atomic<std::int64_t> _lookedAtPath = 0;
};

}  // namespace corvalen
