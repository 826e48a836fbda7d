// SPDX-License-Identifier: MIT
#include "foundation/bundle.hpp"

#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/path.hpp"
#include "foundation/property_list.hpp"

namespace corvalen {
namespace {

constexpr const char* kRunningExecutable = "/proc/self/exe";

std::optional<Dictionary> dictionaryFromData(std::string_view bytes) {
    auto list = propertyListFromData(bytes);
    Dictionary* dictionary = list ? list->dictionary() : nullptr;
    return dictionary != nullptr ? std::optional(std::move(*dictionary)) : std::nullopt;
}

/// Returns false if the read fails or the file ends first.
bool readAt(Descriptor file, std::uint64_t offset, void* buffer, std::size_t size) noexcept {
    auto* to = static_cast<char*>(buffer);
    while (size != 0) {
        const ssize_t count = ::pread(file.get(), to, size, static_cast<off_t>(offset));
        if (count <= 0) return false;
        to += count;
        offset += static_cast<std::uint64_t>(count);
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Reads a regular file of at most `kMaximumInformationListSize` bytes. O_NONBLOCK: opening a FIFO
/// must not block.
std::optional<std::string> readListFile(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        std::cmp_greater(status.st_size, kMaximumInformationListSize)) {
        return std::nullopt;
    }
    std::string contents(static_cast<std::size_t>(status.st_size), '\0');
    if (!readAt(file, 0, contents.data(), contents.size())) return std::nullopt;
    return contents;
}

Dictionary readInformationList(std::string_view directory) {
    for (const std::string_view place : {"Contents/Info.plist", "Info.plist"}) {
        if (const auto contents = readListFile(appendPathComponent(directory, place))) {
            return dictionaryFromData(*contents).value_or(Dictionary());
        }
    }
    return {};
}

bool isDirectory(const std::string& path) noexcept {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isFile(const std::string& path) noexcept {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::optional<std::string> findExecutable(std::string_view directory, std::string_view name) {
    // A name of several components could lead out of the directory.
    if (name.find_first_of(std::string_view("/\0", 2)) != name.npos) return std::nullopt;
    for (const std::string_view place : {"Contents/MacOS", "Contents/Linux", ""}) {
        std::string path = appendPathComponent(appendPathComponent(directory, place), name);
        if (isFile(path)) return path;
    }
    return std::nullopt;
}

std::string pathOfRunningExecutable() {
    std::array<char, 4096> target{};
    const ssize_t length = ::readlink(kRunningExecutable, target.data(), target.size());
    return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

using FileHeader = ElfW(Ehdr);
using SectionHeader = ElfW(Shdr);

constexpr unsigned char kNativeClass = __ELF_NATIVE_CLASS == 64 ? ELFCLASS64 : ELFCLASS32;
constexpr std::size_t kMaximumNameTableSize = std::size_t{1} << 20U;

std::optional<std::string> contentsOf(Descriptor file, const SectionHeader& section,
                                      std::size_t maximumSize) {
    if (section.sh_type == SHT_NOBITS || section.sh_size > maximumSize) return std::nullopt;
    std::string contents(static_cast<std::size_t>(section.sh_size), '\0');
    if (!readAt(file, section.sh_offset, contents.data(), contents.size())) return std::nullopt;
    return contents;
}

/// Returns the section headers; empty if the file is malformed. e_shnum has 16 bits, which bounds
/// the memory.
std::vector<SectionHeader> sectionHeaders(Descriptor file, const FileHeader& header) {
    const bool wellFormed = std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
                            header.e_ident[EI_CLASS] == kNativeClass &&
                            header.e_shentsize == sizeof(SectionHeader);
    std::vector<SectionHeader> sections(wellFormed ? header.e_shnum : 0U);
    if (!readAt(file, header.e_shoff, sections.data(), sections.size() * sizeof(SectionHeader))) {
        sections.clear();
    }
    return sections;
}

bool isNameAt(const std::string& names, std::size_t offset, std::string_view name) noexcept {
    // std::string ends with a NUL, so the comparison stays inside the table.
    return offset <= names.size() && std::string_view(names.c_str() + offset) == name;
}

/// Returns the contents of a section of a file of this machine's class (32 or 64 bit); checks every
/// offset (elf(5)). std::nullopt if the file is malformed or has no such section, or if the section
/// is larger than `maximumSize` bytes.
std::optional<std::string> readElfSection(Descriptor file, std::string_view name,
                                          std::size_t maximumSize) {
    FileHeader header{};
    if (!readAt(file, 0, &header, sizeof header)) return std::nullopt;
    const std::vector<SectionHeader> sections = sectionHeaders(file, header);
    if (header.e_shstrndx >= sections.size()) return std::nullopt;
    const auto names = contentsOf(file, sections[header.e_shstrndx], kMaximumNameTableSize);
    if (!names) return std::nullopt;
    for (const SectionHeader& section : sections) {
        if (isNameAt(*names, section.sh_name, name)) return contentsOf(file, section, maximumSize);
    }
    return std::nullopt;
}

}  // namespace

const Bundle& Bundle::mainBundle() {
    static const Bundle running = [] {
        Bundle bundle;
        bundle._info =
            embeddedPropertyList(kRunningExecutable, kInfoSection).value_or(Dictionary());
        bundle._executablePath = pathOfRunningExecutable();
        return bundle;
    }();
    return running;
}

std::optional<Bundle> Bundle::bundleWithPath(std::string_view path) {
    if (path.find('\0') != std::string_view::npos || !isDirectory(std::string(path))) {
        return std::nullopt;
    }
    Bundle bundle;
    bundle._info = readInformationList(path);
    const std::string* executable = bundle.stringForInfoDictionaryKey("CFBundleExecutable");
    const std::string_view directoryName = lastPathComponent(path);
    const std::string_view extension = pathExtension(directoryName);
    const std::string_view stem =
        extension.empty() ? directoryName
                          : directoryName.substr(0, directoryName.size() - extension.size() - 1);
    bundle._executablePath =
        findExecutable(path, executable != nullptr ? std::string_view(*executable) : stem);
    return bundle;
}

const std::string* Bundle::bundleIdentifier() const noexcept {
    return stringForInfoDictionaryKey("CFBundleIdentifier");
}

const std::string* Bundle::principalClassName() const noexcept {
    return stringForInfoDictionaryKey("NSPrincipalClass");
}

const std::string* Bundle::stringForInfoDictionaryKey(std::string_view key) const noexcept {
    const Value* value = _info.find(key);
    return value != nullptr ? value->string() : nullptr;
}

std::optional<Dictionary> embeddedPropertyList(const std::string& executable,
                                               std::string_view section) {
    const UniqueFd file(::open(executable.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return std::nullopt;
    const auto contents = readElfSection(file, section, kMaximumInformationListSize);
    return contents ? dictionaryFromData(*contents) : std::nullopt;
}

}  // namespace corvalen
