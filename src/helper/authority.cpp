// SPDX-License-Identifier: MIT
#include "helper/authority.hpp"

#include <string>

#include "operations/names.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kRightsFileName = "/rights.plist";

}  // namespace

std::unique_ptr<AuthorizationService> makeAuthorizationService(
    const QRLPrivilegedOperationSet& operationSet) {
    std::vector<RightDefinition> definitions;
    operationSet.enumerateRightDefinitionsUsingBlock([&](const std::string& rightName,
                                                         const Value& definition,
                                                         const std::string& presentation) {
        definitions.push_back({rightName, definition, presentation});
    });
    return makeBuiltInAuthorizationService(std::string(kStoreDirectory).append(kRightsFileName),
                                           std::move(definitions));
}

}  // namespace corvalen
