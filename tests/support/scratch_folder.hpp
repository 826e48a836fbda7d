// SPDX-License-Identifier: MIT
// A folder for the objects of one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace corvalen::test {

/// Made under the temporary folder, and removed with what is in it unless something in it is
/// locked.
class ScratchFolder {
  public:
    ScratchFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "corvalen.XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) std::abort();
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

}  // namespace corvalen::test
