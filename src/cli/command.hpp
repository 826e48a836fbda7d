// SPDX-License-Identifier: MIT
// How a command of corvalenctl is declared. Parsing, help and completions read the same tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"

namespace corvalen::cli {

/// What documented exit codes mean; an interrupted command exits with 128 and the signal's number.
enum ExitCode : int {
    kExitSuccess = 0,
    kExitFailure = 1,
    kExitUsage = 2,
    kExitNotReachable = 3,
    kExitNotAuthorized = 4,
    kExitSignal = 128,
};

/// Thrown while the arguments of a command are read; the program ends with `kExitUsage`.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What a shell offers to complete a value with.
enum class Completion : std::uint8_t {
    none,
    path,
    folder,
    operation,
    utility,
    user,
    process,
    host,
    onOrOff,
    sortKey,
};

struct Option {
    /// "-0,--null"; the last one is the name by which `Arguments` knows it.
    std::string_view names;
    /// How help calls the value; empty for a switch.
    std::string_view valueName;
    std::string_view help;
    bool repeatable = false;
    Completion completion = Completion::none;
};

inline constexpr std::size_t kUnlimited = static_cast<std::size_t>(-1);

struct Positional {
    std::string_view name;
    std::string_view help;
    std::size_t minimum = 1;
    std::size_t maximum = 1;
    Completion completion = Completion::none;
};

/// The option's name in `Arguments`: the long one, without dashes.
[[nodiscard]] std::string_view optionKey(std::string_view names) noexcept;

/// What was given on the command line, by option key and name of positional.
class Arguments {
  public:
    void add(std::string_view key, std::string value);
    [[nodiscard]] bool has(std::string_view key) const;
    [[nodiscard]] const std::vector<std::string>& all(std::string_view key) const;
    /// The last value, or `otherwise`.
    [[nodiscard]] std::string text(std::string_view key, std::string_view otherwise = {}) const;
    /// The value as an absolute path; a UsageError when it is empty.
    [[nodiscard]] std::string path(std::string_view key) const;
    [[nodiscard]] Array paths(std::string_view key) const;
    /// The value as a number that fits; a UsageError otherwise.
    [[nodiscard]] std::int64_t signedNumber(std::string_view key) const;
    [[nodiscard]] std::uint64_t unsignedNumber(std::string_view key,
                                               std::uint64_t otherwise = 0) const;

  private:
    std::map<std::string, std::vector<std::string>, std::less<>> _values;
};

/// What a command asks of the helper.
struct Request {
    Array arguments;
    /// What a failure is about when the error does not say.
    std::string subject;
    /// Asked on a terminal before anything is done, unless --yes was given.
    std::string question = {};
    /// Paths that a success leaves without an object.
    std::vector<std::string> removedPaths = {};
    /// What the fraction of the progress counts, in order.
    std::vector<std::string> handledPaths = {};
    /// After a failure the paths that follow were tried, too.
    bool keepsGoing = false;
};

/// How the outcome of an operation is shown.
enum class View : std::uint8_t { nothing, foundObjects, existence, storageSize, liveOutput };

/// What --dry-run lists: nothing, for a command without it.
enum class PreviewKind : std::uint8_t {
    none,
    /// The objects that are named, and with --recursive everything below them.
    objects,
    /// Everything below folders, which may be missing.
    contents,
    /// Everything below a folder.
    tree,
};

struct Command {
    std::string_view name;
    /// That of the operation of this name unless given.
    std::string_view summary;
    /// Shown below the options by --help.
    std::string_view details;
    std::span<const Option> options;
    std::span<const Positional> positionals;
    /// Performs the operation whose identifier is the command's name.
    Request (*request)(const Arguments& arguments) = nullptr;
    View view = View::nothing;
    /// For a command that is more than one operation; gives the exit code.
    int (*run)(const Arguments& arguments) = nullptr;
    /// Everything from the first positional on belongs to it, options too.
    bool passThrough = false;
    PreviewKind preview = PreviewKind::none;
};

/// Of every command that asks before it does something.
inline constexpr Option kYes = {"-y,--yes", "",
                                "do not ask; needed where there is no terminal to ask on"};

/// Lines of the command line that show what the command is for; empty for no command.
[[nodiscard]] std::string_view examplesOf(std::string_view command) noexcept;

/// Of every command with a `PreviewKind`.
inline constexpr Option kDryRun = {"--dry-run", "",
                                   "only list what would be touched; needs the rights to search"};

/// Options of every command.
[[nodiscard]] std::span<const Option> commonOptions();
/// The command's own options, and those that come with its view.
[[nodiscard]] std::vector<Option> optionsOfCommand(const Command& command);

/// `path` itself when it is absolute, else below the working directory: the helper has another.
[[nodiscard]] std::string absolutePath(std::string_view path);

/// The whole text must be the number; a UsageError that names `what` otherwise.
[[nodiscard]] std::int64_t parseSigned(std::string_view text, std::string_view what);
[[nodiscard]] std::uint64_t parseUnsigned(std::string_view text, std::string_view what);

}  // namespace corvalen::cli
