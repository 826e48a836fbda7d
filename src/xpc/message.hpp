// SPDX-License-Identifier: MIT
// A message of either direction, its decoding and encoding.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"
#include "xpc/user_quotas.hpp"

namespace corvalen {

enum class MessageType : std::uint8_t { request = 0, response = 1, notification = 2 };

struct Message {
    MessageType type = MessageType::notification;
    /// Requests and responses only.
    std::uint32_t identifier = 0;
    /// Requests and notifications only.
    std::string method;
    Array params;
    /// Responses only: why the call could not be made, or else the result.
    std::optional<std::string> callError;
    Value result;
    /// The charge for the memory of the members above.
    QuotaCharge decodedCharge;
};

/// Decodes the one message in `bytes`, which a `MessageScanner` has accepted. Leaves members that
/// the message type lacks unchanged. Endpoint values take their descriptors out of `descriptors`.
/// Returns false if an element has the wrong form. Throws std::bad_alloc.
[[nodiscard]] bool decodeMessage(std::string_view bytes, std::span<UniqueFd> descriptors,
                                 Message& message);

/// An encoded message. Its descriptors are borrowed from the encoded values.
struct EncodedMessage {
    std::string bytes;
    std::vector<int> descriptors;
};

/// These replace the contents of `out` and reuse its memory. They return false if the message would
/// exceed a limit of the protocol or holds an invalid date. They throw std::bad_alloc.
[[nodiscard]] bool encodeRequest(std::uint32_t identifier, std::string_view selector,
                                 const Array& params, EncodedMessage& out);
[[nodiscard]] bool encodeNotification(std::string_view selector, const Array& params,
                                      EncodedMessage& out);
[[nodiscard]] bool encodeResult(std::uint32_t identifier, const Value& result, EncodedMessage& out);
[[nodiscard]] bool encodeRefusal(std::uint32_t identifier, std::string_view why,
                                 EncodedMessage& out);

}  // namespace corvalen
