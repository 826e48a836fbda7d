// SPDX-License-Identifier: MIT
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen::test {

/// Returns an empty descriptor if the call fails.
template <class Call>
UniqueFd socketAt(std::string_view path, int type, const Call& call) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (call(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}
inline UniqueFd boundSocket(std::string_view path, int type) {
    return socketAt(path, type, ::bind);
}
inline UniqueFd connectedSocket(std::string_view path) {
    return socketAt(path, SOCK_STREAM, ::connect);
}

}  // namespace corvalen::test
