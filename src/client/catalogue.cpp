// SPDX-License-Identifier: MIT
#include <corvalen/catalogue.hpp>
#include <vector>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {
namespace {

OperationFeedback feedbackOfFlags(std::uint64_t capabilityFlags) {
    if ((capabilityFlags & 0xFFU) != 0) return OperationFeedback::progress;
    return (capabilityFlags & 0xFF00U) != 0 ? OperationFeedback::liveOutput
                                            : OperationFeedback::none;
}

OperationInfo infoOfRow(const StaticOperationDescription& row) {
    OperationInfo info{};
    info.code = row.code;
    info.identifier = row.identifier;
    if (row.argumentCount != kVariableArgumentCount)
        info.argumentCount = static_cast<std::size_t>(row.argumentCount);
    if (row.argumentTypeCodes != nullptr) info.argumentTypes = row.argumentTypeCodes;
    info.policy = static_cast<OperationPolicy>(row.authenticationPolicy);
    info.feedback = feedbackOfFlags(row.capabilityFlags);
    info.prompt = row.userPresentation;
    return info;
}

std::vector<OperationInfo> infosOfTable() {
    std::vector<OperationInfo> infos;
    for (const StaticOperationDescription& row : operationTable())
        infos.push_back(infoOfRow(row));
    return infos;
}

}  // namespace

std::span<const OperationInfo> operationCatalogue() {
    static const std::vector<OperationInfo> infos = infosOfTable();
    return infos;
}

const OperationInfo* findOperation(OperationCode code) {
    for (const OperationInfo& info : operationCatalogue())
        if (info.code == code) return &info;
    return nullptr;
}

const OperationInfo* findOperation(std::string_view identifier) {
    for (const OperationInfo& info : operationCatalogue())
        if (info.identifier == identifier) return &info;
    return nullptr;
}

}  // namespace corvalen
