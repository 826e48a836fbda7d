// SPDX-License-Identifier: MIT
#include "cli/output.hpp"

#include <fmt/format.h>
#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "cli/text.hpp"
#include "foundation/borrowed_descriptor.hpp"

namespace corvalen::cli {
namespace {

constexpr std::size_t kFlushSize = 65536;
constexpr std::string_view kPlainName = "corvalenctl:";
constexpr std::string_view kColouredName = "\033[1;31mcorvalenctl:\033[0m";

/// NO_COLOR, if set and not empty, switches colours off (https://no-color.org).
bool usesColour(Descriptor descriptor) {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const term = std::getenv("TERM");
    const bool isDumb = term == nullptr || std::string_view(term) == "dumb";
    return (refused == nullptr || *refused == '\0') && !isDumb && ::isatty(descriptor.get()) == 1;
}

}  // namespace

Output::Output(Descriptor descriptor, Mode mode)
    : _descriptor(descriptor), _mode(mode), _isTerminal(::isatty(descriptor.get()) == 1) {
    if (mode == Mode::background) _dropDescriptor.reset(::eventfd(0, EFD_CLOEXEC));
}

Output::~Output() {
    finish();
}

void Output::write(std::string_view bytes) {
    if (_failure != 0) return;
    _buffer += bytes;
    if (_buffer.size() >= kFlushSize) flush();
}

void Output::flush() {
    if (_buffer.empty()) return;
    if (_mode == Mode::background)
        enqueue();
    else if (_failure == 0)
        note(writeAll(_descriptor, _buffer));
    _buffer.clear();
}

void Output::enqueue() {
    std::unique_lock lock(_mutex);
    if (!_writer.joinable()) _writer = std::thread([this] { writeQueue(); });
    _changed.wait(
        lock, [this] { return _queue.size() < kQueueLimit || _failure != 0 || _dropsWhenBlocked; });
    if (_queue.size() < kQueueLimit && _failure == 0) _queue += _buffer;
    _changed.notify_all();
}

void Output::writeQueue() {
    std::string taken;
    std::unique_lock lock(_mutex);
    while (_failure == 0) {
        _changed.wait(lock, [this] { return !_queue.empty() || _ending; });
        if (_queue.empty()) return;
        taken.clear();
        taken.swap(_queue);
        _changed.notify_all();
        lock.unlock();
        const Result<> written = writeInPieces(taken);
        lock.lock();
        note(written);
    }
    _changed.notify_all();
}

/// Keeps the error of a failed write.
void Output::note(const Result<>& written) noexcept {
    if (!written) _failure = written.error().number;
}

Result<> Output::writeInPieces(std::string_view bytes) const {
    while (!bytes.empty()) {
        pollfd polled[] = {{_descriptor.get(), POLLOUT, 0}, {_dropDescriptor.get(), POLLIN, 0}};
        if (::poll(polled, 2, -1) < 0 && errno != EINTR) return corvalen::failure(errno);
        if (polled[0].revents == 0 && polled[1].revents != 0) return corvalen::failure(ECANCELED);
        if (polled[0].revents == 0) continue;
        // A pipe that is ready takes PIPE_BUF bytes without blocking (pipe(7)).
        const std::string_view piece = bytes.substr(0, PIPE_BUF);
        if (const Result<> written = writeAll(_descriptor, piece); !written) return written;
        bytes.remove_prefix(piece.size());
    }
    return {};
}

void Output::dropWhenBlocked() {
    const std::lock_guard lock(_mutex);
    _dropsWhenBlocked = true;
    if (_dropDescriptor) ::eventfd_write(_dropDescriptor.get(), 1);
    _changed.notify_all();
}

bool Output::finish() {
    flush();
    {
        const std::lock_guard lock(_mutex);
        _ending = true;
        _changed.notify_all();
    }
    if (_writer.joinable()) _writer.join();
    return _failure == 0;
}

void printError(std::string_view text) {
    const std::string_view name = usesColour(kStandardError) ? kColouredName : kPlainName;
    const std::string line = fmt::format("{} {}\n", name, escapedForTerminal(text, "\n"));
    (void)writeAll(kStandardError, line);
}

}  // namespace corvalen::cli
