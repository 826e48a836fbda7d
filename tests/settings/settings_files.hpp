// SPDX-License-Identifier: MIT
// Small files, as the tests of settings make them and look at them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "foundation/descriptor.hpp"
#include "operations/names.hpp"
#include "settings/settings_operations.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {

using test::ScratchFolder;

/// The code of an error, 0 for none; below 0 for one of the helper's own domain.
inline std::int64_t codeOf(const ErrorRef& error) {
    if (!error) return 0;
    return error->domain() == kErrorDomain ? -error->code() : error->code();
}

inline std::ptrdiff_t entriesOf(const std::string& folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

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
    const std::string read = "import plistlib as p; d = p.load(open('" + path + "', 'rb'))";
    const std::string command = "plistutil -i '" + path + "' >/dev/null && python3 -c \"" + read +
                                "; print(dict(sorted(d.items())), end='')\"";
    FILE* pipe = ::popen(command.c_str(), "re");
    std::string output(4096, '\0');
    output.resize(std::fread(output.data(), 1, output.size(), pipe));
    ::pclose(pipe);
    return output;
}

}  // namespace corvalen
