// SPDX-License-Identifier: MIT
// The group of file-system operations over the real services.
#pragma once

#include <cerrno>
#include <vector>

#include "fileops/file_operations.hpp"
#include "operations/feedback.hpp"
#include "support/perform.hpp"
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
    std::string call(const std::string& selector, const Array& arguments) {
        feedback.fractions.clear();
        return summary(test::perform(operations, selector, arguments, &feedback));
    }

    test::FlagsWithSystemBits flags;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    std::unique_ptr<FileManager> manager = makeFileManager(flags);
    FileOperations operations{*manager, flags, *acl};
    Feedback feedback;
};

}  // namespace corvalen::testing
