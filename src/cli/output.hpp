// SPDX-License-Identifier: MIT
// Buffered output to a descriptor.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen::cli {

/// Borrows the descriptor. Keeps the first failure and drops all bytes after it. One thread at a
/// time writes; any thread may call `dropWhenBlocked`.
class Output {
  public:
    enum class Mode : std::uint8_t {
        direct,
        /// A thread writes, so that a slow reader does not block `write` until `kQueueLimit` bytes
        /// wait.
        background,
    };
    static constexpr std::size_t kQueueLimit = 64U << 20U;

    explicit Output(Descriptor descriptor, Mode mode = Mode::direct);
    /// Calls `finish`.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    [[nodiscard]] bool isTerminal() const noexcept { return _isTerminal; }
    void write(std::string_view bytes);
    /// Writes the buffered bytes, or queues them for the thread.
    void flush();
    /// From now on drops bytes that the reader does not take at once.
    void dropWhenBlocked();
    /// Blocks until all bytes are written or dropped; returns false after a failure. To be called
    /// last.
    bool finish();
    /// Returns the errno value of the first failed write, 0 without one.
    [[nodiscard]] int failure() const noexcept { return _failure; }

  private:
    void enqueue();
    void writeQueue();
    void note(const Result<>& written) noexcept;
    /// ECANCELED after `dropWhenBlocked` if the reader is not ready.
    [[nodiscard]] Result<> writeInPieces(std::string_view bytes) const;

    const Descriptor _descriptor;
    const Mode _mode;
    const bool _isTerminal;
    std::string _buffer;
    std::atomic<int> _failure = 0;

    std::mutex _mutex;
    std::condition_variable _changed;
    std::string _queue;
    bool _ending = false;
    bool _dropsWhenBlocked = false;
    UniqueFd _dropDescriptor;
    std::thread _writer;
};

/// Writes lines to standard error, led by the program's name. Escapes characters that could act on
/// a terminal.
void printError(std::string_view text);

}  // namespace corvalen::cli
