// SPDX-License-Identifier: MIT
// The open directories of a walk.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"
#include "platform/files/entry.hpp"

namespace corvalen {

/// An open directory, or null. The last copy closes it.
using SharedDirectory = std::shared_ptr<UniqueFd>;

[[nodiscard]] inline Descriptor descriptorOf(const SharedDirectory& directory) noexcept {
    return directory ? Descriptor(*directory) : Descriptor();
}

/// The open directories from the top of a walk to its current one. Keeps at most `budget`
/// descriptors (at least two), the outermost and the innermost. Reopens the others from the
/// directory below them and compares their identity.
class DirectoryStack {
  public:
    static constexpr std::size_t kDefaultBudget = 64;

    explicit DirectoryStack(std::size_t budget = kDefaultBudget) noexcept;

    /// Returns null if the level is closed. `level` counts from 0, the top.
    [[nodiscard]] const SharedDirectory& at(std::size_t level) const noexcept {
        return _levels[level].directory;
    }
    /// Returns the innermost directory; the stack must not be empty.
    [[nodiscard]] Descriptor top() const noexcept { return descriptorOf(_levels.back().directory); }
    void push(SharedDirectory directory);
    void push(UniqueFd directory) { push(std::make_shared<UniqueFd>(std::move(directory))); }
    /// Opens the directory above the innermost one if it was closed; returns whether it was. ESTALE
    /// if the innermost directory was moved.
    [[nodiscard]] Result<bool> openAbove();
    void pop() noexcept { _levels.pop_back(); }

  private:
    struct Level {
        SharedDirectory directory;
        ObjectIdentity identity;  // set when the descriptor is closed
    };

    std::size_t _outer;
    std::size_t _inner;
    std::vector<Level> _levels;
};

}  // namespace corvalen
