// SPDX-License-Identifier: MIT
// A directory for settings files, and an independent reader of them.
#pragma once

#include <filesystem>

#include "operations/names.hpp"
#include "settings/settings_operations.hpp"
#include "support/scratch.hpp"

namespace corvalen {

/// The code of an error, 0 for none; negated for the daemon's own domain.
inline std::int64_t codeOf(const ErrorRef& error) {
    if (!error) return 0;
    return error->domain() == kErrorDomain ? -error->code() : error->code();
}

class SettingsTest : public testing::Scratch {
  protected:
    static std::ptrdiff_t entriesOf(const std::string& folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }
    /// Reads a property list with Python and returns what Python prints.
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
