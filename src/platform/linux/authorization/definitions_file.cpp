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

Result<std::string> readUpToLimit(Descriptor file) {
    std::string content(kMaxDefinitionsFileSize + 1, '\0');
    std::size_t filled = 0;
    while (filled < content.size()) {
        const auto count = ::read(file.get(), content.data() + filled, content.size() - filled);
        if (count < 0) {
            if (errno == EINTR) continue;
            return failure(errno);
        }
        if (count == 0) {
            content.resize(filled);
            return content;
        }
        filled += static_cast<std::size_t>(count);
    }
    return failure(EFBIG);
}

}  // namespace

Result<DefinitionsFile> readDefinitionsFile(Descriptor folder, const char* name) {
    DefinitionsFile read;
    // Without O_NONBLOCK, opening a FIFO would block.
    read.file.reset(::openat(folder.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!read.file || ::fstat(read.file.get(), &read.attributes) != 0) return failure(errno);
    if (!isTrustworthy(read.attributes)) return failure(EPERM);
    Result<std::string> text = readUpToLimit(read.file);
    if (!text) return failure(text.error());
    read.text = *std::move(text);
    return read;
}

Result<> removeDefinitionsFile(Descriptor folder, const std::string& name) {
    return resultOf(::unlinkat(folder.get(), name.c_str(), 0)).and_then([&] {
        return resultOf(::fsync(folder.get()));
    });
}

Result<UniqueFd> openLockedFolder(const std::string& path) {
    Result<UniqueFd> folder =
        openedBy(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    while (folder && ::flock(folder->get(), LOCK_EX) != 0) {
        if (errno != EINTR) return failure(errno);
    }
    return folder;
}

}  // namespace corvalen
