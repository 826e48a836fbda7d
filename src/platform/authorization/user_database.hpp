// SPDX-License-Identifier: MIT
// Accounts of the machine, as the name service switch lists them (getpwent(3)).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace corvalen {

class UserDatabase {
  public:
    virtual ~UserDatabase() = default;
    /// Returns the user id of every listed account, in no order; only a part if reading fails. Any
    /// thread may call.
    [[nodiscard]] virtual std::vector<std::uint32_t> listedUserIDs() = 0;
};

[[nodiscard]] std::unique_ptr<UserDatabase> makeUserDatabase();

}  // namespace corvalen
