// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace corvalen::test {

/// An entry of an access control list; the tags are those of acl(5) in <sys/acl.h>.
struct AclEntry {
    unsigned tag;
    unsigned permissions;
    std::uint32_t id = 0xFFFFFFFF;
};

/// The form in which the kernel keeps a list and a client sends it.
inline std::string aclBytes(const std::vector<AclEntry>& entries, char version = 2) {
    std::string bytes{version, 0, 0, 0};
    const auto put = [&bytes](std::uint32_t number, int length) {
        for (int i = 0; i < length; ++i)
            bytes.push_back(static_cast<char>(number >> (8 * i)));
    };
    for (const AclEntry& entry : entries) {
        put(entry.tag, 2);
        put(entry.permissions, 2);
        put(entry.id, 4);
    }
    return bytes;
}

}  // namespace corvalen::test
