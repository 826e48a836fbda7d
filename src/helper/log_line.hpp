// SPDX-License-Identifier: MIT
// Builds a log line without an allocation for lines of usual length. For .cpp files only.
#pragma once

#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace corvalen {

class LogLine {
  public:
    template <class... Parts>
    explicit LogLine(fmt::format_string<Parts...> format, Parts&&... parts) {
        fmt::format_to(fmt::appender(_text), format, std::forward<Parts>(parts)...);
    }
    // NOLINTNEXTLINE(google-explicit-constructor): a line is passed where text is expected.
    operator std::string_view() const noexcept { return {_text.data(), _text.size()}; }

  private:
    fmt::memory_buffer _text;
};

}  // namespace corvalen
