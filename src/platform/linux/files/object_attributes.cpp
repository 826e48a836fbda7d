// SPDX-License-Identifier: MIT
#include "platform/linux/files/object_attributes.hpp"

#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace corvalen {
namespace {

constexpr long kSetxattrat = 463;
constexpr long kGetxattrat = 464;
constexpr long kListxattrat = 465;
constexpr long kRemovexattrat = 466;

/// In bytes. Most values are smaller; XATTR_SIZE_MAX (linux/limits.h) limits the others.
constexpr std::size_t kUsualValueSize = 256;
/// Maximum number of reads: a value or list may grow after its size was read.
constexpr int kAttempts = 4;

/// struct xattr_args of setxattrat(2).
struct alignas(8) XattrArgs {
    std::uint64_t value;
    std::uint32_t size;
    std::uint32_t flags;
};

std::atomic<bool> atCallsMissing{false};

bool useAtCalls() noexcept {
    return !atCallsMissing.load(std::memory_order_relaxed);
}

bool noteMissing(long result) noexcept {
    if (result >= 0 || errno != ENOSYS) return false;
    atCallsMissing.store(true, std::memory_order_relaxed);
    return true;
}

unsigned atFlags(const ObjectAddress& object) noexcept {
    return object.followLink ? 0 : AT_SYMLINK_NOFOLLOW;
}

/// Calls `atCall`, which resolves the name relative to the parent, or `pathCall` with a path under
/// /proc. Both return a size, or -1 with errno set.
template <class AtCall, class PathCall>
ssize_t perform(const ObjectAddress& object, AtCall atCall, PathCall pathCall) {
    if (*object.name == '\0') return pathCall(DescriptorPath(object.parent).c_str());
    if (useAtCalls()) {
        const ssize_t result = atCall();
        if (!noteMissing(result)) return result;
    }
    const Result<UniqueFd> anchor = openAnchor(object);
    return anchor ? pathCall(DescriptorPath(*anchor).c_str()) : -1;
}

ssize_t readValue(const ObjectAddress& object, const char* attribute, void* buffer,
                  std::size_t size) {
    return perform(
        object,
        [&] {
            XattrArgs args{reinterpret_cast<std::uintptr_t>(buffer),
                           static_cast<std::uint32_t>(size), 0};
            return ::syscall(kGetxattrat, object.parent.get(), object.name, atFlags(object),
                             attribute, &args, sizeof args);
        },
        [&](const char* path) { return ::getxattr(path, attribute, buffer, size); });
}

ssize_t readNames(const ObjectAddress& object, char* buffer, std::size_t size) {
    return perform(
        object,
        [&] {
            return ::syscall(kListxattrat, object.parent.get(), object.name, atFlags(object),
                             buffer, size);
        },
        [&](const char* path) { return ::listxattr(path, buffer, size); });
}

std::vector<std::string> splitNames(std::string_view names) {
    std::vector<std::string> attributes;
    while (!names.empty()) {
        const std::string_view name = names.substr(0, names.find('\0'));
        attributes.emplace_back(name);
        names.remove_prefix(std::min(name.size() + 1, names.size()));
    }
    return attributes;
}

Result<> resultOfSize(ssize_t size) noexcept {
    return resultOf(size < 0 ? -1 : 0);
}

}  // namespace

Result<std::vector<std::uint8_t>> getAttribute(const ObjectAddress& object, const char* attribute) {
    std::array<std::uint8_t, kUsualValueSize> usual{};
    ssize_t size = readValue(object, attribute, usual.data(), usual.size());
    if (size >= 0) return std::vector<std::uint8_t>(usual.begin(), usual.begin() + size);
    std::vector<std::uint8_t> value;
    for (int attempt = 0; attempt < kAttempts && errno == ERANGE; ++attempt) {
        size = readValue(object, attribute, nullptr, 0);
        if (size < 0) return failure(errno);
        value.resize(static_cast<std::size_t>(size));
        size = readValue(object, attribute, value.data(), value.size());
        if (size < 0) continue;
        value.resize(static_cast<std::size_t>(size));
        return value;
    }
    return failure(errno);
}

Result<> setAttribute(const ObjectAddress& object, const char* attribute, std::string_view value) {
    return resultOfSize(perform(
        object,
        [&] {
            XattrArgs args{reinterpret_cast<std::uintptr_t>(value.data()),
                           static_cast<std::uint32_t>(value.size()), 0};
            return ::syscall(kSetxattrat, object.parent.get(), object.name, atFlags(object),
                             attribute, &args, sizeof args);
        },
        [&](const char* path) -> ssize_t {
            return ::setxattr(path, attribute, value.data(), value.size(), 0);
        }));
}

Result<> removeAttribute(const ObjectAddress& object, const char* attribute) {
    return resultOfSize(perform(
        object,
        [&] {
            return ::syscall(kRemovexattrat, object.parent.get(), object.name, atFlags(object),
                             attribute);
        },
        [&](const char* path) -> ssize_t { return ::removexattr(path, attribute); }));
}

Result<std::vector<std::string>> listAttributes(const ObjectAddress& object) {
    std::string names(kUsualValueSize, '\0');
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        ssize_t size = readNames(object, names.data(), names.size());
        if (size >= 0)
            return splitNames(std::string_view(names).substr(0, static_cast<std::size_t>(size)));
        if (errno != ERANGE) return failure(errno);
        size = readNames(object, nullptr, 0);
        if (size < 0) return failure(errno);
        names.resize(static_cast<std::size_t>(size) + 1);
    }
    return failure(ERANGE);
}

bool hasAttributes(const ObjectAddress& object) {
    return readNames(object, nullptr, 0) > 0;
}

}  // namespace corvalen
