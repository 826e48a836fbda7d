// SPDX-License-Identifier: MIT
#include "cli/helper_commands.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <corvalen/catalogue.hpp>

#include "cli/pager.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "operations/names.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen::cli {
namespace {

struct HelperStatus {
    std::string socketPath;
    std::string authority;
    std::string version;
    ErrorRef error;
};

std::string statusText(const HelperStatus& status, bool asJson) {
    const bool reachable = !status.version.empty();
    if (asJson) {
        std::string out = "{";
        appendJsonText(out, "socket", status.socketPath);
        out += ",\"authority\":" + jsonString(status.authority);
        out += fmt::format(",\"reachable\":{},\"usable\":{}", reachable, status.error == nullptr);
        if (reachable) out += ",\"version\":" + jsonString(status.version);
        if (status.error) out += ",\"error\":" + jsonValue(Value(status.error));
        return out + "}\n";
    }
    std::string usable = "yes";
    if (status.error) {
        const Failure failure = failureOf("nop", {}, status.error);
        usable = "no: " + indentedLines(failure.message, 12);
        if (!failure.advice.empty()) usable += "\n            " + failure.advice;
    }
    return fmt::format(
        "socket      {}\nreachable   {}\nversion     {}\nauthority   {}\nauthorized  {}\n",
        escapedForTerminal(status.socketPath), reachable ? "yes" : "no",
        reachable ? escapedForTerminal(status.version) : "-", escapedForTerminal(status.authority),
        usable);
}

struct OutlookText {
    std::string_view text;
    std::string_view json;
};

OutlookText textOf(RightOutlook outlook) {
    switch (outlook) {
        case RightOutlook::granted:
            return {"may", "may"};
        case RightOutlook::needsAuthentication:
            return {"must authenticate", "must-authenticate"};
        case RightOutlook::denied:
            return {"may not", "may-not"};
        case RightOutlook::unknown:
            break;
    }
    return {"unknown", "unknown"};
}

std::string rightsText(AuthorizationService& authority, bool asJson) {
    std::string text = asJson ? "" : fmt::format("\n{:21}  {}\n", "OPERATION", "YOU");
    bool isComplete = true;
    for (const OperationInfo& operation : operationCatalogue()) {
        const RightOutlook outlook = outlookOfOperation(authority, operation.identifier);
        isComplete = isComplete && outlook != RightOutlook::unknown;
        const OutlookText shown = textOf(outlook);
        text += asJson ? fmt::format("{{\"operation\":{},\"you\":{}}}\n",
                                     jsonString(operation.identifier), jsonString(shown.json))
                       : fmt::format("{:21}  {}\n", operation.identifier, shown.text);
    }
    if (!asJson && !isComplete)
        text += "\nOnly root can read the definitions of this machine's authority.\n";
    return text;
}

}  // namespace

std::unique_ptr<AuthorizationService> authorityOfThisMachine() {
    return makeSystemAuthorizationService(kStoreDirectory,
                                          QRLPrivilegedOperationSetKVX().rightDefinitions());
}

RightOutlook outlookOfOperation(AuthorizationService& authority, std::string_view operation) {
    const auto right =
        QRLPrivilegedOperationSetKVX().authorizationRightNameForOperationWithIdentifier(operation);
    return right ? authority.outlook(*right) : RightOutlook::denied;
}

int runStatus(const Arguments& arguments) {
    return withSession(arguments, [&](Client& client) {
        const auto authority = authorityOfThisMachine();
        HelperStatus status{socketPathOf(arguments), authority->description(), {}, nullptr};
        status.version = client.version(&status.error);
        if (!status.error) status.error = client.perform("nop", {}).error;
        const bool asJson = arguments.has("json");
        std::string text = statusText(status, asJson);
        if (arguments.has("rights")) text += rightsText(*authority, asJson);
        const int written = writePaged(text, arguments);
        return written != kExitSuccess ? written : static_cast<int>(exitCodeOf(status.error));
    });
}

}  // namespace corvalen::cli
