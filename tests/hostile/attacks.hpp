// SPDX-License-Identifier: MIT
// Clients that mean harm: bytes, descriptors and timing that the client library refuses to make.
// Each attack runs in its own process, as an ordinary user, and ends with that process. It returns
// true once the harm is done; its descriptors stay open until the process ends.
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

/// Connects to the service socket; the descriptor is -1 if nobody listens.
[[nodiscard]] RawPeer connectRaw();
/// Asks for an endpoint of the daemon's listener and takes it out of the answer.
[[nodiscard]] UniqueFd requestEndpoint(const RawPeer& connection);

/// One half of a socket pair whose queue holds the last descriptor of a TCP connection that lingers
/// for an hour with unsent bytes: the thread that closes the half waits as long.
[[nodiscard]] UniqueFd makeLingeringHalf();

/// Each blocks the thread that closes what it sent: a connection past the quota, a packet that no
/// listener expects, and an offered connection past the quota.
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
