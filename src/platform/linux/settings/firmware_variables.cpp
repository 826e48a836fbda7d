// SPDX-License-Identifier: MIT
#include "platform/settings/firmware_variables.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"

namespace corvalen {
namespace {

// UEFI attribute bits: non-volatile, boot service access, runtime access.
constexpr std::uint32_t kNewVariableAttributes = 0x1 | 0x2 | 0x4;
constexpr std::size_t kAttributesSize = 4;
constexpr std::string_view kKindMark = "KVX";
constexpr std::size_t kKindHeaderSize = kKindMark.size() + 1;
constexpr std::size_t kNumberSize = 8;
constexpr std::size_t kGuidLength = 36;
constexpr std::size_t kMaximumFileNameLength = 255;

bool isGuid(std::string_view text) noexcept {
    if (text.size() != kGuidLength) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dashed = i == 8 || i == 13 || i == 18 || i == 23;
        const auto byte = static_cast<unsigned char>(text[i]);
        if (dashed ? byte != '-' : std::isxdigit(byte) == 0) return false;
    }
    return true;
}

/// A variable's file, and whether its vendor GUID is ours.
struct VariableName {
    std::string fileName;
    bool ours = false;
};

std::optional<VariableName> variableName(std::string_view name) {
    const bool controls = std::any_of(name.begin(), name.end(), [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7f || byte == '/';
    });
    if (name.empty() || name == "." || name == ".." || controls) return std::nullopt;
    std::string_view bare = name;
    std::string guid(kFirmwareVendorGuid);
    if (name.size() > kGuidLength + 1 && name[name.size() - kGuidLength - 1] == '-' &&
        isGuid(name.substr(name.size() - kGuidLength))) {
        bare = name.substr(0, name.size() - kGuidLength - 1);
        guid = name.substr(name.size() - kGuidLength);
        // The kernel lists GUIDs in lower case.
        std::transform(guid.begin(), guid.end(), guid.begin(), [](unsigned char character) {
            return static_cast<char>(std::tolower(character));
        });
    }
    VariableName result{std::string(bare) + '-' + guid, guid == kFirmwareVendorGuid};
    if (result.fileName.size() > kMaximumFileNameLength) return std::nullopt;
    return result;
}

template <class Integer>
void appendLittleEndian(std::string* bytes, Integer value) {
    for (std::size_t i = 0; i < sizeof value; ++i)
        bytes->push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

template <class Integer>
Integer readLittleEndian(std::string_view bytes) noexcept {
    Integer value = 0;
    for (std::size_t i = 0; i < sizeof value; ++i)
        value |= static_cast<Integer>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    return value;
}

/// Returns std::nullopt for values without a representation.
std::optional<std::string> contentsOfOurs(const Value& value) {
    std::string contents(kKindMark);
    if (const Number* number = value.number(); number != nullptr) {
        if (number->kind() == Number::Kind::boolean) {
            return contents + 'b' + (number->boolValue() ? '\1' : '\0');
        }
        contents += 'n';
        appendLittleEndian(&contents, static_cast<std::uint64_t>(number->longLongValue()));
        return contents;
    }
    if (const std::string* text = value.string(); text != nullptr) return contents + 's' + *text;
    if (const Data* data = value.data(); data != nullptr) {
        return (contents += 'd').append(data->view());
    }
    return std::nullopt;
}

Value valueOfOurs(std::string_view contents) {
    Value plain(Data::copy(contents));
    if (contents.size() < kKindHeaderSize || contents.substr(0, kKindMark.size()) != kKindMark) {
        return plain;
    }
    const std::string_view body = contents.substr(kKindHeaderSize);
    switch (contents[kKindMark.size()]) {
        case 'b':
            return body.size() == 1 ? Value(body[0] != '\0') : plain;
        case 'n':
            if (body.size() != kNumberSize) return plain;
            return Value(static_cast<std::int64_t>(readLittleEndian<std::uint64_t>(body)));
        case 's':
            return Value(body);
        case 'd':
            return Value(Data::copy(body));
        default:
            return plain;
    }
}

/// Clears the immutable flag during its lifetime. efivarfs sets the flag on its files, so that
/// nobody accidentally removes variables that the machine needs to start.
class MutableWhile {
  public:
    explicit MutableWhile(int fd) noexcept : _fd(fd) {
        if (::ioctl(fd, FS_IOC_GETFLAGS, &_flags) != 0 || (_flags & FS_IMMUTABLE_FL) == 0) return;
        int cleared = _flags & ~FS_IMMUTABLE_FL;
        _changed = ::ioctl(fd, FS_IOC_SETFLAGS, &cleared) == 0;
    }
    ~MutableWhile() {
        if (_changed) ::ioctl(_fd, FS_IOC_SETFLAGS, &_flags);
    }
    MutableWhile(const MutableWhile&) = delete;
    MutableWhile& operator=(const MutableWhile&) = delete;
    /// For a file that is removed.
    void leaveMutable() noexcept { _changed = false; }

  private:
    int _fd;
    int _flags = 0;
    bool _changed = false;
};

/// Writes attributes and contents in one call, as efivarfs requires. Returns 0 or an errno.
int writeOnce(int fd, const std::string& bytes) noexcept {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) return errno;
    return static_cast<std::size_t>(written) == bytes.size() ? 0 : EIO;
}

class EfiOptions final : public FirmwareOptions {
  public:
    explicit EfiOptions(UniqueFd folder) noexcept : _folder(std::move(folder)) {}

