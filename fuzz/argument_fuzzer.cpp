// SPDX-License-Identifier: MIT
// Fuzzes the conversion of argument text. Data read from "%" text must read back equal from its
// usual spelling, and takes at least two characters per byte.
#include <fmt/format.h>

#include "fuzz.hpp"
#include "operations/operation_arguments.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    const std::string text(Input(data, size).rest());
    for (const auto type :
         {PropertyListType::boolean, PropertyListType::number, PropertyListType::string,
          PropertyListType::date, PropertyListType::array, PropertyListType::dictionary})
        (void)copyCoreFoundationValueWithType(type, &text);
    bool output = false;
    require(getBool(&output, &text) == (text == "0" || text == "1"));
    const auto value = copyCoreFoundationValueWithType(PropertyListType::data, &text);
    if (!value) return 0;
    const std::string_view bytes = value->data()->view();
    require(bytes.size() <= text.size() / 2);
    std::string spelled;
    for (const char byte : bytes)
        spelled += fmt::format("%{:02X}", static_cast<unsigned char>(byte));
    const auto again = copyCoreFoundationValueWithType(PropertyListType::data, &spelled);
    require(bytes.empty() || (again && *again == *value));
    return 0;
}
