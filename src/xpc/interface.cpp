// SPDX-License-Identifier: MIT
#include "xpc/interface.hpp"

namespace corvalen {

const InterfaceMethod* Interface::find(std::string_view selector) const noexcept {
    for (const InterfaceMethod& method : methods) {
        if (method.selector == selector) return &method;
    }
    return nullptr;
}

}  // namespace corvalen
