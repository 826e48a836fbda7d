// SPDX-License-Identifier: MIT
#include "foundation/path.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kRightsFileName = "rights";

}  // namespace

std::unique_ptr<AuthorizationService> makeSystemAuthorizationService(
    std::string_view storeDirectory, std::vector<RightDefinition> defaults) {
    if (auto polkit = makePolkitAuthorizationService()) return polkit;
    return makeBuiltInAuthorizationService(appendPathComponent(storeDirectory, kRightsFileName),
                                           std::move(defaults));
}

}  // namespace corvalen
