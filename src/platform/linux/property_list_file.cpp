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
    auto value = propertyListFromData(contents, nullptr);
    Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (dictionary == nullptr) return std::nullopt;
    return std::move(*dictionary);
}

int writePropertyListFile(int folder, const std::string& name, const Dictionary& dictionary,
                          mode_t mode) {
    const Value root(dictionary);
    const std::string contents = xmlDataFromPropertyList(root);
    if (contents.size() > kMaximumPropertyListFileSize) return EFBIG;
    // A value at the limits of depth, or with characters that XML cannot carry, would make the
    // whole file unreadable for ever.
    const auto readBack = propertyListFromData(contents, nullptr);
    if (!readBack || !(*readBack == root)) return EINVAL;
    return replaceFile(folder, name, contents, mode);
}

}  // namespace corvalen
