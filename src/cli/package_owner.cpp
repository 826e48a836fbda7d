// SPDX-License-Identifier: MIT
#include "cli/package_owner.hpp"

#include <sys/stat.h>

#include <corvalen/catalogue.hpp>
#include <cstdio>

#include "operations/privileged_operation_set_kvx.hpp"
#include "platform/authorization.hpp"

namespace corvalen::cli {

std::string packageOf(const std::string& path) {
    for (const std::string_view question :
         {"dpkg-query --search", "rpm --query --queryformat '%{NAME}:' --file"}) {
        const std::string command = std::string(question) + " '" + path + "' 2>/dev/null";
        std::FILE* const answer = ::popen(command.c_str(), "re");
        if (answer == nullptr) continue;
        char line[256] = "";
        const bool answered = std::fgets(line, sizeof line, answer) != nullptr;
        if (::pclose(answer) != 0 || !answered) continue;
        const std::string package = line;
        return package.substr(0, package.find(':'));
    }
    return {};
}

std::optional<Failure> refusalToRemoveRights(std::string_view command) {
    const QRLPrivilegedOperationSetKVX set;
    for (const OperationInfo& operation : operationCatalogue()) {
        const auto right =
            set.authorizationRightNameForOperationWithIdentifier(operation.identifier);
        if (!right) continue;
        const std::string file =
            std::string(kPolkitActionsDirectory).append("/").append(*right).append(".policy");
        struct stat status {};
        if (::lstat(file.c_str(), &status) != 0) continue;
        const std::string package = packageOf(file);
        if (package.empty()) return std::nullopt;
        return Failure{std::string(command),
                       {},
                       "the rights belong to the package '" + package + "'",
                       "They go with it, as in 'apt remove " + package +
                           "'. A rule in /etc/polkit-1/rules.d denies an operation."};
    }
    return std::nullopt;
}

}  // namespace corvalen::cli
