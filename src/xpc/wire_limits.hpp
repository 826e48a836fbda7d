// SPDX-License-Identifier: MIT
// Limits of the wire protocol (corvalen-protocol(7)). Exceeding one affects no other client.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace corvalen::wire {

/// Bytes per message.
inline constexpr std::size_t kMaximumMessageSize = std::size_t{16} * 1024 * 1024;
/// Nested arrays and maps, including the array of the message itself.
inline constexpr std::size_t kMaximumNesting = 32;
/// Endpoint values per message, and descriptors that come with it.
inline constexpr std::size_t kMaximumEndpoints = 4;
/// Bytes of memory of one decoded message; see docs/decisions/decoded-footprint.md.
inline constexpr std::size_t kMaximumDecodedSize = std::size_t{64} * 1024 * 1024;

/// Held at the same time for one user other than root.
inline constexpr std::size_t kMaximumConnectionsPerUser = 64;
/// Capacity of the buffers of unfinished messages, less kBufferPerConnection each.
inline constexpr std::size_t kMaximumUnfinishedBytesPerUser = std::size_t{64} * 1024 * 1024;
/// Decoded messages, and encoded ones larger than kBufferPerConnection.
inline constexpr std::size_t kMaximumDecodedBytesPerUser = std::size_t{256} * 1024 * 1024;
inline constexpr std::size_t kMaximumEndpointsPerUser = 64;
inline constexpr std::size_t kMaximumRegistrationsPerUser = 1024;
/// Log lines per user and second; lines of granted operations do not count.
inline constexpr std::uint32_t kMaximumLogLinesPerUserAndSecond = 100;

/// Bytes of each of the two buffers that a connection keeps between messages. Not charged: the
/// number of connections bounds them.
inline constexpr std::size_t kBufferPerConnection = std::size_t{64} * 1024;

/// Messages that a connection queues while a call on it waits for its reply.
inline constexpr std::size_t kMaximumQueuedMessages = 64;

/// Time from the first byte of a message to its last.
inline constexpr std::chrono::milliseconds kArrivalTimeout{30000};
/// Time without progress after which a client that does not read its replies is dropped.
inline constexpr std::chrono::milliseconds kReplyTimeout{30000};
/// A new connection counts as busy for this long until its first message arrives.
inline constexpr std::chrono::milliseconds kFirstMessageTime{100};

/// Extension types.
inline constexpr std::int8_t kTimestampType = -1;
inline constexpr std::int8_t kEndpointType = 1;
inline constexpr std::int8_t kErrorType = 2;

inline constexpr std::uint32_t kNanosecondsPerSecond = 1000000000;

}  // namespace corvalen::wire