    std::optional<Value> copyValue(std::string_view name, std::int32_t* status) override {
        *status = 0;
        const auto variable = variableName(name);
        std::string bytes;
        const int error = variable ? readVariable(variable->fileName, &bytes) : EINVAL;
        if (error == ENOENT) return std::nullopt;
        if (error != 0) {
            *status = static_cast<std::int32_t>(posixCodeFromErrno(error));
            return std::nullopt;
        }
        const std::string_view contents = std::string_view(bytes).substr(kAttributesSize);
        return variable->ours ? valueOfOurs(contents) : Value(Data::copy(contents));
    }

    std::int32_t setValue(std::string_view name, const Value& value) override {
        return static_cast<std::int32_t>(posixCodeFromErrno(writeValue(name, value)));
    }

  private:
    /// Reads attributes and contents. Returns 0 or an errno.
    int readVariable(const std::string& fileName, std::string* bytes) const {
        const UniqueFd file(::openat(_folder.get(), fileName.c_str(),
                                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file) return errno;
        bytes->resize(kAttributesSize + kMaximumFirmwareVariableSize + 1);
        const ssize_t count = ::read(file.get(), bytes->data(), bytes->size());
        if (count < 0) return errno;
        if (static_cast<std::size_t>(count) == bytes->size()) return EFBIG;
        if (static_cast<std::size_t>(count) < kAttributesSize) return EIO;
        bytes->resize(static_cast<std::size_t>(count));
        return 0;
    }

    int writeValue(std::string_view name, const Value& value) {
        const auto variable = variableName(name);
        if (!variable) return EINVAL;
        std::string existing;
        const int readError = readVariable(variable->fileName, &existing);
        if (readError != 0 && readError != ENOENT) return readError;

        std::string bytes;
        appendLittleEndian(&bytes, readError == 0 ? readLittleEndian<std::uint32_t>(existing)
                                                  : kNewVariableAttributes);
        const Data* data = value.data();
        if (variable->ours) {
            const auto contents = contentsOfOurs(value);
            if (!contents) return EINVAL;
            bytes += *contents;
        } else if (data != nullptr) {
            bytes.append(data->view());
        } else if (const std::string* text = value.string(); text != nullptr) {
            bytes += *text;
        } else {
            return EINVAL;
        }
        // Empty contents would make the firmware delete the variable.
        if (bytes.size() == kAttributesSize) return EINVAL;
        if (bytes.size() > kAttributesSize + kMaximumFirmwareVariableSize) return EFBIG;
        return readError == 0 ? overwrite(variable->fileName, bytes)
                              : create(variable->fileName, bytes);
    }

    int overwrite(const std::string& fileName, const std::string& bytes) const {
        const UniqueFd flagged(::openat(_folder.get(), fileName.c_str(),
                                        O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!flagged) return errno;
        const MutableWhile mutableWhile(flagged.get());
        const UniqueFd file(::openat(_folder.get(), fileName.c_str(),
                                     O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file) return errno;
        const int error = writeOnce(file.get(), bytes);
        if (error != 0) return error;
        // efivarfs replaces the whole variable; a file of an ordinary file system keeps its old
        // tail.
        struct stat after {};
        if (::fstat(file.get(), &after) == 0 &&
            static_cast<std::size_t>(after.st_size) > bytes.size()) {
            return ::ftruncate(file.get(), static_cast<off_t>(bytes.size())) == 0 ? 0 : errno;
        }
        return 0;
    }

    int create(const std::string& fileName, const std::string& bytes) const {
        const UniqueFd file(::openat(_folder.get(), fileName.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (!file) return errno;
        const int error = writeOnce(file.get(), bytes);
        if (error != 0) {
            MutableWhile mutableWhile(file.get());
            if (::unlinkat(_folder.get(), fileName.c_str(), 0) == 0) mutableWhile.leaveMutable();
        }
        return error;
    }

    UniqueFd _folder;
};

class EfiVariables final : public FirmwareVariables {
  public:
    explicit EfiVariables(std::string folder) : _path(std::move(folder)) {}

    std::unique_ptr<FirmwareOptions> openOptions(std::int32_t* status) override {
        *status = 0;
        UniqueFd folder(::open(_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct statfs fileSystem {};
        if (!folder || ::fstatfs(folder.get(), &fileSystem) != 0) {
            if (errno != ENOENT && errno != ENOTDIR) {
                *status = static_cast<std::int32_t>(posixCodeFromErrno(errno));
            }
            return nullptr;
        }
        // The bare mount point: the machine has EFI, but efivarfs is not mounted.
        if (fileSystem.f_type == SYSFS_MAGIC) return nullptr;
        return std::make_unique<EfiOptions>(std::move(folder));
    }

  private:
    std::string _path;
};

}  // namespace

std::unique_ptr<FirmwareVariables> makeFirmwareVariables(std::string folder) {
    return std::make_unique<EfiVariables>(std::move(folder));
}

}  // namespace corvalen
