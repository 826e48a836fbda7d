// SPDX-License-Identifier: MIT
#include "platform/authorization/user_database.hpp"

#include <pwd.h>

#include <mutex>

namespace corvalen {
namespace {

/// getpwent(3) has one position per process.
std::mutex iterationMutex;

class NameServiceUserDatabase : public UserDatabase {
  public:
    std::vector<std::uint32_t> listedUserIDs() override {
        const std::lock_guard lock(iterationMutex);
        std::vector<std::uint32_t> ids;
        while (const passwd* account = ::getpwent())
            ids.push_back(account->pw_uid);
        ::endpwent();
        return ids;
    }
};

}  // namespace

std::unique_ptr<UserDatabase> makeUserDatabase() {
    return std::make_unique<NameServiceUserDatabase>();
}

}  // namespace corvalen
