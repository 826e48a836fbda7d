// SPDX-License-Identifier: MIT
// The tree walk of the searches, with limits of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/tree_walk.hpp"
#include "treewalk/descent_rules.hpp"

namespace corvalen {

/// A name of 256 bytes or more, separator included, opens a level that repeats another one. The
/// walk opens such levels only while they have returned fewer objects than all others plus this.
inline constexpr std::int64_t kFreeRepetitions = 1000;

/// Walks everything below a base directory in the order of the file system, each directory before
/// its contents, and enters directories by its DescentRules. It returns a directory beyond their
/// limits but does not enter it, and logs that to the console once. A directory that cannot be
/// listed, or was moved away meanwhile, counts as empty. Uses fixed memory and at most 66
/// descriptors.
///
/// For one thread. A cancelled walk ends before its next object. nextObject() returns relative
/// paths; next() returns the entry, path and attributes on demand.
class QRLDirectoryEnumerator : private TreeWalk {
  public:
    /// Null if `path` does not lead to a directory; logs that to the console unless it is empty.
    static std::unique_ptr<QRLDirectoryEnumerator> enumeratorAtPath(std::string_view path,
                                                                    bool stayOnFileSystem = false);
    /// Walks the open directory `base`; `path` only builds paths. A walk of an empty `base` is
    /// empty. Borrows the cancellation.
    QRLDirectoryEnumerator(UniqueFd base, std::string_view path, bool stayOnFileSystem,
                           Cancellation& cancellation = currentCancellation());

    /// Returns the relative path of the next object; std::nullopt at the end.
    std::optional<std::string> nextObject();
    /// Returns the relative paths of all remaining objects, in walk order.
    std::vector<std::string> allObjects();
    /// Closes the innermost level. Right after an entered directory this skips its contents; after
    /// any other object, the rest of the directory being read.
    void skipDescendents() { skip(); }
    /// Whether the walk stays on the base's device and mount. False if the base could not be
    /// examined.
    [[nodiscard]] bool shouldStayOnFileSystem() const noexcept {
        return _rules.staysOnFileSystem();
    }

    /// Returns the next object, or null at the end; valid until the next step. Builds no path, and
    /// calls statx(2) only if the entry lacks what the walk needs.
    const WalkEntry* next();
    /// Whether the walk was cancelled before its end.
    [[nodiscard]] bool wasCancelled() const noexcept { return failedWith(result(), ECANCELED); }

    // Of the object that next() returned. If the walk itself calls statx(2), it reads the fields of
    // the mask too, so that each object is examined once.
    using TreeWalk::attributes;
    using TreeWalk::depth;
    using TreeWalk::enteredDirectory;  // null too if the walk entered another one instead
    using TreeWalk::knownAttributes;
    using TreeWalk::parentDepth;
    using TreeWalk::parentDirectory;
    using TreeWalk::setAttributeMask;
    std::string_view currentRelativePathForDirectoryEntry() { return relativePath(); }
    std::string_view currentAbsolutePathForDirectoryEntry() { return path(); }
    /// Maximum length in bytes of a path of this walk.
    [[nodiscard]] std::size_t longestPath() const noexcept { return _longestPath; }

  private:
    [[nodiscard]] bool withinLimits();
    [[nodiscard]] bool mayRepeat() const noexcept;
    void countRepetitions() noexcept;
    void pushDirectoryEntry();
    void enterCutName();

    const std::size_t _longestPath;
    DescentRules _rules;
    bool _loggedPathLimit = false;
    bool _loggedDepthLimit = false;
    /// Depth of the first level that repeats another one; 0 if none does.
    std::size_t _repeatedFrom = 0;
    /// kFreeRepetitions, plus the objects of other levels, minus those of repetitions.
    std::int64_t _repetitionsLeft = kFreeRepetitions;
};

}  // namespace corvalen
