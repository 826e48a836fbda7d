// SPDX-License-Identifier: MIT
// What the tests of settings share: a folder of one test, and small files in it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "foundation/descriptor.hpp"

namespace corvalen {

class ScratchFolder {
  public:
    ScratchFolder() {
        std::string pattern = testing::TempDir() + "settings-XXXXXX";
        _path = ::mkdtemp(pattern.data());
        ::chmod(_path.c_str(), 0755);
    }
    ~ScratchFolder() {
        std::error_code error;
        std::filesystem::remove_all(_path, error);
    }
    [[nodiscard]] std::string operator/(const std::string& name) const {
        return _path + '/' + name;
    }
    [[nodiscard]] const std::string& path() const { return _path; }

  private:
    std::string _path;
};

/// Creates the folders on the way.
inline void writeText(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline struct stat attributesOf(const std::string& path) {
    struct stat attributes {};
    EXPECT_EQ(::lstat(path.c_str(), &attributes), 0) << path;
    return attributes;
}

/// False where the file system has no such flag.
inline bool setImmutable(const std::string& path, bool immutable) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const int flags = immutable ? FS_IMMUTABLE_FL : 0;
    return ::ioctl(file.get(), FS_IOC_SETFLAGS, &flags) == 0;
}

/// What an independent reader of property lists finds in a file, as Python prints it.
inline std::string readWithOracle(const std::string& path) {
    const std::string command =
        "plistutil -i '" + path +
        "' >/dev/null && python3 -c \"import plistlib,sys; "
        "print(dict(sorted(plistlib.load(sys.stdin.buffer).items())),end='')\" <'" +
        path + "'";
    FILE* pipe = ::popen(command.c_str(), "re");
    std::string output(4096, '\0');
    output.resize(std::fread(output.data(), 1, output.size(), pipe));
    ::pclose(pipe);
    return output;
}

}  // namespace corvalen
