// SPDX-License-Identifier: MIT
#include "cli/output.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

namespace corvalen::cli {
namespace {

constexpr std::size_t kFlushSize = 65536;

/// 0, or the errno value of the write that failed.
int writeAll(int descriptor, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace

Output::Output(int descriptor) noexcept
    : _descriptor(descriptor), _isTerminal(::isatty(descriptor) == 1) {}

Output::~Output() {
    flush();
}

void Output::write(std::string_view bytes) {
    if (_failure != 0) return;
    _buffer += bytes;
    if (_buffer.size() >= kFlushSize) flush();
}

bool Output::flush() {
    if (_failure == 0) _failure = writeAll(_descriptor, _buffer);
    _buffer.clear();
    return _failure == 0;
}

void printError(std::string_view text) {
    const std::string line = fmt::format("corvalenctl: {}\n", text);
    writeAll(STDERR_FILENO, line);
}

}  // namespace corvalen::cli
