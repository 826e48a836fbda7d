// SPDX-License-Identifier: MIT
#include "cli/operation_output.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "cli/text.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

constexpr std::string_view kTypePrefix = "NSFileType";

struct TypeLetter {
    std::string_view type;
    char letter;
};

constexpr TypeLetter kTypeLetters[] = {
    {"Regular", '-'}, {"Directory", 'd'},        {"SymbolicLink", 'l'},
    {"Socket", 's'},  {"CharacterSpecial", 'c'}, {"BlockSpecial", 'b'},
};

std::string_view typeOf(const Dictionary& record) {
    const Value* type = record.find(kKeyObjectType);
    if (type == nullptr || type->string() == nullptr) return "Unknown";
    const std::string_view text = *type->string();
    return text.substr(0, kTypePrefix.size()) == kTypePrefix ? text.substr(kTypePrefix.size())
                                                             : text;
}

const Number* numberOf(const Dictionary& record, std::string_view key) {
    const Value* value = record.find(key);
    return value != nullptr ? value->number() : nullptr;
}

/// Formats type and mode like ls(1), as in "drwxr-xr-x".
std::string modeText(std::string_view type, unsigned mode) {
    std::string text = "?rwxrwxrwx";
    for (const TypeLetter& known : kTypeLetters)
        if (known.type == type) text[0] = known.letter;
    for (unsigned bit = 0; bit < 9; ++bit)
        if ((mode & (0400U >> bit)) == 0) text[1 + bit] = '-';
    if ((mode & 04000U) != 0) text[3] = text[3] == 'x' ? 's' : 'S';
    if ((mode & 02000U) != 0) text[6] = text[6] == 'x' ? 's' : 'S';
    if ((mode & 01000U) != 0) text[9] = text[9] == 'x' ? 't' : 'T';
    return text;
}

std::string tableRow(const Dictionary& record, std::string_view path, bool exactSizes) {
    const Number* mode = numberOf(record, kKeyObjectPOSIXMode);
    const Number* size = numberOf(record, kKeyObjectSize);
    const Value* date = record.find(kKeyObjectModificationDate);
    const std::uint64_t bytes = size != nullptr ? size->unsignedIntegerValue() : 0;
    const auto bits =
        static_cast<unsigned>(mode != nullptr ? mode->unsignedIntegerValue() & 07777U : 0U);
    return fmt::format(
        "{} {:>{}}  {:16}  {}\n", modeText(typeOf(record), bits),
        exactSizes ? fmt::format("{}", bytes) : humanSize(bytes), exactSizes ? 15 : 6,
        date != nullptr && date->date() != nullptr ? localMinute(*date->date()) : "", path);
}

std::string jsonRecord(const Dictionary& record, std::string_view path) {
    std::string out = "{";
    appendJsonText(out, "path", path);
    std::string type(typeOf(record));
    if (!type.empty())
        type[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(type[0])));
    out += ",";
    appendJsonText(out, "type", type);
    if (const Number* size = numberOf(record, kKeyObjectSize))
        out += ",\"size\":" + jsonNumber(*size);
    const Value* date = record.find(kKeyObjectModificationDate);
    if (date != nullptr && date->date() != nullptr)
        out += ",\"modified\":\"" + utcTimestamp(*date->date()) + "\"";
    if (const Number* mode = numberOf(record, kKeyObjectPOSIXMode))
        out += fmt::format(",\"mode\":\"{:04o}\"", mode->unsignedIntegerValue());
    return out + "}\n";
}

/// Seconds and nanoseconds.
std::pair<std::int64_t, std::uint32_t> modifiedOf(const Dictionary& record) {
    const Value* value = record.find(kKeyObjectModificationDate);
    const Date* date = value != nullptr ? value->date() : nullptr;
    if (date == nullptr) return {};
    return {date->seconds, date->nanoseconds};
}

std::uint64_t sizeOf(const Dictionary& record) {
    const Number* size = numberOf(record, kKeyObjectSize);
    return size != nullptr ? size->unsignedIntegerValue() : 0;
}

