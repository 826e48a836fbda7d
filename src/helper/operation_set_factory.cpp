// SPDX-License-Identifier: MIT
#include "helper/operation_set_factory.hpp"

#include <array>

#include "exec/utility_operations.hpp"
#include "fileops/file_operations.hpp"
#include "helper/helper_log.hpp"
#include "helper/start_up.hpp"
#include "settings/settings_operations.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Services that the groups borrow. Never destroyed, like the operation set.
struct FileServices {
    std::unique_ptr<FileFlags> flags = makeFileFlags();
    std::unique_ptr<FileManager> manager = makeFileManager(*flags);
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    std::unique_ptr<UserDatabase> users = makeUserDatabase();
};

/// Operations write to the log of their request.
void logErrorMessage(std::string_view message) {
    if (HelperLog* log = logOfRequest()) log->logErrorMessage(message);
}

std::vector<std::unique_ptr<OperationGroup>> makeOperationGroups() {
    static const auto& files = *new FileServices;
    std::vector<std::unique_ptr<OperationGroup>> groups;
    groups.push_back(std::make_unique<FileOperations>(*files.manager, *files.flags, *files.acl));
    groups.push_back(std::make_unique<TreeWalkOperations>(*files.users, *files.acl));
    groups.push_back(std::make_unique<SettingsOperations>(hostSettingsServices(), logErrorMessage));
    groups.push_back(
        std::make_unique<UtilityOperations>(descriptorLimitAtStart(), logErrorMessage));
    return groups;
}

struct RegisteredClass {
    std::string_view name;
    std::unique_ptr<QRLPrivilegedOperationSet> (*make)();
};

constexpr std::array kClasses = {
    RegisteredClass{"QRLPrivilegedOperationSetKVX",
                    []() -> std::unique_ptr<QRLPrivilegedOperationSet> {
                        return std::make_unique<QRLPrivilegedOperationSetKVX>(
                            makeOperationGroups());
                    }},
};

}  // namespace

QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(std::string_view className) {
    for (const RegisteredClass& registered : kClasses) {
        if (registered.name == className) return registered.make;
    }
    return {};
}

}  // namespace corvalen
