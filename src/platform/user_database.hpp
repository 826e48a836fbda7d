// SPDX-License-Identifier: MIT
// The accounts of the machine, as the name service switch lists them (getpwent(3)).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace corvalen {

class UserDatabase {
  public:
    virtual ~UserDatabase() = default;
    /// The user id of every account that is listed, in no order; fewer when the reading fails. Any
    /// thread may call.
    [[nodiscard]] virtual std::vector<std::uint32_t> listedUserIDs() = 0;
};

[[nodiscard]] std::unique_ptr<UserDatabase> makeUserDatabase();

}  // namespace corvalen
