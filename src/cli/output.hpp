// SPDX-License-Identifier: MIT
// Buffered bytes to a descriptor, with the first failure remembered.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "corvalen/descriptor.hpp"

namespace corvalen::cli {

/// Written to by one thread at a time; `hurry` may be called by any.
class Output {
  public:
    enum class Mode : std::uint8_t {
        direct,
        /// A thread of its own writes, so that a reader who pauses does not hold up who writes; up
        /// to `kQueueLimit` bytes wait for it.
        background,
    };
    static constexpr std::size_t kQueueLimit = 64U << 20U;

    explicit Output(int descriptor, Mode mode = Mode::direct);
    /// As `finish`.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    [[nodiscard]] bool isTerminal() const noexcept { return _isTerminal; }
    /// After a failure everything is dropped.
    void write(std::string_view bytes);
    /// Hands over what is buffered.
    void flush();
    /// From now on only what the reader takes at once is written.
    void hurry();
    /// Returns when everything has been written, or dropped; false after a failure. Nothing may be
    /// written any more.
    bool finish();
    /// The errno value of the first failed write, 0 when there was none.
    [[nodiscard]] int failure() const noexcept { return _failure; }

  private:
    void enqueue();
    void writeQueue();
    /// 0, or an errno value: ECANCELED for a reader who is not ready when there is a hurry.
    int writeInPieces(std::string_view bytes) const;

    const int _descriptor;
    const Mode _mode;
    const bool _isTerminal;
    std::string _buffer;
    std::atomic<int> _failure = 0;

    std::mutex _mutex;
    std::condition_variable _changed;
    std::string _queue;
    bool _ending = false;
    bool _hurried = false;
    UniqueFd _hurryDescriptor;
    std::thread _writer;
};

/// Writes to standard error, led by the program's name. May have several lines; what could act on a
/// terminal is escaped.
void printError(std::string_view text);

}  // namespace corvalen::cli
