// SPDX-License-Identifier: MIT
#include "platform/settings/settings.hpp"

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

#include "foundation/borrowed_descriptor.hpp"

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
    explicit MutableWhile(Descriptor file) noexcept : _file(file) {
        if (::ioctl(file.get(), FS_IOC_GETFLAGS, &_flags) != 0 || (_flags & FS_IMMUTABLE_FL) == 0)
            return;
        int cleared = _flags & ~FS_IMMUTABLE_FL;
        _changed = ::ioctl(file.get(), FS_IOC_SETFLAGS, &cleared) == 0;
    }
    ~MutableWhile() {
        if (_changed) ::ioctl(_file.get(), FS_IOC_SETFLAGS, &_flags);
    }
    MutableWhile(const MutableWhile&) = delete;
    MutableWhile& operator=(const MutableWhile&) = delete;
    /// For a file that is removed.
    void leaveMutable() noexcept { _changed = false; }

  private:
    Descriptor _file;
    int _flags = 0;
    bool _changed = false;
};

/// Writes attributes and contents in one call, as efivarfs requires.
Result<> writeOnce(Descriptor file, const std::string& bytes) noexcept {
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    if (written < 0) return failure(errno);
    if (static_cast<std::size_t>(written) != bytes.size()) return failure(EIO);
    return {};
}

class EfiOptions final : public FirmwareOptions {
  public:
    explicit EfiOptions(UniqueFd folder) noexcept : _folder(std::move(folder)) {}

    Result<std::optional<Value>> copyValue(std::string_view name) override {
        const auto variable = variableName(name);
        if (!variable) return failure(EINVAL);
        const Result<std::string> bytes = readVariable(variable->fileName);
        if (failedWith(bytes, ENOENT)) return std::nullopt;
        if (!bytes) return failure(bytes.error());
        const std::string_view contents = std::string_view(*bytes).substr(kAttributesSize);
        return variable->ours ? valueOfOurs(contents) : Value(Data::copy(contents));
    }

    Result<> setValue(std::string_view name, const Value& value) override {
        const auto variable = variableName(name);
        if (!variable) return failure(EINVAL);
        const Result<std::string> existing = readVariable(variable->fileName);
        if (!existing && !failedWith(existing, ENOENT)) return failure(existing.error());
        const auto contents = contentsOf(*variable, value);
        // Empty contents would make the firmware delete the variable.
        if (!contents || contents->empty()) return failure(EINVAL);
        if (contents->size() > kMaximumFirmwareVariableSize) return failure(EFBIG);
        std::string bytes;
        appendLittleEndian(
            &bytes, existing ? readLittleEndian<std::uint32_t>(*existing) : kNewVariableAttributes);
        bytes += *contents;
        return existing ? overwrite(variable->fileName, bytes) : create(variable->fileName, bytes);
    }

  private:
    [[nodiscard]] Result<UniqueFd> open(const std::string& fileName, int flags) const {
        constexpr int kAlways = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        return openedBy(::openat(_folder.get(), fileName.c_str(), flags | kAlways));
    }

    /// Reads attributes and contents.
    [[nodiscard]] Result<std::string> readVariable(const std::string& fileName) const {
        const Result<UniqueFd> file = open(fileName, O_RDONLY);
        if (!file) return failure(file.error());
        std::string bytes(kAttributesSize + kMaximumFirmwareVariableSize + 1, '\0');
        const ssize_t count = ::read(file->get(), bytes.data(), bytes.size());
        if (count < 0) return failure(errno);
        if (static_cast<std::size_t>(count) == bytes.size()) return failure(EFBIG);
        if (static_cast<std::size_t>(count) < kAttributesSize) return failure(EIO);
        bytes.resize(static_cast<std::size_t>(count));
        return bytes;
    }

    /// Returns std::nullopt for a value that the variable cannot have.
    static std::optional<std::string> contentsOf(const VariableName& variable, const Value& value) {
        if (variable.ours) return contentsOfOurs(value);
        if (const Data* data = value.data()) return std::string(data->view());
        if (const std::string* text = value.string()) return *text;
        return std::nullopt;
    }

    [[nodiscard]] Result<> overwrite(const std::string& fileName, const std::string& bytes) const {
        const Result<UniqueFd> flagged = open(fileName, O_RDONLY);
        if (!flagged) return failure(flagged.error());
        const MutableWhile mutableWhile(*flagged);
        const Result<UniqueFd> file = open(fileName, O_WRONLY);
        if (!file) return failure(file.error());
        if (const Result<> written = writeOnce(*file, bytes); !written) return written;
        // efivarfs replaces the whole variable; a file of an ordinary file system keeps its old
        // tail.
        struct stat after {};
        if (::fstat(file->get(), &after) == 0 &&
            static_cast<std::size_t>(after.st_size) > bytes.size()) {
            return resultOf(::ftruncate(file->get(), static_cast<off_t>(bytes.size())));
        }
        return {};
    }

    [[nodiscard]] Result<> create(const std::string& fileName, const std::string& bytes) const {
        const UniqueFd file(::openat(_folder.get(), fileName.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (!file) return failure(errno);
        const Result<> written = writeOnce(file, bytes);
        if (!written) {
            MutableWhile mutableWhile(file);
            if (::unlinkat(_folder.get(), fileName.c_str(), 0) == 0) mutableWhile.leaveMutable();
        }
        return written;
    }

    UniqueFd _folder;
};

class EfiVariables final : public FirmwareVariables {
  public:
    explicit EfiVariables(std::string folder) : _path(std::move(folder)) {}

    Result<std::unique_ptr<FirmwareOptions>> openOptions() override {
        UniqueFd folder(::open(_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct statfs fileSystem {};
        if (!folder || ::fstatfs(folder.get(), &fileSystem) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) return nullptr;
            return failure(errno);
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
