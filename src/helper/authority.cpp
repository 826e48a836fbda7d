// SPDX-License-Identifier: MIT
#include "helper/authority.hpp"

#include <string>

#include "operations/names.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kRightsFileName = "/rights.plist";

}  // namespace

std::unique_ptr<AuthorizationService> makeAuthorizationService() {
    return makeBuiltInAuthorizationService(std::string(kStoreDirectory).append(kRightsFileName));
}

}  // namespace corvalen
