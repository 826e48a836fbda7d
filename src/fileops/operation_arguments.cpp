// SPDX-License-Identifier: MIT
#include "fileops/operation_arguments.hpp"

namespace corvalen {
namespace {

const Value* argumentAt(const Array& arguments, std::size_t position) noexcept {
    return position < arguments.size() ? &arguments[position] : nullptr;
}

}  // namespace

const std::string& stringArgument(const Array& arguments, std::size_t position) noexcept {
    static const std::string none;
    const Value* argument = argumentAt(arguments, position);
    const std::string* text = argument != nullptr ? argument->string() : nullptr;
    return text != nullptr ? *text : none;
}

bool boolArgument(const Array& arguments, std::size_t position) noexcept {
    const Value* argument = argumentAt(arguments, position);
    const Number* number = argument != nullptr ? argument->number() : nullptr;
    return number != nullptr && number->boolValue();
}

std::uint32_t code32Argument(const Array& arguments, std::size_t position) noexcept {
    const Value* argument = argumentAt(arguments, position);
    const Number* number = argument != nullptr ? argument->number() : nullptr;
    return number != nullptr ? static_cast<std::uint32_t>(number->unsignedIntegerValue()) : 0;
}

const Data* dataArgument(const Array& arguments, std::size_t position) noexcept {
    const Value* argument = argumentAt(arguments, position);
    return argument != nullptr ? argument->data() : nullptr;
}

}  // namespace corvalen
