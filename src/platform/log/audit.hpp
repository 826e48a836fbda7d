// SPDX-License-Identifier: MIT
// The audit of privileged operations: the client's program, and records in the kernel's audit log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/authorization/peer_identity.hpp"

namespace corvalen {

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
