// SPDX-License-Identifier: MIT
// What lies in a tree: made from a list, written down, compared.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace corvalen::test {

/// One object to make. `kind`: 'd' a directory, 'f' a file with `text`, 'l' a link to `text`; then
/// of an object that is there: 'x' gives it the extended attribute user.note, 'a' an access list
/// with a named user, 'i' locks it, 's' makes it 1:2 4755, 'o' gives it to 3:4, 'u' to 61001.
struct Made {
    char kind;
    std::string path;
    std::string text = {};
};

struct ObjectState {
    /// Type, owner, mode, attributes, contents, links, and "new" when its date is not the one that
    /// makeTree() gave it.
    std::string text;
    bool locked = false;
    bool operator==(const ObjectState& other) const = default;
};
/// By path, relative to the top.
using TreeState = std::map<std::string, ObjectState>;

/// Makes the objects below `top`, in order. What the file system refuses is left out.
void makeTree(const std::string& top, const std::vector<Made>& objects);
/// Removes everything below `top`, locked or not.
void clearTree(const std::string& top);
TreeState stateOf(const std::string& top);

}  // namespace corvalen::test
