// SPDX-License-Identifier: MIT
#include "platform/kernel_variables.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <optional>
#include <string>

#include "corvalen/descriptor.hpp"

namespace corvalen {
namespace {

constexpr const char* kVariableFolder = "/proc/sys";
constexpr std::size_t kLongestDecimal = 20;

/// Dots become slashes, so that no component can be "." or "..".
std::optional<std::string> relativePathOfVariable(std::string_view name) {
    std::string path;
    path.reserve(name.size());
    char previous = '.';
    for (const char character : name) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '/' || byte < 0x20 || byte == 0x7f) return std::nullopt;
        if (character == '.' && previous == '.') return std::nullopt;
        path.push_back(character == '.' ? '/' : character);
        previous = character;
    }
    if (previous == '.') return std::nullopt;
    return path;
}

UniqueFd openBeneath(int folder, const char* path) noexcept {
    struct open_how how {};
    how.flags = O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return UniqueFd(static_cast<int>(::syscall(SYS_openat2, folder, path, &how, sizeof how)));
}

class ProcKernelVariables final : public KernelVariables {
  public:
    int setInteger(std::string_view name, std::int64_t value) override {
        const auto path = relativePathOfVariable(name);
        if (!path) return ENOENT;
        const UniqueFd folder(::open(kVariableFolder, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder) return errno;
        const UniqueFd variable = openBeneath(folder.get(), path->c_str());
        if (!variable) return errno;
        char text[kLongestDecimal];
        const char* end = std::to_chars(text, text + sizeof text, value).ptr;
        const ssize_t length = end - text;
        const ssize_t written = ::write(variable.get(), text, static_cast<std::size_t>(length));
        if (written < 0) return errno;
        return written == length ? 0 : EINVAL;
    }
};

}  // namespace

std::unique_ptr<KernelVariables> makeKernelVariables() {
    return std::make_unique<ProcKernelVariables>();
}

}  // namespace corvalen
