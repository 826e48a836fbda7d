// SPDX-License-Identifier: MIT
#include "platform/files/object_address.hpp"

#include <unistd.h>

#include <cstdio>

namespace corvalen {

UniqueFd openAnchor(const ObjectAddress& object) noexcept {
    if (*object.name == '\0') return UniqueFd(::fcntl(object.parent, F_DUPFD_CLOEXEC, 0));
    const int linkFlag = object.followLink ? 0 : O_NOFOLLOW;
    return UniqueFd(::openat(object.parent, object.name, O_PATH | O_CLOEXEC | linkFlag));
}

DescriptorPath::DescriptorPath(int descriptor) noexcept : _text{} {
    (void)std::snprintf(_text, sizeof _text, "/proc/self/fd/%d", descriptor);
}

}  // namespace corvalen
