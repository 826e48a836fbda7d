// SPDX-License-Identifier: MIT
#include "platform/linux/settings/property_list_file.hpp"

#include <cerrno>

#include "foundation/property_list.hpp"
#include "platform/files/atomic_file.hpp"

namespace corvalen {

std::optional<Dictionary> readPropertyListFile(Descriptor folder, const std::string& name) {
    const Result<std::string> contents = readFile(folder, name, kMaximumPropertyListFileSize);
    if (failedWith(contents, ENOENT)) return Dictionary();
    if (!contents) return std::nullopt;
    // A crash of another program may leave an empty file; refusing it would block the domain for
    // good.
    if (contents->empty()) return Dictionary();
    auto value = propertyListFromData(*contents, nullptr);
    Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (dictionary == nullptr) return std::nullopt;
    return std::move(*dictionary);
}

Result<> writePropertyListFile(Descriptor folder, const std::string& name,
                               const Dictionary& dictionary, mode_t mode) {
    // Values that XML cannot carry, or too deep ones, would make the file unreadable for good.
    const auto contents = xmlPropertyList(Value(dictionary));
    if (!contents) return failure(EINVAL);
    if (contents->size() > kMaximumPropertyListFileSize) return failure(EFBIG);
    return replaceFile(folder, name, *contents, mode);
}

}  // namespace corvalen
