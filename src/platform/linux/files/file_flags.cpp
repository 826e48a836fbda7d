// SPDX-License-Identifier: MIT
#include "platform/files/file_flags.hpp"

#include <linux/capability.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace corvalen {
namespace {

constexpr unsigned kTypeBits = 0xF000;
constexpr unsigned kWhiteoutType = 0xE000;
constexpr long kFileGetattr = 468;
constexpr long kFileSetattr = 469;

/// struct file_attr of file_getattr(2), as in Linux 6.17.
struct FileAttr {
    std::uint64_t xflags;
    std::uint32_t extentSize;
    std::uint32_t extentCount;
    std::uint32_t projectId;
    std::uint32_t cowExtentSize;
};

/// The inode attributes "i" and "a".
struct Protection {
    bool immutable = false;
    bool append = false;
};

/// True on kernels before 6.17, which lack file_getattr(2); set by the first call.
std::atomic<bool> attributeCallsMissing{false};

/// Reads the permitted set: the capability is effective only during operations that need it.
bool mayChangeAttributes() noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> data{};
    if (::syscall(SYS_capget, &header, data.data()) != 0) return false;
    return (data[0].permitted & (1U << CAP_LINUX_IMMUTABLE)) != 0;
}

/// Returns ENOTSUP for the errors of file systems without such an ioctl or attribute.
int normalized(int error) noexcept {
    return error == ENOTTY || error == EOPNOTSUPP || error == ENOSYS ? ENOTSUP : error;
}

/// A read has no arguments that could be invalid: ntfs-3g reports missing support as EINVAL.
int normalizedReading(int error) noexcept {
    return error == EINVAL ? ENOTSUP : normalized(error);
}

/// Opens the object for ioctl_iflags(2), which refuses O_PATH. Opening a device or pipe has side
/// effects, so the type is checked first through an O_PATH descriptor, and only regular files and
/// directories are opened.
int openForAttributes(const ObjectAddress& object, UniqueFd* opened) {
    const UniqueFd anchor = openAnchor(object);
    if (!anchor) return errno;
    struct statx attributes {};
    if (::statx(anchor.get(), "", AT_EMPTY_PATH, STATX_TYPE, &attributes) != 0) return errno;
    if (!S_ISREG(attributes.stx_mode) && !S_ISDIR(attributes.stx_mode)) return ENOTSUP;
    const DescriptorPath path(anchor.get());
    opened->reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return *opened ? 0 : errno;
}

int getByIoctl(const ObjectAddress& object, Protection* protection) {
    UniqueFd opened;
    if (const int error = openForAttributes(object, &opened); error != 0) return normalized(error);
    unsigned bits = 0;
    if (::ioctl(opened.get(), FS_IOC_GETFLAGS, &bits) != 0) return normalizedReading(errno);
    *protection = {(bits & FS_IMMUTABLE_FL) != 0, (bits & FS_APPEND_FL) != 0};
    return 0;
}

int setByIoctl(const ObjectAddress& object, Protection wanted) {
    UniqueFd opened;
    if (const int error = openForAttributes(object, &opened); error != 0) return normalized(error);
    unsigned bits = 0;
    if (::ioctl(opened.get(), FS_IOC_GETFLAGS, &bits) != 0) return normalizedReading(errno);
    bits &= ~static_cast<unsigned>(FS_IMMUTABLE_FL | FS_APPEND_FL);
    if (wanted.immutable) bits |= FS_IMMUTABLE_FL;
    if (wanted.append) bits |= FS_APPEND_FL;
    return ::ioctl(opened.get(), FS_IOC_SETFLAGS, &bits) == 0 ? 0 : normalized(errno);
}

/// Calls file_getattr(2) or file_setattr(2). With an empty name it uses the path under /proc, since
/// AT_EMPTY_PATH refuses O_PATH here.
int attributeCall(long number, const ObjectAddress& object, FileAttr* attr) {
    long result = 0;
    if (*object.name == '\0') {
        const DescriptorPath path(object.parent);
        result = ::syscall(number, AT_FDCWD, path.c_str(), attr, sizeof *attr, 0);
    } else {
        const int linkFlag = object.followLink ? 0 : AT_SYMLINK_NOFOLLOW;
        result = ::syscall(number, object.parent, object.name, attr, sizeof *attr, linkFlag);
    }
    if (result == 0) return 0;
    if (errno == ENOSYS) attributeCallsMissing.store(true, std::memory_order_relaxed);
    return errno;
}

int getProtection(const ObjectAddress& object, Protection* protection) {
    if (!attributeCallsMissing.load(std::memory_order_relaxed)) {
        FileAttr attr{};
        const int error = attributeCall(kFileGetattr, object, &attr);
        *protection = {(attr.xflags & FS_XFLAG_IMMUTABLE) != 0,
                       (attr.xflags & FS_XFLAG_APPEND) != 0};
        if (error != ENOSYS) return normalizedReading(error);
    }
    return getByIoctl(object, protection);
}

int setProtection(const ObjectAddress& object, Protection wanted) {
    if (!attributeCallsMissing.load(std::memory_order_relaxed)) {
        FileAttr attr{};
        int error = attributeCall(kFileGetattr, object, &attr);
        if (error != 0 && error != ENOSYS) return normalizedReading(error);
        if (error == 0) {
            attr.xflags &= ~static_cast<std::uint64_t>(FS_XFLAG_IMMUTABLE | FS_XFLAG_APPEND);
            if (wanted.immutable) attr.xflags |= FS_XFLAG_IMMUTABLE;
            if (wanted.append) attr.xflags |= FS_XFLAG_APPEND;
            error = attributeCall(kFileSetattr, object, &attr);
        }
        if (error != ENOSYS) return normalized(error);
    }
    return setByIoctl(object, wanted);
}

class KernelFileFlags : public FileFlags {
  public:
    explicit KernelFileFlags(bool userBits) noexcept
        : _immutableBit(userBits ? kUserImmutableFlag : kSystemImmutableFlag),
          _appendBit(userBits ? kUserAppendFlag : kSystemAppendFlag) {}

    int readFlags(const ObjectAddress& object, const struct statx& attributes,
                  std::uint32_t* flags) override {
        constexpr std::uint64_t told = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
        Protection protection{(attributes.stx_attributes & STATX_ATTR_IMMUTABLE) != 0,
                              (attributes.stx_attributes & STATX_ATTR_APPEND) != 0};
        if ((attributes.stx_attributes_mask & told) != told) {
            if (const int error = getProtection(object, &protection); error != 0) return error;
        }
        *flags = (protection.immutable ? _immutableBit : 0) | (protection.append ? _appendBit : 0);
        return 0;
    }

    int setFlags(const ObjectAddress& object, std::uint32_t flags) override {
        return setProtection(object, {(flags & (kUserImmutableFlag | kSystemImmutableFlag)) != 0,
                                      (flags & (kUserAppendFlag | kSystemAppendFlag)) != 0});
    }

  private:
    std::uint32_t _immutableBit;
    std::uint32_t _appendBit;
};

}  // namespace

std::unique_ptr<FileFlags> makeFileFlags() {
    return std::make_unique<KernelFileFlags>(mayChangeAttributes());
}

bool isWhiteout(const struct statx& attributes) noexcept {
    if ((attributes.stx_mode & kTypeBits) == kWhiteoutType) return true;
    return S_ISCHR(attributes.stx_mode) && attributes.stx_rdev_major == 0 &&
           attributes.stx_rdev_minor == 0;
}

}  // namespace corvalen
