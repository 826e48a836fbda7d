// SPDX-License-Identifier: MIT
#include "foundation/elf_section.hpp"

#include <link.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace corvalen {

namespace {

using FileHeader = ElfW(Ehdr);
using SectionHeader = ElfW(Shdr);

constexpr unsigned char kNativeClass = __ELF_NATIVE_CLASS == 64 ? ELFCLASS64 : ELFCLASS32;
constexpr std::size_t kMaximumNameTableSize = std::size_t{1} << 20U;

/// Returns false if the read fails or the file ends first.
bool readAt(int file, std::uint64_t offset, void* buffer, std::size_t size) noexcept {
    auto* to = static_cast<char*>(buffer);
    while (size != 0) {
        const ssize_t count = ::pread(file, to, size, static_cast<off_t>(offset));
        if (count <= 0) return false;
        to += count;
        offset += static_cast<std::uint64_t>(count);
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

std::optional<std::string> contentsOf(int file, const SectionHeader& section,
                                      std::size_t maximumSize) {
    if (section.sh_type == SHT_NOBITS || section.sh_size > maximumSize) return std::nullopt;
    std::string contents(static_cast<std::size_t>(section.sh_size), '\0');
    if (!readAt(file, section.sh_offset, contents.data(), contents.size())) return std::nullopt;
    return contents;
}

/// Returns the section headers; empty if the file is malformed. e_shnum has 16 bits, which bounds
/// the memory.
std::vector<SectionHeader> sectionHeaders(int file, const FileHeader& header) {
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

}  // namespace

std::optional<std::string> readElfSection(int file, std::string_view name,
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

}  // namespace corvalen
