// SPDX-License-Identifier: MIT
// Clients that mean harm: bytes, descriptors and timing that the client library refuses to make.
// Each attack runs in a process of its own, as an ordinary user, and ends with that process. It
// gives true once the harm is done; its descriptors stay open as long as the process lives.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "xpc/support.hpp"

namespace corvalen::test {

/// Parts of a message. `params` is one MessagePack array.
[[nodiscard]] std::string packedText(std::string_view text);
[[nodiscard]] std::string packedNumber(std::int32_t number);
[[nodiscard]] std::string notification(std::string_view selector, const std::string& params);
[[nodiscard]] std::string request(std::string_view selector, const std::string& params);
/// The parameters of a request for an operation without arguments.
[[nodiscard]] std::string operationParams(std::int32_t code);

/// A connection to the service socket; its descriptor is -1 when nobody listens.
[[nodiscard]] RawPeer connectRaw();
/// Asks for an endpoint of the daemon's listener and takes it out of the answer.
[[nodiscard]] UniqueFd requestEndpoint(const RawPeer& connection);

/// One half of a socket pair, in whose queue lies the last descriptor of a TCP connection over the
/// loopback that lingers for an hour with unsent bytes: whoever closes the half waits as long.
[[nodiscard]] UniqueFd makeLingeringHalf();

/// Each blocks whoever closes what it sent: as a connection past the quota, as a packet that no
/// listener expects, and as an offered connection past the quota.
bool lingerPastTheQuota();
bool lingerInJunkPackets();
bool lingerInOffers();
/// Leaves every connection with a buffer for the largest message and one byte in it.
bool pinBuffers();
bool registerManyNumbers();
/// Sends 20,000 requests that are rejected, each worth a log line.
bool floodLog();
/// These loop. The first waits for the end that it causes, the second leaves the backlog full of
/// connections that each end the daemon.
bool unregisterForEver();
bool floodBacklog();
bool connectForEver();
bool sendGarbageForEver();

}  // namespace corvalen::test
