// SPDX-License-Identifier: MIT
// Buffered bytes to a descriptor, with the first failure remembered.
#pragma once

#include <string>
#include <string_view>

namespace corvalen::cli {

/// Used by one thread at a time.
class Output {
  public:
    explicit Output(int descriptor) noexcept;
    /// Flushes.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    [[nodiscard]] bool isTerminal() const noexcept { return _isTerminal; }
    /// After a failure everything is dropped.
    void write(std::string_view bytes);
    /// False after a failure.
    bool flush();
    /// The errno value of the first failed write, 0 when there was none.
    [[nodiscard]] int failure() const noexcept { return _failure; }

  private:
    int _descriptor;
    bool _isTerminal;
    int _failure = 0;
    std::string _buffer;
};

/// Writes to standard error, led by the program's name.
void printError(std::string_view text);

}  // namespace corvalen::cli
