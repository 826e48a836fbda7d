// SPDX-License-Identifier: MIT
// Access lists in the short text form of setfacl(1): "u::rw-,u:7:r--,g::r--,m::r--,o::---".
#pragma once

#include <array>
#include <bit>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/extended_acl.hpp"
#include "support/packed.hpp"

namespace corvalen::test {

inline constexpr std::array<std::string_view, 6> kAclTags = {"u:", "u:", "g:", "g:", "m:", "o:"};
inline constexpr std::string_view kAclRights = "xwr";

/// Returns the form in which the kernel keeps a list and a client sends it.
inline std::string aclOf(const std::string& text) {
    std::vector<AclEntry> entries;
    for (const std::string& word : fieldsOf(text, ',')) {
        AclEntry entry;
        entry.tag = word[0] == 'u' ? 1 : word[0] == 'g' ? 4 : word[0] == 'm' ? 16 : 32;
        if (word[2] != ':') {
            entry.tag *= 2;
            entry.id = static_cast<std::uint32_t>(std::stoul(word.substr(2)));
        }
        for (std::size_t bit = 0; bit < kAclRights.size(); ++bit)
            if (word.find(kAclRights[bit], 2) != std::string::npos) entry.permissions |= 1U << bit;
        entries.push_back(entry);
    }
    const ExternalAcl list = externalAclOf(entries);
    return {list.begin(), list.end()};
}

inline std::string aclText(const std::string& bytes) {
    std::string text;
    for (const AclEntry& entry : entriesOf({bytes.begin(), bytes.end()})) {
        text.append(text.empty() ? "" : ",");
        text += kAclTags.at(static_cast<std::size_t>(std::countr_zero(entry.tag)));
        if (entry.isNamed()) text += std::to_string(entry.id);
        text += ':';
        for (std::size_t bit = kAclRights.size(); bit-- > 0;)
            text += (entry.permissions >> bit & 1U) != 0 ? kAclRights[bit] : '-';
    }
    return text;
}

}  // namespace corvalen::test
