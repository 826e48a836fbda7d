// SPDX-License-Identifier: MIT
// A directory for the objects of one test.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace corvalen::test {

/// Lies in the temporary directory and is open to all users. The destructor removes it with its
/// contents, unless something in it is locked.
class ScratchFolder {
  public:
    ScratchFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "corvalen.XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr || ::chmod(name.c_str(), 0755) != 0) std::abort();
        _path = name;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    [[nodiscard]] const std::string& path() const noexcept { return _path; }
    [[nodiscard]] std::string path(const std::string& name) const { return _path + "/" + name; }

  private:
    std::string _path;
};

/// Writes a file, creates its parent directories, and returns the path.
inline std::string putFile(const std::string& path, std::string_view text, mode_t mode = 0644) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
    if (::chmod(path.c_str(), mode) != 0) std::abort();
    return path;
}

inline std::string textOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Runs a shell command without output; returns whether it succeeded.
inline bool shell(const std::string& command) {
    return std::system(("( " + command + " ) >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace corvalen::test
