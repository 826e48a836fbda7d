// SPDX-License-Identifier: MIT
// The declaration of a command of corvalenctl. The parser, --help, the manual page and the
// completions read the same tables.
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

/// The documented exit codes. A command that a signal ended exits with 128 plus its number.
enum ExitCode : int {
    kExitSuccess = 0,
    kExitFailure = 1,
    kExitUsage = 2,
    kExitNotReachable = 3,
    kExitNotAuthorized = 4,
    kExitSignal = 128,
};

/// A fault of the command line; the program reports it and exits with `kExitUsage`.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The kind of values that a shell offers to complete a word.
enum class Completion : std::uint8_t {
    none,
    path,
    directory,
    operation,
    utility,
    user,
    process,
    host,
    onOrOff,
    sortKey,
};

struct Option {
    /// All names with their dashes, as in "-0,--null"; the last one is the key in `Arguments`.
    std::string_view names;
    /// The name of the value in the help; empty for a switch.
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

/// Returns the key in `Arguments` of an option with these names: the long one, without dashes.
[[nodiscard]] std::string_view optionKey(std::string_view names) noexcept;

/// The values of a command line, by option key and by name of the positional.
class Arguments {
  public:
    void add(std::string_view key, std::string value);
    [[nodiscard]] bool has(std::string_view key) const;
    [[nodiscard]] const std::vector<std::string>& all(std::string_view key) const;
    /// Returns the last value, or `otherwise` without one.
    [[nodiscard]] std::string text(std::string_view key, std::string_view otherwise = {}) const;
    /// Returns the value as an absolute path. Throws UsageError for an empty one.
    [[nodiscard]] std::string path(std::string_view key) const;
    [[nodiscard]] Array paths(std::string_view key) const;
    /// Returns the value as a number. Throws UsageError for other texts and out of range.
    [[nodiscard]] std::int64_t signedNumber(std::string_view key) const;
    [[nodiscard]] std::uint64_t unsignedNumber(std::string_view key,
                                               std::uint64_t otherwise = 0) const;

  private:
    std::map<std::string, std::vector<std::string>, std::less<>> _values;
};

/// A number of objects that were seen.
struct TreeCount {
    std::uint64_t objects = 0;
    /// False when there may be more: a directory could not be read, or the time was up.
    bool isComplete = true;
};

/// The arguments of an operation, and the texts that go with them.
struct Request {
    Array arguments;
    /// The object that a failure names if its error does not.
    std::string subject;
    /// Asked on the terminal before the request is sent, unless --yes was given; ends in "?".
    std::string question = {};
    /// Paths at which a success leaves no object.
    std::vector<std::string> removedPaths = {};
    /// The paths that the fraction of the progress counts, in order.
    std::vector<std::string> progressPaths = {};
    /// The trees that `progressPaths`, or else `subject`, name; empty when they were not counted.
    std::vector<TreeCount> counts = {};
    /// After a failure the operation tries the remaining paths too.
    bool keepsGoing = false;
};

/// The form in which the outcome of an operation is shown.
enum class View : std::uint8_t { nothing, foundObjects, existence, storageSize, liveOutput };

/// The objects that --dry-run lists; `none` for a command without --dry-run.
enum class PreviewKind : std::uint8_t {
    none,
    /// The given objects, and with --recursive everything below them.
    objects,
    /// Everything below the given directories; a missing one counts as empty.
    contents,
    /// Everything below the given directory.
    tree,
};

struct Command {
    std::string_view name;
    /// If empty, `commandTable` fills in the summary of the operation with the command's name.
    std::string_view summary;
    /// --help shows it below the options.
    std::string_view details;
    std::span<const Option> options;
    std::span<const Positional> positionals;
    /// Builds the request for the operation whose identifier is the command's name. Throws
    /// UsageError.
    Request (*request)(const Arguments& arguments) = nullptr;
    View view = View::nothing;
    /// Runs a command that is not one operation; returns the exit code. Throws UsageError.
    int (*run)(const Arguments& arguments) = nullptr;
    /// All words from the first positional on are arguments, options too.
    bool passThrough = false;
    PreviewKind preview = PreviewKind::none;
};

/// An option of every command that has a question.
inline constexpr Option kYes = {"-y,--yes", "",
                                "do not ask; needed where there is no terminal to ask on"};

/// An option of every command with a `PreviewKind`.
inline constexpr Option kDryRun = {"--dry-run", "",
                                   "only list the objects that would be touched, but not those "
                                   "dated in the future; change nothing"};

/// Returns the options that every command has.
[[nodiscard]] std::span<const Option> commonOptions();
/// Returns the command's own options, and those of its view and of its dry run.
[[nodiscard]] std::vector<Option> optionsOfCommand(const Command& command);

/// Returns an absolute path unchanged, and others below the working directory, since the daemon has
/// another one. Throws UsageError for an empty path, and when the working directory has no path.
[[nodiscard]] std::string absolutePath(std::string_view path);

/// Return the number that the whole text is. Throw a UsageError that names `what` otherwise.
[[nodiscard]] std::int64_t parseSigned(std::string_view text, std::string_view what);
[[nodiscard]] std::uint64_t parseUnsigned(std::string_view text, std::string_view what);

}  // namespace corvalen::cli