std::string_view pathOf(const Dictionary& record) {
    const Value* path = record.find(kKeyObjectPath);
    return path != nullptr && path->string() != nullptr ? *path->string() : std::string_view();
}

bool comesBefore(const Dictionary& a, const Dictionary& b, ObjectSelection::Key key) {
    switch (key) {
        case ObjectSelection::Key::size:
            return sizeOf(a) > sizeOf(b);
        case ObjectSelection::Key::modified:
            return modifiedOf(a) > modifiedOf(b);
        case ObjectSelection::Key::path:
        case ObjectSelection::Key::none:
            break;
    }
    return pathOf(a) < pathOf(b);
}

}  // namespace

ObjectForm chooseObjectForm(const Arguments& arguments, bool isTerminal) {
    ObjectForm form = isTerminal ? ObjectForm::table : ObjectForm::plain;
    int given = 0;
    const auto choose = [&](std::string_view key, ObjectForm chosen) {
        if (!arguments.has(key)) return;
        form = chosen;
        ++given;
    };
    choose("table", ObjectForm::table);
    choose("plain", ObjectForm::plain);
    choose("null", ObjectForm::nullTerminated);
    choose("json", ObjectForm::json);
    if (given > 1) throw UsageError("only one of --table, --plain, --null and --json");
    return form;
}

std::string formatObject(const Dictionary& record, ObjectForm form, bool isTerminal,
                         bool exactSizes) {
    const Value* value = record.find(kKeyObjectPath);
    if (value == nullptr || value->string() == nullptr) return {};
    const std::string& path = *value->string();
    switch (form) {
        case ObjectForm::table:
            return tableRow(record, escapedForTerminal(path), exactSizes);
        case ObjectForm::plain:
            return (isTerminal ? escapedForTerminal(path) : path) + "\n";
        case ObjectForm::nullTerminated:
            return path + '\0';
        case ObjectForm::json:
            break;
    }
    return jsonRecord(record, path);
}

ObjectSelection chooseObjectSelection(const Arguments& arguments) {
    ObjectSelection selection;
    selection.isReversed = arguments.has("reverse");
    selection.limit = arguments.unsignedNumber("limit", UINT64_MAX);
    if (!arguments.has("sort")) {
        if (selection.isReversed) throw UsageError("--reverse is for --sort");
        return selection;
    }
    const std::string key = arguments.text("sort");
    if (key == "path")
        selection.key = ObjectSelection::Key::path;
    else if (key == "size")
        selection.key = ObjectSelection::Key::size;
    else if (key == "modified")
        selection.key = ObjectSelection::Key::modified;
    else
        throw UsageError("sort: '" + key + "' is none of path, size and modified");
    return selection;
}

std::string ObjectWriter::heading() const {
    if (_form != ObjectForm::table) return {};
    return fmt::format("{:10} {:>{}}  {:16}  {}\n", "MODE", "SIZE", _exactSizes ? 15 : 6,
                       "MODIFIED", "PATH");
}

void ObjectWriter::write(const Array& records) {
    for (const Value& record : records) {
        if (record.dictionary() == nullptr || isFull()) continue;
        ++_count;
        if (sorts()) {
            _kept.push_back(record);
            continue;
        }
        if (_count == 1) _output.write(heading());
        _output.write(formatObject(*record.dictionary(), _form, _output.isTerminal(), _exactSizes));
    }
    if (_output.isTerminal()) _output.flush();
}

std::string ObjectWriter::takeSorted() {
    std::stable_sort(_kept.begin(), _kept.end(), [this](const Value& a, const Value& b) {
        const Value& first = _selection.isReversed ? b : a;
        const Value& second = _selection.isReversed ? a : b;
        return comesBefore(*first.dictionary(), *second.dictionary(), _selection.key);
    });
    std::string text = _kept.empty() ? std::string() : heading();
    const auto count =
        static_cast<std::size_t>(std::min<std::uint64_t>(_kept.size(), _selection.limit));
    for (std::size_t i = 0; i < count; ++i)
        text += formatObject(*_kept[i].dictionary(), _form, _output.isTerminal(), _exactSizes);
    _kept.clear();
    return text;
}

