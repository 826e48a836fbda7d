// SPDX-License-Identifier: MIT
#include "foundation/path.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

namespace corvalen {

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) noexcept {
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    return path;
}

struct FreeDeleter {
    void operator()(char* text) const noexcept { std::free(text); }
};

/// realpath(3); empty, and errno set, if it fails.
std::string realPath(const std::string& path) {
    const std::unique_ptr<char, FreeDeleter> resolved(::realpath(path.c_str(), nullptr));
    return resolved ? std::string(resolved.get()) : std::string();
}

}  // namespace

std::string appendPathComponent(std::string_view base, std::string_view component) {
    while (!component.empty() && component.front() == '/' && !base.empty()) {
        component.remove_prefix(1);
    }
    component = withoutTrailingSlashes(component);
    base = withoutTrailingSlashes(base);
    std::string result;
    result.reserve(base.size() + 1 + component.size());
    result.append(base);
    if (!component.empty()) {
        if (!result.empty() && result.back() != '/') result.push_back('/');
        result.append(component);
    }
    return result;
}

std::string_view lastPathComponent(std::string_view path) noexcept {
    path = withoutTrailingSlashes(path);
    return path.size() == 1 ? path : path.substr(path.rfind('/') + 1);
}

std::string deleteLastPathComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return {};
    return std::string(slash == 0 ? path.substr(0, 1)
                                  : withoutTrailingSlashes(path.substr(0, slash)));
}

std::string_view pathExtension(std::string_view path) noexcept {
    const std::string_view name = lastPathComponent(path);
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

std::string appendPathExtension(std::string_view path, std::string_view extension) {
    std::string result(withoutTrailingSlashes(path));
    result.push_back('.');
    result.append(extension);
    return result;
}

std::string resolveSymlinksInPath(std::string_view path) {
    if (path.find('\0') != std::string_view::npos) return std::string(path);
    std::string head(path);
    std::string missing;
    while (true) {
        std::string resolved = realPath(head);
        if (!resolved.empty()) return appendPathComponent(resolved, missing);
        if (errno != ENOENT && errno != ENOTDIR) return std::string(path);
        const std::string_view name = lastPathComponent(head);
        std::string parent = deleteLastPathComponent(head);
        if (parent == head) return std::string(path);
        missing = missing.empty() ? std::string(name) : appendPathComponent(name, missing);
        head = std::move(parent);
    }
}

}  // namespace corvalen
