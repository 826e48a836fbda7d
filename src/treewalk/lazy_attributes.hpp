// SPDX-License-Identifier: MIT
// The attributes of the object at which a walk stands.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include "platform/directory_reader.hpp"

namespace corvalen {

/// What statx(2) tells of one object, asked for at the first question and at most once.
class LazyAttributes {
  public:
    /// The object is `name` inside `parent` itself, links not followed, or where that is open, the
    /// one at `opened`; -1 where it is not. Null with errno when it cannot be examined.
    const struct statx* read(int parent, const char* name, int opened, unsigned mask) noexcept {
        if (_state == State::unknown) {
            mask |= STATX_TYPE;
            const bool known = opened >= 0 ? examineOpen(opened, mask, &_attributes)
                                           : examineAt(parent, name, mask, &_attributes);
            _state = known ? State::known : State::failed;
            _errno = known ? 0 : errno;
        }
        if (_state == State::known) return &_attributes;
        errno = _errno;
        return nullptr;
    }
    /// What was read before; null when nothing was.
    [[nodiscard]] const struct statx* known() const noexcept {
        return _state == State::known ? &_attributes : nullptr;
    }
    /// Whether the object was examined, also in vain.
    [[nodiscard]] bool wereRead() const noexcept { return _state != State::unknown; }
    void set(const struct statx& attributes) noexcept {
        _attributes = attributes;
        _state = State::known;
    }
    void forget() noexcept { _state = State::unknown; }

  private:
    enum class State : std::uint8_t { unknown, known, failed } _state = State::unknown;
    int _errno = 0;
    struct statx _attributes {};
};

}  // namespace corvalen
