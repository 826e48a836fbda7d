// SPDX-License-Identifier: MIT
// What is recorded about privileged operations: who asked, and the record in the kernel's audit
// log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/peer_identity.hpp"

namespace corvalen {

/// One operation that was granted and has ended. Borrows.
struct AuditRecord {
    std::string_view operation;
    const PeerIdentity& peer;
    /// Empty when it could not be found out.
    std::string_view executable;
    const std::vector<std::string>& objects;
    bool succeeded;
};

/// The path of the program that the peer executes now; empty when the peer has ended or the kernel
/// does not tell. For threads that have no ScopedCapabilities.
[[nodiscard]] std::string executableOfPeer(const PeerIdentity& peer);

/// Adds a record to the kernel's audit log (auditd(8)), with the first object and the number of
/// objects; does nothing where the kernel has no audit or it is switched off. Any thread may call
/// that has no ScopedCapabilities. May wait while the audit daemon does not keep up.
void recordInKernelAudit(const AuditRecord& record);

}  // namespace corvalen
