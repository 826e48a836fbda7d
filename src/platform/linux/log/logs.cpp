// SPDX-License-Identifier: MIT
// Must precede <systemd/sd-journal.h>: messages do not name the source file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <libaudit.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/encoding.hpp"
#include "platform/log/logs.hpp"
#include "platform/processes/threads.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kJournalSocket = "/run/systemd/journal/socket";
constexpr std::string_view kSyslogSocket = "/dev/log";

// In bytes. Client data ends up in log lines: a message of megabytes must not fill the log.
constexpr std::size_t kLongestLine = 16384;

/// Lines of usual length use no heap memory.
using Text = fmt::memory_buffer;

bool somebodyListensAt(std::string_view path, int type) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    return socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                               sizeof address) == 0;
}

int facilityNumber(std::string_view facility) noexcept {
    return facility == "Daemon" ? LOG_DAEMON : LOG_USER;
}

/// Returns whether the text is printable ASCII, as nearly every line is. No early exit, so the loop
/// vectorises.
bool isPlain(std::string_view text) noexcept {
    std::uint8_t others = 0;
    for (const char character : text) {
        const auto fromSpace = static_cast<std::uint8_t>(character - ' ');
        others |= static_cast<std::uint8_t>(fromSpace > '~' - ' ');
    }
    return others == 0;
}

bool mustEscape(const Utf8Character& character) noexcept {
    const char32_t c = character.codePoint;
    // U+0080 to U+009F control terminals, as those below the space do.
    return character.length == 0 || c < 0x20 || (c >= 0x7F && c <= 0x9F);
}

void appendEscaped(std::string_view text, Text& escaped) {
    if (isPlain(text)) return escaped.append(text);
    for (std::size_t at = 0; at < text.size();) {
        const Utf8Character character = utf8CharacterAt(text, at);
        const std::string_view bytes = text.substr(at, std::max<std::size_t>(character.length, 1));
        if (mustEscape(character)) {
            for (const char byte : bytes) {
                fmt::format_to(fmt::appender(escaped), "\\x{:02x}",
                               static_cast<unsigned char>(byte));
            }
        } else {
            escaped.append(bytes);
        }
        at += bytes.size();
    }
}

void appendLoggable(std::string_view text, Text& loggable) {
    appendEscaped(text.substr(0, kLongestLine), loggable);
    if (text.size() > kLongestLine) loggable.append(std::string_view("..."));
}

std::string loggableText(std::string_view text) {
    Text loggable;
    appendLoggable(text, loggable);
    return fmt::to_string(loggable);
}

/// Names with a leading underscore belong to the journal (systemd.journal-fields(7)).
bool isFieldName(std::string_view name) noexcept {
    const auto allowed = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    };
    return !name.empty() && name.size() <= 64 && name.front() >= 'A' && name.front() <= 'Z' &&
           std::all_of(name.begin(), name.end(), allowed);
}

class JournalLog final : public SystemLog {
  public:
    JournalLog(std::string_view ident, int facility, std::string_view sender)
        : _ident(fmt::format("SYSLOG_IDENTIFIER={}", escapedForLog(ident))),
          _facility(fmt::format("SYSLOG_FACILITY={}", facility >> 3)),
          _sender(fmt::format("SENDER={}", escapedForLog(sender))) {}

    [[nodiscard]] std::string_view destination() const noexcept override { return "journal"; }
    [[nodiscard]] bool takesFields() const noexcept override { return true; }

    void log(LogLevel level, std::string_view line, const LogFields& fields) override {
        std::vector<std::string> own;
        own.reserve(2 + fields.size());
        own.push_back("MESSAGE=" + loggableText(line));
        own.push_back(fmt::format("PRIORITY={}", static_cast<int>(level)));
        for (const auto& [name, value] : fields) {
            if (isFieldName(name)) own.push_back(fmt::format("{}={}", name, loggableText(value)));
        }
        std::vector<iovec> parts;
        parts.reserve(own.size() + 3);
        const auto add = [&parts](const std::string& field) {
            parts.push_back({const_cast<char*>(field.data()), field.size()});
        };
        std::for_each(own.begin(), own.end(), add);
        add(_ident);
        add(_facility);
        add(_sender);
        (void)::sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
    }

  private:
    std::string _ident;
    std::string _facility;
    std::string _sender;
};

/// syslog(3) keeps one connection per process and a pointer to the ident.
class SyslogLog final : public SystemLog {
  public:
    SyslogLog(std::string_view ident, int facility) : _ident(escapedForLog(ident)) {
        ::openlog(_ident.c_str(), LOG_PID | LOG_NDELAY, facility);
    }
    SyslogLog(const SyslogLog&) = delete;
    SyslogLog& operator=(const SyslogLog&) = delete;
    ~SyslogLog() override { ::closelog(); }

