// SPDX-License-Identifier: MIT
#include "platform/files/file_attributes.hpp"

#include <fcntl.h>
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
SystemError normalized(SystemError error) noexcept {
    const bool isMissing = error == ENOTTY || error == EOPNOTSUPP || error == ENOSYS;
    return isMissing ? SystemError{ENOTSUP} : error;
}

/// A read has no arguments that could be invalid: ntfs-3g reports missing support as EINVAL.
SystemError normalizedReading(SystemError error) noexcept {
    return error == EINVAL ? SystemError{ENOTSUP} : normalized(error);
}

/// Opens the object for ioctl_iflags(2), which refuses O_PATH. Opening a device or pipe has side
/// effects, so the type is checked first through an O_PATH descriptor, and only regular files and
/// directories are opened.
Result<UniqueFd> openForAttributes(const ObjectAddress& object) {
    const Result<UniqueFd> anchor = openAnchor(object);
    if (!anchor) return failure(anchor.error());
    struct statx attributes {};
    if (::statx(anchor->get(), "", AT_EMPTY_PATH, STATX_TYPE, &attributes) != 0)
        return failure(errno);
    if (!S_ISREG(attributes.stx_mode) && !S_ISDIR(attributes.stx_mode)) return failure(ENOTSUP);
    const DescriptorPath path(*anchor);
    return openedBy(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

Result<unsigned> bitsByIoctl(Descriptor opened) noexcept {
    unsigned bits = 0;
    if (::ioctl(opened.get(), FS_IOC_GETFLAGS, &bits) != 0)
        return failure(normalizedReading({errno}));
    return bits;
}

Result<Protection> getByIoctl(const ObjectAddress& object) {
    const Result<UniqueFd> opened = openForAttributes(object);
    if (!opened) return failure(normalized(opened.error()));
    return bitsByIoctl(*opened).map([](unsigned bits) {
        return Protection{(bits & FS_IMMUTABLE_FL) != 0, (bits & FS_APPEND_FL) != 0};
    });
}

Result<> setByIoctl(const ObjectAddress& object, Protection wanted) {
    const Result<UniqueFd> opened = openForAttributes(object);
    if (!opened) return failure(normalized(opened.error()));
    Result<unsigned> bits = bitsByIoctl(*opened);
    if (!bits) return failure(bits.error());
    *bits &= ~static_cast<unsigned>(FS_IMMUTABLE_FL | FS_APPEND_FL);
    if (wanted.immutable) *bits |= FS_IMMUTABLE_FL;
    if (wanted.append) *bits |= FS_APPEND_FL;
    return resultOf(::ioctl(opened->get(), FS_IOC_SETFLAGS, &*bits)).map_error(normalized);
}

/// Calls file_getattr(2) or file_setattr(2). With an empty name it uses the path under /proc, since
/// AT_EMPTY_PATH refuses O_PATH here.
Result<> attributeCall(long number, const ObjectAddress& object, FileAttr* attr) {
    long result = 0;
    if (*object.name == '\0') {
        const DescriptorPath path(object.parent);
        result = ::syscall(number, AT_FDCWD, path.c_str(), attr, sizeof *attr, 0);
    } else {
        const int linkFlag = object.followLink ? 0 : AT_SYMLINK_NOFOLLOW;
        result = ::syscall(number, object.parent.get(), object.name, attr, sizeof *attr, linkFlag);
    }
    const Result<> called = resultOf(result);
    if (failedWith(called, ENOSYS)) attributeCallsMissing.store(true, std::memory_order_relaxed);
    return called;
}

Result<Protection> getProtection(const ObjectAddress& object) {
    if (!attributeCallsMissing.load(std::memory_order_relaxed)) {
        FileAttr attr{};
        const Result<> read = attributeCall(kFileGetattr, object, &attr);
        if (read) {
            return Protection{(attr.xflags & FS_XFLAG_IMMUTABLE) != 0,
                              (attr.xflags & FS_XFLAG_APPEND) != 0};
        }
        if (!failedWith(read, ENOSYS)) return failure(normalizedReading(read.error()));
    }
    return getByIoctl(object);
}

Result<> setProtection(const ObjectAddress& object, Protection wanted) {
    if (!attributeCallsMissing.load(std::memory_order_relaxed)) {
        FileAttr attr{};
        Result<> called = attributeCall(kFileGetattr, object, &attr);
        if (!called && !failedWith(called, ENOSYS))
            return failure(normalizedReading(called.error()));
        if (called) {
            attr.xflags &= ~static_cast<std::uint64_t>(FS_XFLAG_IMMUTABLE | FS_XFLAG_APPEND);
            if (wanted.immutable) attr.xflags |= FS_XFLAG_IMMUTABLE;
            if (wanted.append) attr.xflags |= FS_XFLAG_APPEND;
            called = attributeCall(kFileSetattr, object, &attr);
        }
        if (!failedWith(called, ENOSYS)) return called.map_error(normalized);
    }
    return setByIoctl(object, wanted);
}

class KernelFileFlags : public FileFlags {
  public:
    explicit KernelFileFlags(bool userBits) noexcept
        : _immutableBit(userBits ? kUserImmutableFlag : kSystemImmutableFlag),
          _appendBit(userBits ? kUserAppendFlag : kSystemAppendFlag) {}

    Result<std::uint32_t> readFlags(const ObjectAddress& object,
                                    const struct statx& attributes) override {
        constexpr std::uint64_t protectionBits = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
        if ((attributes.stx_attributes_mask & protectionBits) == protectionBits) {
            return flagsOf({(attributes.stx_attributes & STATX_ATTR_IMMUTABLE) != 0,
                            (attributes.stx_attributes & STATX_ATTR_APPEND) != 0});
        }
        return getProtection(object).map(
            [this](const Protection& protection) { return flagsOf(protection); });
    }

    Result<> setFlags(const ObjectAddress& object, std::uint32_t flags) override {
        return setProtection(object, {(flags & (kUserImmutableFlag | kSystemImmutableFlag)) != 0,
                                      (flags & (kUserAppendFlag | kSystemAppendFlag)) != 0});
    }

  private:
    [[nodiscard]] std::uint32_t flagsOf(const Protection& protection) const noexcept {
        return (protection.immutable ? _immutableBit : 0) | (protection.append ? _appendBit : 0);
    }

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
