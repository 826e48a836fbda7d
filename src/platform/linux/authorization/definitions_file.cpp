// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/definitions_file.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace corvalen {
namespace {

bool isTrustworthy(const struct stat& attributes) noexcept {
    const bool isOurs = attributes.st_uid == 0 || attributes.st_uid == ::geteuid();
    return S_ISREG(attributes.st_mode) && isOurs && (attributes.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<std::string> readUpToLimit(int fd) {
    std::string content(kMaxDefinitionsFileSize + 1, '\0');
    std::size_t filled = 0;
    while (filled < content.size()) {
        const auto count = ::read(fd, content.data() + filled, content.size() - filled);
        if (count < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (count == 0) {
            content.resize(filled);
            return content;
        }
        filled += static_cast<std::size_t>(count);
    }
    errno = EFBIG;
    return std::nullopt;
}

}  // namespace

std::optional<DefinitionsFile> readDefinitionsFile(int folder, const char* name) {
    DefinitionsFile read;
    // Without O_NONBLOCK, opening a FIFO would block.
    read.file.reset(::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!read.file || ::fstat(read.file.get(), &read.attributes) != 0) return std::nullopt;
    if (!isTrustworthy(read.attributes)) {
        errno = EPERM;
        return std::nullopt;
    }
    auto text = readUpToLimit(read.file.get());
    if (!text) return std::nullopt;
    read.text = std::move(*text);
    return read;
}

bool removeDefinitionsFile(int folder, const std::string& name) {
    return ::unlinkat(folder, name.c_str(), 0) == 0 && ::fsync(folder) == 0;
}

UniqueFd openLockedFolder(const std::string& path) {
    UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return folder;
    while (::flock(folder.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return UniqueFd();
    }
    return folder;
}

}  // namespace corvalen
