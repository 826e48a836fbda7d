// SPDX-License-Identifier: MIT
#include "platform/linux/property_list_file.hpp"

#include <cerrno>

#include "foundation/property_list.hpp"
#include "platform/atomic_file.hpp"

namespace corvalen {

std::optional<Dictionary> readPropertyListFile(int folder, const std::string& name) {
    std::string contents;
    const int error = readFile(folder, name, kMaximumPropertyListFileSize, &contents);
    if (error == ENOENT) return Dictionary();
    if (error != 0) return std::nullopt;
    // What a crash of another writer leaves; refused, it would block its domain for ever.
    if (contents.empty()) return Dictionary();
    auto value = propertyListFromData(contents, nullptr);
    Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (dictionary == nullptr) return std::nullopt;
    return std::move(*dictionary);
}

int writePropertyListFile(int folder, const std::string& name, const Dictionary& dictionary,
                          mode_t mode) {
    // What XML cannot carry, or what is too deep, would make the file unreadable for ever.
    const auto contents = xmlPropertyList(Value(dictionary));
    if (!contents) return EINVAL;
    if (contents->size() > kMaximumPropertyListFileSize) return EFBIG;
    return replaceFile(folder, name, *contents, mode);
}

}  // namespace corvalen
