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

/// Accepts attributes of other lengths, which other programs may write: missing bytes are zero,
/// further ones are ignored.
int readBytes(const ObjectAddress& object, FinderBytes* bytes) {
    bytes->fill(0);
    std::vector<std::uint8_t> value;
    const int error = getAttribute(object, kFinderInfoAttribute, &value);
    if (error != 0) return error == ENODATA ? 0 : error;
    std::copy_n(value.begin(), std::min(value.size(), bytes->size()), bytes->begin());
    return 0;
}

int writeBytes(const ObjectAddress& object, const FinderBytes& bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; })) {
        const int error = removeAttribute(object, kFinderInfoAttribute);
        return error == ENODATA ? 0 : error;
    }
    return setAttribute(object, kFinderInfoAttribute,
                        {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

}  // namespace

int readFinderInfo(const ObjectAddress& object, FinderInfo* info) {
    FinderBytes bytes{};
    if (const int error = readBytes(object, &bytes); error != 0) return error;
    *info = {bigEndian32(bytes, kTypeOffset), bigEndian32(bytes, kCreatorOffset),
             (bytes[kFlagsOffset] & kInvisibleInHighByte) != 0};
    return 0;
}

int setFinderCodes(const ObjectAddress& object, std::uint32_t typeCode, std::uint32_t creatorCode) {
    FinderBytes bytes{};
    if (const int error = readBytes(object, &bytes); error != 0) return error;
    putBigEndian32(&bytes, kTypeOffset, typeCode);
    putBigEndian32(&bytes, kCreatorOffset, creatorCode);
    return writeBytes(object, bytes);
}

int setFinderInvisible(const ObjectAddress& object, bool invisible) {
    FinderBytes bytes{};
    if (const int error = readBytes(object, &bytes); error != 0) return error;
    bytes[kFlagsOffset] =
        static_cast<std::uint8_t>(invisible ? bytes[kFlagsOffset] | kInvisibleInHighByte
                                            : bytes[kFlagsOffset] & ~kInvisibleInHighByte);
    return writeBytes(object, bytes);
}

}  // namespace corvalen
