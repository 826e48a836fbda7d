// SPDX-License-Identifier: MIT
#include "operations/operation_descriptions.hpp"

#include <vector>

#include "operations/operation_description_parts.hpp"
#include "operations/privileged_operation_set_kvx.hpp"

namespace corvalen {
namespace {

using namespace description;

constexpr ArgumentDescription kDeletedFiles[] = {
    {'S', "path", "a file of the helper, or a folder after what was in it", true}};
constexpr ErrorDescription kDeleteFilesErrors[] = {
    kEmptyPath,
    kNothingThere,
    kCallFailed,
    {ErrorOrigin::posix, 5,
     "it is a whiteout, a system protection flag is set, or the flags cannot be cleared"}};

constexpr OperationDescription kMaintenance[] = {
    {kNopCode,
     "Performs an empty operation",
     "Shows that the helper answers and that the right is held.",
     {},
     {},
     "",
     {},
     ""},
    {kDiscardAuthCode,
     "Forgets what was authorized",
     "Whatever was granted to this authorization is forgotten; the next operation asks again.",
     {},
     {},
     "",
     {},
     ""},
    {kDeleteFilesCode,
     "Deletes files of the helper",
     "Links are not followed, folders must be empty, user protection flags are cleared. After a "
     "failure the next path is tried; the error is that of the last path that failed.",
     kDeletedFiles,
     {},
     "",
     kDeleteFilesErrors,
     "S:/srv/old"},
    {kPrepareUninstallCode,
     "Lets the helper remove its rights",
     "The definitions of all rights are removed from the machine's authority, except those that "
     "were installed with the helper. A right that cannot be removed is no failure.",
     {},
     {},
     "",
     {},
     ""},
};

std::vector<OperationDescription> inOrderOfTable() {
    std::vector<OperationDescription> ordered;
    for (const StaticOperationDescription& row : operationTable())
        for (const auto& part : {descriptionsOfMaintenance(), descriptionsOfFileOperations(),
                                 descriptionsOfTreeOperations(), descriptionsOfSettings()})
            for (const OperationDescription& description : part)
                if (description.code == row.code) ordered.push_back(description);
    return ordered;
}

}  // namespace

std::span<const OperationDescription> descriptionsOfMaintenance() noexcept {
    return kMaintenance;
}

std::span<const OperationDescription> operationDescriptions() {
    static const std::vector<OperationDescription> descriptions = inOrderOfTable();
    return descriptions;
}

const OperationDescription* descriptionOfOperation(OperationCode code) {
    for (const OperationDescription& description : operationDescriptions())
        if (description.code == code) return &description;
    return nullptr;
}

}  // namespace corvalen
