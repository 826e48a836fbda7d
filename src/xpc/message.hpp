// SPDX-License-Identifier: MIT
// A message of either direction: its scanning, decoding and encoding.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "xpc/limits.hpp"

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
    std::vector<Descriptor> descriptors;
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

/// A resumable scanner: reads each byte once, however small the pieces. Checks each limit as soon
/// as the header that exceeds it has arrived, before the bytes that it announces. Not synchronised.
class MessageScanner {
  public:
    enum class Status : std::uint8_t { incomplete, complete, malformed };

    /// Continues with the bytes that follow those already scanned; stores in `*used` how many of
    /// them belong to the message. After `complete` or `malformed` only `restart` may follow.
    Status scan(std::string_view bytes, std::size_t* used);
    void restart();

    /// Of a complete message: the maximum bytes of memory of its decoded form, and its endpoints.
    [[nodiscard]] std::size_t decodedSize() const noexcept { return _decodedSize; }
    [[nodiscard]] std::size_t endpointCount() const noexcept { return _endpointCount; }

  private:
    enum class LevelKind : std::uint8_t { array, map, error };
    struct Level {
        std::uint64_t remaining = 0;
        std::size_t end = 0;
        LevelKind kind = LevelKind::array;
    };
    struct Header;

    static constexpr std::size_t kLongestHeader = 6;
    /// The body of an error must be an array, so at most every second level is an error.
    static constexpr std::size_t kLevels = 2 * wire::kMaximumNesting;

    void take(std::string_view& bytes, std::size_t size) noexcept;
    bool skipBody(std::string_view& bytes);
    bool takeHeader(std::string_view& bytes, Header& header) noexcept;
    bool completeHeader(std::string_view& bytes, Header& header) noexcept;
    [[nodiscard]] bool isAllowedHere(const Header& header) const noexcept;
    bool beginValue(const Header& value);
    bool beginContainer(const Header& header);
    bool beginExtension(const Header& header);
    bool beginBody(std::uint64_t length, std::size_t decodedSize);
    bool push(LevelKind kind, std::uint64_t values, std::size_t end);
    bool addDecodedSize(std::uint64_t count, std::size_t each);
    bool endValue();
    [[nodiscard]] std::size_t end() const noexcept;

    /// The bytes of an incomplete header.
    std::array<char, kLongestHeader> _header{};
    std::size_t _headerLength = 0;
    std::array<Level, kLevels> _levels{};
    std::size_t _levelCount = 0;
    std::size_t _nesting = 0;
    std::size_t _scanned = 0;
    std::uint64_t _bodyLeft = 0;
    std::size_t _decodedSize = 0;
    std::size_t _endpointCount = 0;
    bool _done = false;
};

}  // namespace corvalen
