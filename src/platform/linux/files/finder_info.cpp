// SPDX-License-Identifier: MIT
#include "platform/files/finder_info.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr std::size_t kTypeOffset = 0;
constexpr std::size_t kCreatorOffset = 4;
constexpr std::size_t kFlagsOffset = 8;              // the high byte of the 16 flags
constexpr std::uint8_t kInvisibleInHighByte = 0x40;  // 0x4000 of the 16

using FinderBytes = std::array<std::uint8_t, kFinderInfoLength>;

std::uint32_t bigEndian32(const FinderBytes& bytes, std::size_t offset) noexcept {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number = number << 8 | bytes[offset + i];
    return number;
}

void putBigEndian32(FinderBytes* bytes, std::size_t offset, std::uint32_t number) noexcept {
    for (std::size_t i = 0; i < 4; ++i)
        (*bytes)[offset + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
}

bool meansNone(SystemError error) noexcept {
    return error == ENODATA;
}

/// Accepts attributes of other lengths, which other programs may write: missing bytes are zero,
/// further ones are ignored.
Result<FinderBytes> readBytes(const ObjectAddress& object) {
    FinderBytes bytes{};
    const Result<std::vector<std::uint8_t>> value = getAttribute(object, kFinderInfoAttribute);
    if (!value && !meansNone(value.error())) return failure(value.error());
    if (value) std::copy_n(value->begin(), std::min(value->size(), bytes.size()), bytes.begin());
    return bytes;
}

Result<> writeBytes(const ObjectAddress& object, const FinderBytes& bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; }))
        return ignoring(meansNone, removeAttribute(object, kFinderInfoAttribute));
    return setAttribute(object, kFinderInfoAttribute,
                        {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

}  // namespace

Result<FinderInfo> readFinderInfo(const ObjectAddress& object) {
    return readBytes(object).map([](const FinderBytes& bytes) {
        return FinderInfo{bigEndian32(bytes, kTypeOffset), bigEndian32(bytes, kCreatorOffset),
                          (bytes[kFlagsOffset] & kInvisibleInHighByte) != 0};
    });
}

Result<> setFinderCodes(const ObjectAddress& object, std::uint32_t typeCode,
                        std::uint32_t creatorCode) {
    Result<FinderBytes> bytes = readBytes(object);
    if (!bytes) return failure(bytes.error());
    putBigEndian32(&*bytes, kTypeOffset, typeCode);
    putBigEndian32(&*bytes, kCreatorOffset, creatorCode);
    return writeBytes(object, *bytes);
}

Result<> setFinderInvisible(const ObjectAddress& object, bool invisible) {
    Result<FinderBytes> bytes = readBytes(object);
    if (!bytes) return failure(bytes.error());
    std::uint8_t& flags = (*bytes)[kFlagsOffset];
    flags = static_cast<std::uint8_t>(invisible ? flags | kInvisibleInHighByte
                                                : flags & ~kInvisibleInHighByte);
    return writeBytes(object, *bytes);
}

}  // namespace corvalen
