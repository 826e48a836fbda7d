// SPDX-License-Identifier: MIT
// The logs of the machine: the system log with numeric priorities, the console log, and the
// kernel's audit log.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/authorization/identity.hpp"

namespace corvalen {

/// Priorities as syslog(3) numbers them.
enum class LogLevel : std::uint8_t { error = 3, notice = 5, informational = 6, debug = 7 };

/// Additional fields of a line: name (upper case letters, digits, underscores; first a letter) and
/// value. Other names are dropped; destinations without fields ignore them all.
using LogFields = std::vector<std::pair<std::string_view, std::string>>;

/// A log handle with its ident, facility and sender. Any thread may call. Lines do not mix, and are
/// cut after 16 KiB. Control characters are escaped, so that no text can begin a new line or field.
class SystemLog {
  public:
    virtual ~SystemLog() = default;
    /// Returns "journal", "syslog" or "standard error".
    [[nodiscard]] virtual std::string_view destination() const noexcept = 0;
    /// Returns whether the destination stores fields; if not, callers need not build them.
    [[nodiscard]] virtual bool takesFields() const noexcept { return false; }
    virtual void log(LogLevel level, std::string_view line, const LogFields& fields = {}) = 0;
};

/// Opens the journal, else syslog, else standard error: the first to which a connection succeeds.
/// The facility is "Daemon" or, for any other text, that of users; only the journal stores the
/// sender. Returns null if none can be opened.
[[nodiscard]] std::unique_ptr<SystemLog> openSystemLog(std::string_view ident,
                                                       std::string_view facility,
                                                       std::string_view sender);

/// Writes one line to standard error after the program's name. Control characters other than the
/// final newline are escaped.
void consoleLog(std::string_view line);

/// Returns the text with control characters and bytes that are not UTF-8 as \xNN.
[[nodiscard]] std::string escapedForLog(std::string_view text);

/// A granted operation that has ended. Borrows everything.
struct AuditRecord {
    std::string_view operation;
    const PeerIdentity& peer;
    /// Empty if unknown.
    std::string_view executable;
    const std::vector<std::string>& objects;
    bool succeeded;
};

/// Returns the path of the program that the peer executes now; empty if the peer has ended or the
/// kernel does not show it. The calling thread must hold no ScopedCapabilities.
[[nodiscard]] std::string executableOfPeer(const PeerIdentity& peer);

/// Adds a record with the first object and the number of objects to the kernel's audit log
/// (auditd(8)). Does nothing if the kernel has no audit or it is switched off. May block while the
/// audit daemon falls behind. Any thread may call that holds no ScopedCapabilities.
void recordInKernelAudit(const AuditRecord& record);

}  // namespace corvalen
