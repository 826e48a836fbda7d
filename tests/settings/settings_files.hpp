// SPDX-License-Identifier: MIT
// A folder for small files of settings, as the tests make them and look at them.
#pragma once

#include <filesystem>

#include "operations/names.hpp"
#include "settings/settings_operations.hpp"
#include "support/scratch.hpp"

namespace corvalen {

/// The code of an error, 0 for none; below 0 for one of the helper's own domain.
inline std::int64_t codeOf(const ErrorRef& error) {
    if (!error) return 0;
    return error->domain() == kErrorDomain ? -error->code() : error->code();
}

class SettingsTest : public testing::Scratch {
  protected:
    static std::ptrdiff_t entriesOf(const std::string& folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }
    /// What an independent reader of property lists finds in a file, as Python prints it.
    std::string readWithOracle(const std::string& path) {
        const std::string read = "import plistlib as p; d = p.load(open('" + path + "', 'rb'))";
        const std::string output = at("oracle");
        std::filesystem::remove(output);
        testing::shell("plistutil -i '" + path + "' && python3 -c \"" + read +
                       "; print(dict(sorted(d.items())), end='')\" >" + output);
        return textOf(output);
    }
};

}  // namespace corvalen
