// SPDX-License-Identifier: MIT
// Log lines: their text and their message ids. For .cpp files only.
#pragma once

#include <fmt/compile.h>
#include <fmt/format.h>

#include <string_view>
#include <type_traits>
#include <utility>

namespace corvalen {

/// Formats a log line; allocates only for a long one.
class LogLine {
  public:
    template <class... Parts>
    explicit LogLine(fmt::format_string<Parts...> format, Parts&&... parts) {
        fmt::format_to(fmt::appender(_text), format, std::forward<Parts>(parts)...);
    }
    /// Takes a format in FMT_COMPILE, for lines of every request.
    template <class Format, class... Parts>
    requires std::is_class_v<Format>
    explicit LogLine(const Format& format, const Parts&... parts) {
        fmt::format_to(fmt::appender(_text), format, parts...);
    }
    // NOLINTNEXTLINE(google-explicit-constructor): a line is passed where text is expected.
    operator std::string_view() const noexcept { return {_text.data(), _text.size()}; }

  private:
    fmt::memory_buffer _text;
};

// Message ids of the lines that administrators look for (systemd.journal-fields(7), MESSAGE_ID);
// resources/corvalen.catalog has their texts. An id never changes its meaning. The id of the audit
// is in operations/names.hpp, for its readers.
inline constexpr std::string_view kMessageIdField = "MESSAGE_ID";
inline constexpr std::string_view kHelperStartedId = "4fbc48f36cc849ca91e6f6f2cf9163d0";
inline constexpr std::string_view kHelperEndedId = "dc1f11abfe5d4bc1a2600bb3a8df81b0";
inline constexpr std::string_view kRequestRejectedId = "f86b8f9e72e74f728fbe92278479f348";
inline constexpr std::string_view kRequestDeniedId = "b8fabc55800c463bbe9df76f9fe60ce9";
inline constexpr std::string_view kOperationFailedId = "1c753b500d164facbcf4a2dce6d3e2db";

}  // namespace corvalen
