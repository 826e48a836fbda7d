// SPDX-License-Identifier: MIT
// Formats a log line; allocates only for a long one. For .cpp files only.
#pragma once

#include <fmt/compile.h>
#include <fmt/format.h>

#include <string_view>
#include <type_traits>
#include <utility>

namespace corvalen {

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

}  // namespace corvalen