namespace {

constexpr std::chrono::milliseconds kDrawInterval{100};
/// After this time without feedback the line says what the command waits for.
constexpr std::chrono::seconds kWaitNoticeDelay{2};
constexpr std::size_t kBarWidth = 24;
constexpr std::size_t kDefaultColumns = 80;

std::size_t terminalColumns() {
    winsize size{};
    const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kDefaultColumns;
}

void writeToTerminal(std::string_view text) {
    // A progress line may be lost.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

std::string barText(double fraction) {
    const double share = std::clamp(std::isfinite(fraction) ? fraction : 0.0, 0.0, 1.0);
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(kBarWidth));
    return fmt::format("[{}{}] {:3.0f}%  ", std::string(filled, '#'),
                       std::string(kBarWidth - filled, '-'), std::floor(share * 100));
}

}  // namespace

bool canShowProgress() {
    const char* term = std::getenv("TERM");
    const bool dumb = term == nullptr || std::string_view(term) == "dumb";
    return !dumb && ::isatty(STDERR_FILENO) == 1;
}

std::string progressLine(const ProgressState& state, std::size_t width) {
    std::string line;
    if (state.fraction > 0) line += barText(state.fraction);
    if (state.count > 0) {
        line += fmt::format("{} objects", state.count);
        if (state.seconds >= 1)
            line += fmt::format(" ({:.0f}/s)", static_cast<double>(state.count) / state.seconds);
        line += "  ";
    }
    line += fmt::format("{:.0f} s", std::floor(state.seconds));
    if (!state.activity.empty()) line += "  " + escapedForTerminal(state.activity);
    std::size_t end = std::min(line.size(), width);
    // Do not cut a UTF-8 character.
    while (end < line.size() && end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0U) == 0x80U)
        --end;
    return line.substr(0, end);
}

ProgressDisplay::ProgressDisplay(bool wanted) : _enabled(wanted && canShowProgress()) {}

ProgressDisplay::~ProgressDisplay() {
    clearLine();
}

void ProgressDisplay::begin() {
    const std::lock_guard lock(_mutex);
    if (std::exchange(_begun, true)) return;
    _start = Clock::now();
    if (std::exchange(_isWaiting, false)) _state.activity.clear();
}

void ProgressDisplay::showWaiting(std::string_view activity) {
    const std::lock_guard lock(_mutex);
    if (_begun) return;
    _isWaiting = true;
    _start = Clock::now();
    _state.activity = activity;
}

void ProgressDisplay::setActivity(std::string activity) {
    const std::lock_guard lock(_mutex);
    _state.activity.swap(activity);
}

void ProgressDisplay::setFraction(double fraction) {
    const std::lock_guard lock(_mutex);
    _state.fraction = fraction;
}

void ProgressDisplay::setCount(std::uint64_t count) {
    const std::lock_guard lock(_mutex);
    _state.count = count;
}

void ProgressDisplay::tick() {
    if (!_enabled) return;
    const std::lock_guard lock(_mutex);
    const auto now = Clock::now();
    if (!_begun && !(_isWaiting && now - _start >= kWaitNoticeDelay)) return;
    if (_lineShown && now - _drawn < kDrawInterval) return;
    _drawn = now;
    _lineShown = true;
    _state.seconds = std::chrono::duration<double>(now - _start).count();
    // The last column stays free: some terminals wrap when it is written.
    writeToTerminal("\r\033[K" + progressLine(_state, terminalColumns() - 1));
}

std::unique_lock<std::mutex> ProgressDisplay::hold() {
    std::unique_lock lock(_mutex);
    clearLine();
    return lock;
}

void ProgressDisplay::clearLine() {
    if (_lineShown) writeToTerminal("\r\033[K");
    _lineShown = false;
}

}  // namespace corvalen::cli
