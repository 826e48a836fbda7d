// SPDX-License-Identifier: MIT
#include "platform/log/audit.hpp"

#include <fmt/format.h>
#include <libaudit.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "platform/processes/thread_capabilities.hpp"

namespace corvalen {
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
