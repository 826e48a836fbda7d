// SPDX-License-Identifier: MIT
// A decoded message of either direction, and its way to bytes and back.
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
    /// Of a request or response.
    std::uint32_t identifier = 0;
    /// Of a request or notification.
    std::string method;
    Array params;
    /// Of a response: why the call could not be made, else the result.
    std::optional<std::string> callError;
    Value result;
    /// Pays for the memory of the parts above.
    QuotaCharge decodedCharge;
};

/// Reads the one message that `bytes` are, as a `MessageScanner` has passed them; parts of a
/// message that its type does not have are left alone. Its endpoint values take their descriptors
/// out of `descriptors`. False when an element is of the wrong form. Throws std::bad_alloc.
[[nodiscard]] bool decodeMessage(std::string_view bytes, std::span<UniqueFd> descriptors,
                                 Message& message);

/// One message ready to be sent. The descriptors are borrowed from the values it was made from.
struct EncodedMessage {
    std::string bytes;
    std::vector<int> descriptors;
};

/// Each replaces what `out` held, reusing its memory. False when the message would pass a limit of
/// the protocol or holds a date that is none. Throws std::bad_alloc.
[[nodiscard]] bool encodeRequest(std::uint32_t identifier, std::string_view selector,
                                 const Array& params, EncodedMessage& out);
[[nodiscard]] bool encodeNotification(std::string_view selector, const Array& params,
                                      EncodedMessage& out);
[[nodiscard]] bool encodeResult(std::uint32_t identifier, const Value& result, EncodedMessage& out);
[[nodiscard]] bool encodeRefusal(std::uint32_t identifier, std::string_view why,
                                 EncodedMessage& out);

}  // namespace corvalen
