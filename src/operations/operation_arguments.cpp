// SPDX-License-Identifier: MIT
#include "operations/operation_arguments.hpp"

namespace corvalen {
namespace {

const Value& argumentAt(const Array& arguments, std::size_t index) noexcept {
    static const Value none;
    return index < arguments.size() ? arguments[index] : none;
}

}  // namespace

const std::string& stringArgument(const Array& arguments, std::size_t index) noexcept {
    static const std::string none;
    const std::string* text = argumentAt(arguments, index).string();
    return text != nullptr ? *text : none;
}

Number numberArgument(const Array& arguments, std::size_t index) noexcept {
    const Number* number = argumentAt(arguments, index).number();
    return number != nullptr ? *number : Number::fromSigned(0);
}

const Data* dataArgument(const Array& arguments, std::size_t index) noexcept {
    return argumentAt(arguments, index).data();
}

}  // namespace corvalen
