// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/definition_files.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <utility>

#include "foundation/path.hpp"
#include "platform/files/atomic_file.hpp"

namespace corvalen {
namespace {

bool isTrustworthy(const struct stat& attributes) noexcept {
    const bool isOurs = attributes.st_uid == 0 || attributes.st_uid == ::geteuid();
    return S_ISREG(attributes.st_mode) && isOurs && (attributes.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Result<std::string> readUpToLimit(Descriptor file) {
    std::string content(kMaxDefinitionsFileSize + 1, '\0');
    std::size_t filled = 0;
    while (filled < content.size()) {
        const auto count = ::read(file.get(), content.data() + filled, content.size() - filled);
        if (count < 0) {
            if (errno == EINTR) continue;
            return failure(errno);
        }
        if (count == 0) {
            content.resize(filled);
            return content;
        }
        filled += static_cast<std::size_t>(count);
    }
    return failure(EFBIG);
}

}  // namespace

Result<DefinitionsFile> readDefinitionsFile(Descriptor folder, const char* name) {
    DefinitionsFile read;
    // Without O_NONBLOCK, opening a FIFO would block.
    read.file.reset(::openat(folder.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!read.file || ::fstat(read.file.get(), &read.attributes) != 0) return failure(errno);
    if (!isTrustworthy(read.attributes)) return failure(EPERM);
    Result<std::string> text = readUpToLimit(read.file);
    if (!text) return failure(text.error());
    read.text = *std::move(text);
    return read;
}

Result<> removeDefinitionsFile(Descriptor folder, const std::string& name) {
    return resultOf(::unlinkat(folder.get(), name.c_str(), 0)).and_then([&] {
        return resultOf(::fsync(folder.get()));
    });
}

Result<UniqueFd> openLockedFolder(const std::string& path) {
    Result<UniqueFd> folder =
        openedBy(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    while (folder && ::flock(folder->get(), LOCK_EX) != 0) {
        if (errno != EINTR) return failure(errno);
    }
    return folder;
}

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

/// Removes the next line from `text` and returns it with its newline.
std::string_view takeLine(std::string_view& text) noexcept {
    const auto end = text.find('\n');
    const auto line = text.substr(0, end == std::string_view::npos ? text.size() : end + 1);
    text.remove_prefix(line.size());
    return line;
}

/// Removes the next word from `line` and returns it; empty at the end.
std::string_view takeWord(std::string_view& line) noexcept {
    constexpr std::string_view kBlanks = " \t\r\n";
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    const auto word = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(word.size());
    return word;
}

/// Returns the right that a line defines; empty for comments and empty lines.
std::string_view rightOfLine(std::string_view line) noexcept {
    const auto name = takeWord(line);
    return name.starts_with('#') ? std::string_view() : name;
}

/// Makes no system call, unlike finer clocks on some machines.
std::int64_t secondsNow() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

std::int64_t nanoseconds(const timespec& time) noexcept {
    return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

/// Returns the timestamp that a kernel without finer ones would give a file changed now.
std::int64_t timeOfChanges() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return nanoseconds(now);
}

std::string_view wordOfDefinition(const Value& definition) noexcept {
    if (const auto* word = definition.string()) return *word;
    return "default";
}

}  // namespace

RightsFile::RightsFile(std::string_view path)
    : _path(path), _folder(deleteLastPathComponent(path)), _name(lastPathComponent(path)) {}

RightsFile::Policies RightsFile::parse(std::string_view text) {
    Policies policies;
    while (!text.empty()) {
        auto line = takeLine(text);
        if (rightOfLine(line).empty()) continue;
        const auto name = takeWord(line);
        const auto policy =
            takeWord(line) == "allow" ? RightPolicy::allow : RightPolicy::administrator;
        const auto [found, isNew] = policies.emplace(name, policy);
        if (!isNew) found->second = std::max(found->second, policy);
    }
    return policies;
}

RightsFile::Answer RightsFile::answer(const Policies& policies, std::string_view rightName) {
    const auto found = policies.find(rightName);
    if (found == policies.end()) return Answer::undefined;
    return found->second == RightPolicy::allow ? Answer::allow : Answer::administrator;
}

RightsFile::Stamp RightsFile::stampOf(const struct stat& attributes) noexcept {
    return {attributes.st_dev,
            attributes.st_ino,
            attributes.st_nlink,
            static_cast<std::uint64_t>(attributes.st_size),
            nanoseconds(attributes.st_mtim),
            nanoseconds(attributes.st_ctim)};
}

std::optional<RightsFile::Stamp> RightsFile::stampAtPath() const noexcept {
    struct stat attributes {};
    if (::fstatat(AT_FDCWD, _path.c_str(), &attributes, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? std::optional<Stamp>(Stamp{}) : std::nullopt;
    }
    return stampOf(attributes);
}

/// fstat() on the open file costs half of stat() by path.
bool RightsFile::isUnchanged() noexcept {
    const auto now = secondsNow();
    if (!_file || _lookedAtPath.load(std::memory_order_relaxed) != now) {
        _lookedAtPath.store(now, std::memory_order_relaxed);
        return stampAtPath() == _stamp;
    }
    struct stat attributes {};
    return ::fstat(_file.get(), &attributes) == 0 && stampOf(attributes) == _stamp;
}

RightsFile::Answer RightsFile::find(std::string_view rightName) {
    {
        const std::shared_lock reading(_lock);
        if (_isLoaded && isUnchanged()) return answer(_policies, rightName);
    }
    const std::unique_lock writing(_lock);
    return reload() ? answer(_policies, rightName) : Answer::unreadable;
}

bool RightsFile::reload() {
    _isLoaded = false;
    const auto now = timeOfChanges();
    auto read = readDefinitionsFile(kWorkingDirectory, _path.c_str());
    if (!read && !failedWith(read, ENOENT)) return false;
    _policies = parse(read ? read->text : "");
    // Read before the text: the next query notices a change in between.
    _stamp = read ? stampOf(read->attributes) : Stamp{};
    _file = read ? std::move(read->file) : UniqueFd();
    // A file replaced between open() and fstat() has no links and never changes again: its stamp
    // would stay valid. Its text serves this query only. The same holds for a file changed within
    // this clock tick: older kernels give its next change the same time.
    _isLoaded = _stamp == Stamp{} || (_stamp.links != 0 && _stamp.changed < now);
    return true;
}

bool RightsFile::rewrite(std::string_view rightName, std::string_view newLine) {
    if (::mkdir(_folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) return false;
    const auto folder = openLockedFolder(_folder);
    if (!folder) return false;
    const auto old = readDefinitionsFile(*folder, _name.c_str());
    if (!old && !failedWith(old, ENOENT)) return false;

    std::string changed;
    bool isDefined = false;
    for (std::string_view rest = old ? std::string_view(old->text) : ""; !rest.empty();) {
        const auto line = takeLine(rest);
        if (rightOfLine(line) == rightName) {
            isDefined = true;
            continue;
        }
        changed.append(line);
        if (!line.ends_with('\n')) changed.push_back('\n');
    }
    if (newLine.empty() && !isDefined) return true;
    changed.append(newLine);
    if (changed.size() > kMaxDefinitionsFileSize) return false;
    return replaceFile(*folder, _name, changed, S_IRUSR | S_IWUSR).has_value();
}

bool RightsFile::set(std::string_view rightName, const Value& definition, std::string_view prompt) {
    std::string line;
    line.append(rightName).append(" ").append(wordOfDefinition(definition)).append(" ");
    line.append(prompt);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return rewrite(rightName, line.append("\n"));
}

bool RightsFile::remove(std::string_view rightName) {
    return rewrite(rightName, "");
}

}  // namespace corvalen
