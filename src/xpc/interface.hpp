// SPDX-License-Identifier: MIT
// What one side of a connection offers the other: named methods, each with or without a reply.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

class Connection;

/// One method. A method with a reply may only be requested; one without may also be notified.
struct InterfaceMethod {
    std::string_view selector;
    bool hasReply = false;
};

/// A named list of methods; the storage is constant and outlives every connection.
struct Interface {
    std::string_view name;
    std::span<const InterfaceMethod> methods;

    /// Null for a selector that is not in the interface.
    [[nodiscard]] const InterfaceMethod* find(std::string_view selector) const noexcept;
};

/// The answer to one message: a result, or the text of why the call could not be made.
struct CallResult {
    Value result;
    std::string callError;

    static CallResult refused(std::string why) { return CallResult{Value(), std::move(why)}; }
};

/// The object behind an interface. The connection calls it on its own thread, one message at a
/// time, and only with selectors of the exported interface; two connections may call at once.
class ExportedObject {
  public:
    virtual ~ExportedObject() = default;
    /// `params` may be of any form and number: the object checks them and refuses what does not
    /// fit. The result of a method without reply is not looked at.
    virtual CallResult handleMessage(Connection& connection, std::string_view selector,
                                     Array params) = 0;
};

}  // namespace corvalen
