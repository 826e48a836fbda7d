// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

#include <fmt/format.h>
#include <pwd.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>

#include "cli/other_programs.hpp"
#include "cli/output.hpp"
#include "cli/report.hpp"
#include "cli/text.hpp"
#include "foundation/path.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

constexpr std::uint64_t kMicroseconds = 1'000'000;
constexpr std::string_view kRow = "{:16}  {:10}  {:21}  {:{}}  {:>7} {:14}  {}";

struct JournalCloser {
    void operator()(sd_journal* journal) const noexcept { sd_journal_close(journal); }
};
using Journal = std::unique_ptr<sd_journal, JournalCloser>;

struct LogEntry {
    Date time;
    std::string user;
    std::string process;
    std::string executable;
    std::string operation;
    std::string outcome;
    std::string domain;
    std::string objectCount;
    std::vector<std::string> objects;
};

std::string nameOfUser(const std::string& number) {
    std::uint32_t uid = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), uid);
    const passwd* entry = error == std::errc() && *end == '\0' ? ::getpwuid(uid) : nullptr;
    return entry != nullptr ? entry->pw_name : number;
}

std::string numberOfUser(const std::string& name) {
    if (const passwd* entry = ::getpwnam(name.c_str())) return std::to_string(entry->pw_uid);
    const bool isNumber = name.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber) throw UsageError("there is no user '" + name + "'");
    return std::to_string(parseUnsigned(name, "user"));
}

std::string fieldOf(sd_journal* journal, std::string_view name) {
    const void* data = nullptr;
    std::size_t length = 0;
    if (sd_journal_get_data(journal, std::string(name).c_str(), &data, &length) < 0) return {};
    const std::string_view field(static_cast<const char*>(data), length);
    return std::string(field.substr(name.size() + 1));
}

/// Returns all values of a field, in the order of the entry.
std::vector<std::string> fieldsOf(sd_journal* journal, std::string_view name) {
    std::vector<std::string> values;
    const void* data = nullptr;
    std::size_t length = 0;
    SD_JOURNAL_FOREACH_DATA(journal, data, length) {
        const std::string_view field(static_cast<const char*>(data), length);
        if (field.substr(0, name.size()) == name && field.substr(name.size(), 1) == "=")
            values.emplace_back(field.substr(name.size() + 1));
    }
    return values;
}

LogEntry entryAt(sd_journal* journal) {
    LogEntry entry;
    std::uint64_t time = 0;
    (void)sd_journal_get_realtime_usec(journal, &time);
    entry.time = {static_cast<std::int64_t>(time / kMicroseconds),
                  static_cast<std::uint32_t>(time % kMicroseconds * 1000)};
    entry.user = fieldOf(journal, audit_field::kUser);
    entry.process = fieldOf(journal, audit_field::kProcess);
    entry.executable = fieldOf(journal, audit_field::kExecutable);
    entry.operation = fieldOf(journal, audit_field::kOperation);
    entry.outcome = fieldOf(journal, audit_field::kOutcome);
    entry.domain = fieldOf(journal, audit_field::kOutcomeDomain);
    entry.objectCount = fieldOf(journal, audit_field::kObjectCount);
    entry.objects = fieldsOf(journal, audit_field::kObject);
    return entry;
}

std::string outcomeText(const LogEntry& entry) {
    if (entry.outcome == "0") return "done";
    std::int64_t code = 0;
    (void)std::from_chars(entry.outcome.data(), entry.outcome.data() + entry.outcome.size(), code);
    if (entry.domain == kPosixErrorDomain) return std::strerror(errnoFromPosixCode(code));
    return fmt::format("{} {}", pathExtension(entry.domain), entry.outcome);
}

std::string row(const LogEntry& entry, std::size_t outcomeWidth) {
    std::string object = entry.objects.empty() ? "-" : entry.objects.front();
    if (entry.objects.size() > 1) object += fmt::format(" (1 of {})", entry.objectCount);
    const std::string program(lastPathComponent(entry.executable));
    return escapedForTerminal(fmt::format(kRow, localMinute(entry.time), nameOfUser(entry.user),
                                          entry.operation, outcomeText(entry), outcomeWidth,
                                          entry.process, program.empty() ? "?" : program, object)) +
           "\n";
}

std::string jsonLine(const LogEntry& entry) {
    std::string out = "{\"time\":\"" + utcTimestamp(entry.time) + "\"";
    const std::pair<std::string_view, const std::string&> texts[] = {
        {"executable", entry.executable},
        {"operation", entry.operation},
        {"domain", entry.domain},
    };
    out += ",\"uid\":" + jsonString(entry.user) + ",\"user\":" + jsonString(nameOfUser(entry.user));
    out += ",\"pid\":" + jsonString(entry.process);
    for (const auto& [name, text] : texts) {
        if (text.empty()) continue;
        out += ',';
        appendJsonText(out, name, text);
    }
    out += ",\"outcome\":" + jsonString(entry.outcome) + ",\"objects\":[";
    for (const std::string& object : entry.objects)
        out.append(&object == entry.objects.data() ? "" : ",").append(jsonString(object));
    return out + "]}\n";
}

