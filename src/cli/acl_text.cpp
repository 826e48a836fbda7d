// SPDX-License-Identifier: MIT
#include "cli/acl_text.hpp"

#include <acl/libacl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/acl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "cli/command.hpp"

namespace corvalen::cli {
namespace {

struct AclFree {
    void operator()(void* object) const noexcept { ::acl_free(object); }
};
using OwnedAcl = std::unique_ptr<std::remove_pointer_t<acl_t>, AclFree>;

constexpr std::uint32_t kNoId = 0xFFFFFFFF;

void appendLittleEndian(Data& data, std::uint32_t value, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i)
        data.bytes.push_back(static_cast<std::uint8_t>((value >> (8 * i)) & 0xFFU));
}

std::uint32_t idOfEntry(acl_entry_t entry, acl_tag_t tag) {
    if (tag != ACL_USER && tag != ACL_GROUP) return kNoId;
    const std::unique_ptr<void, AclFree> qualifier(::acl_get_qualifier(entry));
    return qualifier ? *static_cast<const std::uint32_t*>(qualifier.get()) : kNoId;
}

std::uint32_t permissionsOfEntry(acl_entry_t entry) {
    acl_permset_t permissions{};
    std::uint32_t bits = 0;
    if (::acl_get_permset(entry, &permissions) != 0) return 0;
    for (const acl_perm_t bit : std::initializer_list<acl_perm_t>{ACL_READ, ACL_WRITE, ACL_EXECUTE})
        if (::acl_get_perm(permissions, bit) == 1) bits |= bit;
    return bits;
}

/// Keeps the order of libacl, which the kernel requires too.
Data externalForm(acl_t list) {
    Data data;
    appendLittleEndian(data, POSIX_ACL_XATTR_VERSION, 4);
    acl_entry_t entry{};
    for (int found = ::acl_get_entry(list, ACL_FIRST_ENTRY, &entry); found == 1;
         found = ::acl_get_entry(list, ACL_NEXT_ENTRY, &entry)) {
        acl_tag_t tag{};
        ::acl_get_tag_type(entry, &tag);
        appendLittleEndian(data, static_cast<std::uint32_t>(tag), 2);
        appendLittleEndian(data, permissionsOfEntry(entry), 2);
        appendLittleEndian(data, idOfEntry(entry, tag), 4);
    }
    return data;
}

/// Removes the comments of getfacl(1), which fill a line or follow an entry.
std::string withoutComments(const std::string& text) {
    std::string kept;
    bool inComment = false;
    for (const char character : text) {
        const bool begins =
            kept.empty() || kept.back() == '\n' || kept.back() == '\t' || kept.back() == ' ';
        if (character == '\n') inComment = false;
        if (character == '#' && begins) inComment = true;
        if (!inComment) kept += character;
    }
    return kept;
}

/// The entries of an access list and of a directory's default list.
struct AclTexts {
    std::string access;
    std::string inheritable;
};

AclTexts splitLists(const std::string& text) {
    AclTexts texts;
    std::string_view rest = text;
    while (!rest.empty()) {
        std::string_view entry = rest.substr(0, rest.find_first_of(",\n"));
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
        entry.remove_prefix(std::min(entry.find_first_not_of(" \t"), entry.size()));
        std::string* list = &texts.access;
        for (const std::string_view prefix : {"default:", "d:"}) {
            if (list == &texts.inheritable || !entry.starts_with(prefix)) continue;
            entry.remove_prefix(prefix.size());
            list = &texts.inheritable;
        }
        if (!entry.empty()) list->append(entry).push_back('\n');
    }
    return texts;
}

Data listFromText(const std::string& text) {
    const OwnedAcl parsed(::acl_from_text(text.c_str()));
    if (!parsed)
        throw UsageError(
            "the list cannot be read: an entry looks like user:ada:rw-, and every user "
            "and group must be known");
    acl_t list = parsed.get();
    int position = 0;
    int fault = ::acl_check(list, &position);
    if (fault == ACL_MISS_ERROR && ::acl_calc_mask(&list) == 0)
        fault = ::acl_check(list, &position);
    if (fault != 0)
        throw UsageError(std::string("the list is not valid: ") +
                         (fault < 0 ? "it cannot be checked" : ::acl_error(fault)));
    return externalForm(list);
}

}  // namespace

Data aclFromText(const std::string& text) {
    const AclTexts texts = splitLists(withoutComments(text));
    Data data = listFromText(texts.access);
    if (texts.inheritable.empty()) return data;
    const Data inheritable = listFromText(texts.inheritable);
    data.bytes.insert(data.bytes.end(), inheritable.bytes.begin(), inheritable.bytes.end());
    return data;
}

std::uint32_t parseFourCharacterCode(const std::string& text) {
    std::uint32_t code = 0;
    if (text.rfind("0x", 0) == 0 && text.size() > 4) {
        const char* end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + 2, end, code, 16);
        if (error == std::errc() && rest == end) return code;
        throw UsageError("'" + text + "' is no 32-bit number");
    }
    if (text.size() > 4) throw UsageError("'" + text + "' has more than four characters");
    if (text.empty()) return 0;
    for (std::size_t i = 0; i < 4; ++i)
        code = (code << 8U) | static_cast<unsigned char>(i < text.size() ? text[i] : ' ');
    return code;
}

}  // namespace corvalen::cli
