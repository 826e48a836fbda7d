// SPDX-License-Identifier: MIT
// The limits of the wire protocol. What passes one of them closes its connection and nothing else.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace corvalen::wire {

/// Bytes of one message.
inline constexpr std::size_t kMaximumMessageSize = std::size_t{16} * 1024 * 1024;
/// Arrays and maps inside one another, the array of the message itself included.
inline constexpr std::size_t kMaximumNesting = 32;
/// Endpoint values in one message, and descriptors that come with it.
inline constexpr std::size_t kMaximumEndpoints = 4;
/// Memory that the decoded form of one message may take; see docs/decisions/decoded-footprint.md.
inline constexpr std::size_t kMaximumDecodedSize = std::size_t{64} * 1024 * 1024;

/// Held at the same time on behalf of one user other than root.
inline constexpr std::size_t kMaximumConnectionsPerUser = 64;
/// Buffers of messages that have not arrived completely, by their capacity, as far as they pass
/// kBufferPerConnection.
inline constexpr std::size_t kMaximumUnfinishedBytesPerUser = std::size_t{64} * 1024 * 1024;
/// Decoded messages, and encoded ones that pass kBufferPerConnection.
inline constexpr std::size_t kMaximumDecodedBytesPerUser = std::size_t{256} * 1024 * 1024;
inline constexpr std::size_t kMaximumEndpointsPerUser = 64;
inline constexpr std::size_t kMaximumRegistrationsPerUser = 1024;
/// Log lines of one user in one second, other than those of operations that were granted.
inline constexpr std::uint32_t kMaximumLogLinesPerUserAndSecond = 100;

/// Bytes of each of the two buffers that a connection keeps between messages. They are not
/// charged: the number of connections bounds them.
inline constexpr std::size_t kBufferPerConnection = std::size_t{64} * 1024;

/// Messages that may wait while a call on the same connection reads on for its answer.
inline constexpr std::size_t kMaximumWaitingMessages = 64;

/// Time for a message to arrive once its first byte is there.
inline constexpr std::chrono::milliseconds kArrivalTimeout{30000};
/// Time without progress after which a client of a service that takes no answers is dropped.
inline constexpr std::chrono::milliseconds kAnswerTimeout{30000};
/// A connection that has sent nothing counts as busy for this long.
inline constexpr std::chrono::milliseconds kFirstMessageTime{100};

/// Extension types.
inline constexpr std::int8_t kTimestampType = -1;
inline constexpr std::int8_t kEndpointType = 1;
inline constexpr std::int8_t kErrorType = 2;

inline constexpr std::uint32_t kNanosecondsPerSecond = 1000000000;

}  // namespace corvalen::wire
