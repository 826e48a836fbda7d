// SPDX-License-Identifier: MIT
#include "platform/settings/settings.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>

#include "foundation/borrowed_descriptor.hpp"

namespace corvalen {
namespace {

constexpr const char* kVariableFolder = "/proc/sys";
constexpr std::size_t kLongestDecimal = 20;

/// Returns the path of a variable named as for sysctl(8): the first dot or slash is the separator.
/// In names with dots, a slash stands for a dot ("net.ipv4.conf.br/9.forwarding"); in names with
/// slashes, a dot is itself. Returns std::nullopt if a component is empty, "." or "..".
std::optional<std::string> relativePathOfVariable(std::string_view name) {
    const std::size_t separator = name.find_first_of("./");
    const bool hasDots = separator != std::string_view::npos && name[separator] == '.';
    std::string path(name);
    for (char& character : path) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7f) return std::nullopt;
        if (hasDots && (character == '.' || character == '/'))
            character = character == '.' ? '/' : '.';
    }
    for (std::size_t at = 0; at <= path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string_view component = std::string_view(path).substr(at, end - at);
        if (component.empty() || component == "." || component == "..") return std::nullopt;
        at = end + 1;
    }
    return path;
}

Result<UniqueFd> openBeneath(Descriptor folder, const char* path) noexcept {
    struct open_how how {};
    how.flags = O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return openedBy(::syscall(SYS_openat2, folder.get(), path, &how, sizeof how));
}

class ProcKernelVariables final : public KernelVariables {
  public:
    Result<> setInteger(std::string_view name, std::int64_t value) override {
        const auto path = relativePathOfVariable(name);
        if (!path) return failure(ENOENT);
        const UniqueFd folder(::open(kVariableFolder, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder) return failure(errno);
        const Result<UniqueFd> variable = openBeneath(folder, path->c_str());
        if (!variable) return failure(variable.error());
        char text[kLongestDecimal];
        const char* end = std::to_chars(text, text + sizeof text, value).ptr;
        const ssize_t length = end - text;
        const ssize_t written = ::write(variable->get(), text, static_cast<std::size_t>(length));
        if (written < 0) return failure(errno);
        if (written != length) return failure(EINVAL);
        return {};
    }
};

}  // namespace

std::unique_ptr<KernelVariables> makeKernelVariables() {
    return std::make_unique<ProcKernelVariables>();
}

}  // namespace corvalen
