// SPDX-License-Identifier: MIT
// The group of file-system operations over the real services.
#pragma once

#include <cerrno>
#include <vector>

#include "fileops/file_operations.hpp"
#include "operations/feedback.hpp"
#include "support/scratch.hpp"
#include "support/system_flags.hpp"

namespace corvalen::testing {

class Feedback : public FeedbackConnection {
  public:
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        EXPECT_EQ(feedback.size(), 1U);
        fractions.push_back(feedback.find(kQRLPORK_ProgressFraction)->number()->doubleValue());
    }
    std::vector<double> fractions;
};

class OperationsTest : public Scratch {
  protected:
    /// Calls an operation by its selector, as the daemon does.
    std::string call(const std::string& selector, const Array& arguments) {
        MethodTable table;
        operations.registerMethods(table);
        const std::string full = "performOperation" + selector + "WithArguments:";
        feedback.fractions.clear();
        if (const OperationMethod* method = table.find(full))
            return summary(std::get<PlainOperationMethod>(*method)(arguments));
        const OperationMethod* method = table.find(full + "feedbackConnection:");
        if (method == nullptr) return "no such method";
        return summary(std::get<FeedbackOperationMethod>(*method)(arguments, &feedback));
    }

    test::FlagsWithSystemBits flags;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    std::unique_ptr<FileManager> manager = makeFileManager(flags);
    FileOperations operations{*manager, flags, *acl};
    Feedback feedback;
};

}  // namespace corvalen::testing
