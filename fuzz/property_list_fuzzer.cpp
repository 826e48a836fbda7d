// SPDX-License-Identifier: MIT
// Fuzzes the property list reader. A value that it accepts and the writer can write must read back
// equal.
#include <cstdint>
#include <cstdlib>

#include "foundation/property_list.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto value = propertyListFromData(bytes);
    if (!value) {
        if (value.error()->code() != cocoa::kPropertyListReadCorrupt) std::abort();
        return 0;
    }
    const auto text = xmlPropertyList(*value);
    if (!text) return 0;
    const auto again = propertyListFromData(*text);
    if (!again || !(*again == *value)) std::abort();
    return 0;
}
