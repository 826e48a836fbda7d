// SPDX-License-Identifier: MIT
// Finds the end of a message and checks its limits without decoding it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "xpc/wire_limits.hpp"

namespace corvalen {

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