    [[nodiscard]] std::string_view destination() const noexcept override { return "syslog"; }

    void log(LogLevel level, std::string_view line, const LogFields& /*fields*/) override {
        ::syslog(static_cast<int>(level), "%s", loggableText(line).c_str());
    }

  private:
    std::string _ident;
};

void writeLineToStandardError(std::string_view leader, std::string_view line) {
    static std::mutex oneLineAtATime;
    Text whole;
    whole.append(leader);
    whole.append(std::string_view(": "));
    appendLoggable(line, whole);
    whole.push_back('\n');
    // The kernel writes up to this size atomically to a pipe (pipe(7)).
    std::unique_lock lock(oneLineAtATime, std::defer_lock);
    if (whole.size() > PIPE_BUF) lock.lock();
    (void)writeAll(kStandardError, {whole.data(), whole.size()});
}

class StandardErrorLog final : public SystemLog {
  public:
    explicit StandardErrorLog(std::string_view ident) {
        const bool isTerminal = ::isatty(STDERR_FILENO) == 1;
        for (std::size_t level = 0; level < _leaders.size(); ++level)
            _leaders[level] = (isTerminal ? "" : fmt::format("<{}>", level)) + escapedForLog(ident);
    }

    [[nodiscard]] std::string_view destination() const noexcept override {
        return "standard error";
    }

    void log(LogLevel level, std::string_view line, const LogFields& /*fields*/) override {
        writeLineToStandardError(_leaders[static_cast<std::size_t>(level)], line);
    }

  private:
    /// Prefixes by level, which a service manager reads at the beginning of a line (sd-daemon(3)).
    std::array<std::string, 8> _leaders;
};

}  // namespace

std::unique_ptr<SystemLog> openSystemLog(std::string_view ident, std::string_view facility,
                                         std::string_view sender) {
    const int number = facilityNumber(facility);
    if (somebodyListensAt(kJournalSocket, SOCK_DGRAM)) {
        return std::make_unique<JournalLog>(ident, number, sender);
    }
    if (somebodyListensAt(kSyslogSocket, SOCK_DGRAM) ||
        somebodyListensAt(kSyslogSocket, SOCK_STREAM)) {
        return std::make_unique<SyslogLog>(ident, number);
    }
    if (::fcntl(STDERR_FILENO, F_GETFD) < 0) return nullptr;
    return std::make_unique<StandardErrorLog>(ident);
}

void consoleLog(std::string_view line) {
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    writeLineToStandardError(program_invocation_short_name, line);
}

std::string escapedForLog(std::string_view text) {
    Text escaped;
    appendEscaped(text, escaped);
    return fmt::to_string(escaped);
}

namespace {

/// In bytes. The kernel cuts long messages, which would lose the outcome at the end.
constexpr std::size_t kLongestObject = 2048;

/// Returns ` name="value"`, with the value in hexadecimal if it has quotes, spaces or control
/// characters (audit_encode_nv_string(3)).
std::string encoded(const char* name, std::string_view value) {
    value = value.substr(0, kLongestObject);
    const std::unique_ptr<char, decltype(&std::free)> text(
        ::audit_encode_nv_string(name, value.data(), static_cast<unsigned>(value.size())),
        &std::free);
    return text ? fmt::format(" {}", text.get()) : std::string();
}

}  // namespace

std::string executableOfPeer(const PeerIdentity& peer) {
    std::string path(PATH_MAX, '\0');
    const ScopedCapabilities seeing(capability::kSeeProcesses);
    const ssize_t length =
        ::readlink(fmt::format("/proc/{}/exe", peer.pid).c_str(), path.data(), path.size());
    // The pid may belong to another process by now.
    if (length <= 0 || !peer.isAlive()) return {};
    path.resize(static_cast<std::size_t>(length));
    return path;
}

void recordInKernelAudit(const AuditRecord& record) {
    const ScopedCapabilities writing(capability::kWriteAudit);
    const UniqueFd log(::audit_open());
    if (!log) return;
    std::string text = fmt::format("op={} client-uid={} client-pid={}", record.operation,
                                   record.peer.uid, record.peer.pid);
    text += encoded("client-exe", record.executable);
    if (!record.objects.empty()) {
        text += encoded("name", record.objects.front());
        text += fmt::format(" items={}", record.objects.size());
    }
    // Host and terminal stay empty: the daemon's are not the client's.
    (void)!::audit_log_user_message(log.get(), AUDIT_TRUSTED_APP, text.c_str(), "", "", "",
                                    record.succeeded ? 1 : 0);
}

}  // namespace corvalen
