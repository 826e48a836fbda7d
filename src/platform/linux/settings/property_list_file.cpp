// SPDX-License-Identifier: MIT
#include "platform/linux/settings/property_list_file.hpp"

#include <cerrno>

#include "foundation/property_list.hpp"
#include "platform/files/atomic_file.hpp"

namespace corvalen {

std::optional<Dictionary> readPropertyListFile(int folder, const std::string& name) {
    std::string contents;
    const int error = readFile(folder, name, kMaximumPropertyListFileSize, &contents);
    if (error == ENOENT) return Dictionary();
    if (error != 0) return std::nullopt;
    // A crash of another program may leave an empty file; refusing it would block the domain for
    // good.
    if (contents.empty()) return Dictionary();
    auto value = propertyListFromData(contents, nullptr);
    Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (dictionary == nullptr) return std::nullopt;
    return std::move(*dictionary);
}

int writePropertyListFile(int folder, const std::string& name, const Dictionary& dictionary,
                          mode_t mode) {
    // Values that XML cannot carry, or too deep ones, would make the file unreadable for good.
    const auto contents = xmlPropertyList(Value(dictionary));
    if (!contents) return EINVAL;
    if (contents->size() > kMaximumPropertyListFileSize) return EFBIG;
    return replaceFile(folder, name, *contents, mode);
}

}  // namespace corvalen
