// SPDX-License-Identifier: MIT
// The methods that one side of a connection exports to the other.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "corvalen/value.hpp"

namespace corvalen {

class Connection;

/// One method. A method with a reply accepts only requests; one without also accepts notifications.
struct InterfaceMethod {
    std::string_view selector;
    bool hasReply = false;
};

/// A named list of methods; borrows constant storage that outlives every connection.
struct Interface {
    std::string_view name;
    std::span<const InterfaceMethod> methods;

    /// Returns null if the interface lacks `selector`.
    [[nodiscard]] const InterfaceMethod* find(std::string_view selector) const noexcept {
        for (const InterfaceMethod& method : methods)
            if (method.selector == selector) return &method;
        return nullptr;
    }
};

/// The reply to one message: a result, or the reason why the call could not be made.
struct CallResult {
    Value result;
    std::string callError;

    static CallResult refused(std::string why) { return CallResult{Value(), std::move(why)}; }
};

/// Implements an interface. A connection calls it on its own thread, one message at a time, only
/// with selectors of the exported interface. Several connections may call it at once.
class ExportedObject {
  public:
    virtual ~ExportedObject() = default;
    /// `params` are unchecked: the object refuses a wrong number or type. The result of a method
    /// without a reply is ignored.
    virtual CallResult handleMessage(Connection& connection, std::string_view selector,
                                     Array params) = 0;
};

}  // namespace corvalen