Journal openJournal(const Arguments& arguments, int* failure) {
    sd_journal* opened = nullptr;
    *failure = arguments.has("directory")
                   ? sd_journal_open_directory(&opened, arguments.path("directory").c_str(), 0)
                   : sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM);
    return Journal(*failure < 0 ? nullptr : opened);
}

void addMatch(sd_journal* journal, std::string_view field, std::string_view value) {
    const std::string match = fmt::format("{}={}", field, value);
    (void)sd_journal_add_match(journal, match.data(), match.size());
}

/// Returns the newest entries that match the options, at most --limit, the oldest first.
std::deque<LogEntry> readEntries(sd_journal* journal, const Arguments& arguments) {
    addMatch(journal, "MESSAGE_ID", audit_field::kMessageId);
    // Any user may send these fields; journald itself sets those with a leading underscore.
    addMatch(journal, "_UID", "0");
    if (arguments.has("user"))
        addMatch(journal, audit_field::kUser, numberOfUser(arguments.text("user")));
    if (arguments.has("operation"))
        addMatch(journal, audit_field::kOperation,
                 operationOf(arguments.text("operation")).identifier);
    const std::uint64_t since =
        arguments.has("since")
            ? static_cast<std::uint64_t>(std::max<std::time_t>(
                  parsePointOfTime(arguments.text("since"), std::time(nullptr)), 0)) *
                  kMicroseconds
            : 0;
    const std::uint64_t limit = arguments.unsignedNumber("limit", UINT64_MAX);
    std::deque<LogEntry> entries;
    (void)sd_journal_seek_tail(journal);
    while (entries.size() < limit && sd_journal_previous(journal) > 0) {
        std::uint64_t time = 0;
        if (sd_journal_get_realtime_usec(journal, &time) >= 0 && time < since) break;
        entries.push_front(entryAt(journal));
    }
    return entries;
}

std::optional<std::time_t> parseCalendarTime(const std::string& text, std::time_t now) {
    static constexpr struct {
        const char* format;
        bool hasDate;
    } kForms[] = {{"%Y-%m-%d %H:%M:%S", true},
                  {"%Y-%m-%d %H:%M", true},
                  {"%Y-%m-%d", true},
                  {"%H:%M:%S", false},
                  {"%H:%M", false}};
    for (const auto& form : kForms) {
        std::tm time{};
        ::localtime_r(&now, &time);
        time.tm_hour = time.tm_min = time.tm_sec = 0;
        time.tm_isdst = -1;
        const char* const end = ::strptime(text.c_str(), form.format, &time);
        if (end != nullptr && *end == '\0') return std::mktime(&time);
    }
    return std::nullopt;
}

std::optional<std::time_t> parseAge(std::string_view text) {
    static constexpr std::pair<std::string_view, std::time_t> kUnits[] = {
        {"s", 1}, {"min", 60}, {"m", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}};
    if (text.substr(0, 1) == "-") text.remove_prefix(1);
    std::uint32_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    for (const auto& [name, seconds] : kUnits)
        if (error == std::errc() && text == name) return count * seconds;
    return std::nullopt;
}

}  // namespace

std::time_t parsePointOfTime(std::string_view text, std::time_t now) {
    if (text == "today") return *parseCalendarTime("00:00", now);
    if (text == "yesterday") {
        // Noon of yesterday: 24 hours before midnight may be another day when the clock changes.
        constexpr std::time_t kTwelveHours = 43200;
        return *parseCalendarTime("00:00", *parseCalendarTime("00:00", now) - kTwelveHours);
    }
    if (const auto age = parseAge(text)) return now - *age;
    if (const auto time = parseCalendarTime(std::string(text), now)) return *time;
    throw UsageError("since: '" + std::string(text) +
                     "' is no time; write 2026-11-22, '2026-11-22 14:00', 14:00, today, "
                     "yesterday, or 2h for two hours ago");
}

int runLog(const Arguments& arguments) {
    int failure = 0;
    const Journal journal = openJournal(arguments, &failure);
    if (!journal)
        return report({"log", {}, std::string("the journal: ") + std::strerror(-failure)});
    const std::deque<LogEntry> entries = readEntries(journal.get(), arguments);
    const bool asJson = arguments.has("json");
    const std::string_view heading = "OUTCOME";
    std::size_t outcomeWidth = heading.size();
    for (const LogEntry& entry : entries)
        outcomeWidth = std::max(outcomeWidth, outcomeText(entry).size());
    std::string text;
    if (!asJson && !entries.empty())
        text = fmt::format(kRow, "TIME", "USER", "OPERATION", heading, outcomeWidth, "PROCESS",
                           "PROGRAM", "OBJECT") +
               "\n";
    for (const LogEntry& entry : entries)
        text += asJson ? jsonLine(entry) : row(entry, outcomeWidth);
    if (entries.empty() && !asJson && !arguments.has("quiet"))
        printError(::geteuid() == 0
                       ? "the journal has no such lines"
                       : "the journal has no such lines that you can see\n  Root and the members "
                         "of the groups systemd-journal and adm see the helper's.");
    return writePaged(text, arguments);
}

}  // namespace corvalen::cli
