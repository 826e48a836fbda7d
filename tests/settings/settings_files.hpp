// SPDX-License-Identifier: MIT
// The operations on settings files in a directory of the test, and an independent reader of them.
#pragma once

#include <filesystem>

#include "operations/names.hpp"
#include "settings/settings_operations.hpp"
#include "support/operations_test.hpp"

namespace corvalen {

/// The code of an error, 0 for none; negated for the daemon's own domain.
inline std::int64_t codeOf(const ErrorRef& error) {
    if (!error) return 0;
    return error->domain() == kErrorDomain ? -error->code() : error->code();
}

class SettingsTest : public testing::OperationsTest {
  protected:
    static std::ptrdiff_t entriesOf(const std::string& folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }
    /// "do OPERATION|ARGUMENT..." performs an operation and shows its error and, if it is one of
    /// the daemon's own, the suggestion. "read FILE" shows a property list.
    std::map<std::string, test::Answer> steps() {
        const auto perform = [this](const std::string& row) {
            const auto [operation, arguments] = test::callOf(row);
            std::string result = "= " + call(operation, arguments) + "\n";
            if (!answer || answer->domain() != kErrorDomain) return result;
            return result + "  " + *answer->localizedRecoverySuggestion() + "\n";
        };
        const auto read = [this](const std::string& name) {
            return readWithOracle(at(name)) + "\n";
        };
        return {{"do", perform}, {"read", read}};
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
