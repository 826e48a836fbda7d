// SPDX-License-Identifier: MIT
#include "cli/command.hpp"

#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "foundation/path.hpp"

namespace corvalen::cli {
namespace {

constexpr Option kCommonOptions[] = {
    {"-H,--remote", "HOST", "run the command on another machine, by ssh: HOST or USER@HOST", false,
     Completion::host},
    {"--socket", "PATH", "the helper's socket, instead of the well-known one", false,
     Completion::path},
    {"-q,--quiet", "", "show no progress"},
    {"--json", "", "results as JSON, one object a line; failures too, on standard error"},
    {"--no-pager", "", "write long texts as they are"},
    {"--no-ask-password", "", "do not let polkit ask for a password on this terminal"},
};

constexpr Option kFoundObjectOptions[] = {
    {"--table", "", "an aligned table, as on a terminal"},
    {"--plain", "", "one path a line, as when the output is no terminal"},
    {"-0,--null", "", "paths as they are, each ended by a zero byte"},
    {"--bytes", "", "sizes of the table in bytes"},
    {"--sort", "KEY", "write at the end, by path, size (largest first) or modified (newest first)",
     false, Completion::sortKey},
    {"--reverse", "", "with --sort: in the opposite order"},
    {"--limit", "COUNT", "at most COUNT objects; without --sort the search ends there"},
};

constexpr Option kPreviewOptions[] = {
    {"--sort", "KEY", "with --dry-run: by path, size (largest first) or modified (newest first)",
     false, Completion::sortKey},
    {"--reverse", "", "with --sort: in the opposite order"},
    {"--limit", "COUNT", "with --dry-run: list at most COUNT objects, but count all"},
};

constexpr Option kStorageSizeOptions[] = {
    {"--bytes", "", "only the number of bytes, as when the output is no terminal"},
};

std::span<const Option> optionsOfView(View view) {
    switch (view) {
        case View::foundObjects:
            return kFoundObjectOptions;
        case View::storageSize:
            return kStorageSizeOptions;
        case View::existence:
        case View::nothing:
        case View::liveOutput:
            break;
    }
    return {};
}

template <class Integer>
Integer parseInteger(std::string_view text, std::string_view what) {
    Integer value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size()) return value;
    const bool isNegative = std::is_unsigned_v<Integer> && text.substr(0, 1) == "-";
    const char* fault = isNegative                                ? "' must not be negative"
                        : error == std::errc::result_out_of_range ? "' is out of range"
                                                                  : "' is not a whole number";
    throw UsageError(std::string(what) + ": '" + std::string(text) + fault);
}

}  // namespace

std::string_view optionKey(std::string_view names) noexcept {
    const std::size_t comma = names.rfind(',');
    const std::string_view last = comma == std::string_view::npos ? names : names.substr(comma + 1);
    return last.substr(last.find_first_not_of('-'));
}

void Arguments::add(std::string_view key, std::string value) {
    _values[std::string(key)].push_back(std::move(value));
}

bool Arguments::has(std::string_view key) const {
    return _values.find(key) != _values.end();
}

const std::vector<std::string>& Arguments::all(std::string_view key) const {
    static const std::vector<std::string> none;
    const auto found = _values.find(key);
    return found != _values.end() ? found->second : none;
}

std::string Arguments::text(std::string_view key, std::string_view otherwise) const {
    const auto& values = all(key);
    return values.empty() ? std::string(otherwise) : values.back();
}

std::string Arguments::path(std::string_view key) const {
    return absolutePath(text(key));
}

Array Arguments::paths(std::string_view key) const {
    Array paths;
    for (const std::string& value : all(key))
        paths.emplace_back(absolutePath(value));
    return paths;
}

std::int64_t Arguments::signedNumber(std::string_view key) const {
    return parseSigned(text(key), key);
}

std::uint64_t Arguments::unsignedNumber(std::string_view key, std::uint64_t otherwise) const {
    return has(key) ? parseUnsigned(text(key), key) : otherwise;
}

std::span<const Option> commonOptions() {
    return kCommonOptions;
}

std::vector<Option> optionsOfCommand(const Command& command) {
    std::vector<Option> options(command.options.begin(), command.options.end());
    const auto ofView = optionsOfView(command.view);
    options.insert(options.end(), ofView.begin(), ofView.end());
    if (command.preview != PreviewKind::none)
        options.insert(options.end(), std::begin(kPreviewOptions), std::end(kPreviewOptions));
    return options;
}

std::string absolutePath(std::string_view path) {
    if (path.empty()) throw UsageError("a path is empty");
    if (path.front() == '/') return std::string(path);
    const std::unique_ptr<char, decltype(&std::free)> directory(::getcwd(nullptr, 0), &std::free);
    // Linux returns "(unreachable)..." for a directory outside the root (getcwd(3)).
    if (!directory || *directory != '/')
        throw UsageError("'" + std::string(path) +
                         "' is relative, and the working directory has no path");
    while (path == "." || path.substr(0, 2) == "./")
        path.remove_prefix(path.size() > 1 ? 2 : 1);
    std::string whole = appendPathComponent(directory.get(), path);
    // A slash at the end says that the object is a directory.
    if (!path.empty() && path.back() == '/' && whole.back() != '/') whole += '/';
    return whole;
}

std::int64_t parseSigned(std::string_view text, std::string_view what) {
    return parseInteger<std::int64_t>(text, what);
}

std::uint64_t parseUnsigned(std::string_view text, std::string_view what) {
    return parseInteger<std::uint64_t>(text, what);
}

}  // namespace corvalen::cli
