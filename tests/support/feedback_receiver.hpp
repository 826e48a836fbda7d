// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "corvalen/value.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen::test {

/// The client's side of a feedback connection, without threads. It must outlive its request.
struct FeedbackReceiver {
    SocketPair offers = makeSocketPair(SOCK_SEQPACKET);
    EndpointRef endpoint{std::make_shared<const UniqueFd>(std::move(offers.second))};
    UniqueFd connection;

    /// Returns the bytes that have arrived since the last call, or "the end" once.
    std::string read() {
        std::array<char, 256> buffer{};
        std::vector<UniqueFd> descriptors;
        if (receive(offers.first, buffer, descriptors) && !descriptors.empty())
            connection = std::move(descriptors[0]);
        if (!connection) return "";
        const auto received = receive(connection, buffer, descriptors);
        if (!received) return "";
        if (received->size > 0) return {buffer.data(), received->size};
        connection.reset();
        return "the end";
    }
};

}  // namespace corvalen::test
