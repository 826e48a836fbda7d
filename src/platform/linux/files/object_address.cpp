// SPDX-License-Identifier: MIT
#include "platform/files/object_address.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace corvalen {

Result<UniqueFd> openAnchor(const ObjectAddress& object) noexcept {
    if (*object.name == '\0') return openedBy(::fcntl(object.parent.get(), F_DUPFD_CLOEXEC, 0));
    const int linkFlag = object.followLink ? 0 : O_NOFOLLOW;
    return openedBy(::openat(object.parent.get(), object.name, O_PATH | O_CLOEXEC | linkFlag));
}

DescriptorPath::DescriptorPath(Descriptor descriptor) noexcept : _text{} {
    (void)std::snprintf(_text, sizeof _text, "/proc/self/fd/%d", descriptor.get());
}

}  // namespace corvalen
