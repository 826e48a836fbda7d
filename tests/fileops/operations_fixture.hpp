// SPDX-License-Identifier: MIT
// The groups of file-system operations and of walks over the real services, and the rows of their
// parametrised tests.
#pragma once

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "support/acl_bytes.hpp"
#include "support/operations_test.hpp"
#include "support/system_flags.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen::testing {

class FileOperationsTest : public OperationsTest {
  protected:
    FileOperationsTest() {
        operations.registerMethods(table);
        walks.registerMethods(table);
    }

    test::FlagsWithSystemBits flags;
    std::unique_ptr<FileManager> manager = makeFileManager(flags);
    FileOperations operations{*manager, flags, *acl};
    TreeWalkOperations walks{users, *acl};
};

/// A section "[name]" of a file of rows, with its lines "key: value".
struct Row {
    std::string name;
    std::multimap<std::string, std::string> fields;

    [[nodiscard]] std::vector<std::string> all(const std::string& key) const {
        std::vector<std::string> values;
        for (auto [at, end] = fields.equal_range(key); at != end; ++at)
            values.push_back(at->second);
        return values;
    }
    /// Empty when the row does not have it.
    [[nodiscard]] std::string one(const std::string& key) const {
        return fields.contains(key) ? fields.find(key)->second : "";
    }
};

inline void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

inline std::vector<Row> rowsOf(const std::string& name) {
    std::istringstream file(test::textOf(test::goldenPath(name)));
    std::vector<Row> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t colon = line.find(": ");
        if (line[0] == '[')
            rows.push_back({line.substr(1, line.size() - 2), {}});
        else
            rows.back().fields.emplace(line.substr(0, colon), line.substr(colon + 2));
    }
    return rows;
}

}  // namespace corvalen::testing
