// SPDX-License-Identifier: MIT
// One request for an operation.
#pragma once

#include <string_view>

#include "operations/privileged_operation.hpp"
#include "platform/authorization/peer_identity.hpp"

namespace corvalen {

/// One request as received. Borrows everything.
struct PrivilegedRequest {
    OperationCode code = kNoOperationCode;
    std::string_view authorizationData;
    EndpointRef feedbackEndpoint;
    /// Null if the client sent no list.
    const Array* arguments = nullptr;
    /// The caller's identity according to the kernel.
    const PeerIdentity& peer;
};

}  // namespace corvalen
