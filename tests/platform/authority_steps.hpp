// SPDX-License-Identifier: MIT
// Transcripts of the decisions of an authority.
#pragma once

#include "platform/authorization/authorization.hpp"
#include "support/golden.hpp"

namespace corvalen::test {

using Fields = std::vector<std::string>;

/// Returns the line of a status in a transcript.
inline std::string lineOf(AuthorizationStatus status) {
    static const std::map<AuthorizationStatus, const char*> kNames = {
        {kAuthorizationSuccess, "granted"},
        {kAuthorizationDenied, "denied"},
        {kAuthorizationCanceled, "canceled"},
        {kAuthorizationInteractionNotAllowed, "nobody can be asked"},
        {kAuthorizationInternal, "failure"},
        {kAuthorizationInvalidSet, "invalid definition"},
        {kAuthorizationInvalidRef, "invalid reference"}};
    return std::string("= ") + kNames.at(status) + "\n";
}

/// Turns a function of fields, "field|field|...", into a step. Missing fields are empty.
inline Answer step(std::function<std::string(const Fields&)> work) {
    return [work = std::move(work)](const std::string& row) {
        Fields fields = fieldsOf(row);
        fields.resize(std::max<std::size_t>(fields.size(), 4));
        return work(fields);
    };
}

/// A test of an authority, which is `_service`.
class AuthorityTest : public ::testing::Test {
  protected:
    /// Returns the process that a transcript names.
    [[nodiscard]] virtual PeerIdentity peerOf(const std::string& name) const = 0;

    [[nodiscard]] std::unique_ptr<Authorization> reference(const PeerIdentity& peer,
                                                           char name = 'a') const {
        AuthorizationStatus status = kAuthorizationInternal;
        return _service->createFromExternalForm(
            std::string(kAuthorizationExternalFormMagic) + std::string(24, name), peer, &status);
    }
    /// Returns the reference of "" (this process), "nobody" (null), or another process.
    [[nodiscard]] std::unique_ptr<Authorization> administrator(const std::string& name) const {
        AuthorizationStatus status = kAuthorizationInternal;
        if (name == "nobody") return nullptr;
        return name.empty() ? _service->create(&status) : reference(peerOf(name));
    }
    /// "define RIGHT|POLICY|PROMPT|PROCESS", "remove RIGHT|PROCESS" and "get RIGHT".
    [[nodiscard]] std::map<std::string, Answer> definitionSteps() const {
        const auto define = [this](const Fields& row) {
            const Value policy = row[1].starts_with("rule=")
                                     ? Value(Dictionary{{"rule", row[1].substr(5)}})
                                     : Value(row[1]);
            return lineOf(
                _service->rightSet(administrator(row[3]).get(), row[0], policy, row[2], "table"));
        };
        const auto remove = [this](const Fields& row) {
            return lineOf(_service->rightRemove(administrator(row[1]).get(), row[0]));
        };
        const auto get = [this](const Fields& row) { return lineOf(_service->rightGet(row[0])); };
        return {{"define", step(define)}, {"remove", step(remove)}, {"get", step(get)}};
    }

    std::unique_ptr<AuthorizationService> _service;
};

}  // namespace corvalen::test
