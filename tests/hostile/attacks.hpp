// SPDX-License-Identifier: MIT
// Clients that mean harm: bytes, descriptors and timing that the client library refuses to make.
// Each attack runs in its own process, as an ordinary user, and ends with that process. It returns
// true once the harm is done; its descriptors stay open until the process ends.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "xpc/support.hpp"

namespace corvalen::test {

[[nodiscard]] std::string request(std::string_view selector, const Array& params = {});
/// Connects to the service socket; the descriptor is -1 if nobody listens.
[[nodiscard]] RawPeer connectRaw();
/// Does the harm; returns whether it could.
using Attack = bool (*)();
/// The attacks by name.
[[nodiscard]] const std::map<std::string, Attack>& attacks();

}  // namespace corvalen::test
