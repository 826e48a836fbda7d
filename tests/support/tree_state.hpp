// SPDX-License-Identifier: MIT
// What lies in a tree: made from a text, written down, compared.
#pragma once

#include <map>
#include <string>

namespace corvalen::test {

struct ObjectState {
    /// In the notation of makeTree(), without the flags. Has "new" if the date differs from the one
    /// that makeTree() gave, and "links=" if the object has several names.
    std::string text;
    /// Such as " locked append".
    std::string flags;
    bool operator==(const ObjectState& other) const = default;
};
/// By path, relative to the top.
using TreeState = std::map<std::string, ObjectState>;

/// Makes objects below `top`, in order, as "PATH WORD ...; PATH WORD ..." names them. The first
/// word of a new object is "d755" for a directory, "f644" for a file, "p600" for a FIFO, "c644" for
/// a device, "w644" for a whiteout (the digits are the mode), or ">target" for a link. Others are
/// "1:2" for its owner, "=text" for its contents, "acl=u::rw-,..." and "default=..." for its
/// lists, "user.note=n" for an attribute, and the flags "locked" and "append". %XX stands for a
/// byte, and {1-20} in a path for each of the numbers. What the file system refuses is left out.
/// All get an old date.
void makeTree(const std::string& top, const std::string& objects);
/// Removes everything below `top` but mount points, locked or not.
void clearTree(const std::string& top);
TreeState stateOf(const std::string& top);
/// A line for each object that is new ("+"), gone ("-") or changed ("~").
std::string changes(const TreeState& before, const TreeState& after);

}  // namespace corvalen::test
