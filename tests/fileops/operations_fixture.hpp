// SPDX-License-Identifier: MIT
// The groups of file-system operations and of walks over the real services.
#pragma once

#include <cerrno>
#include <set>
#include <vector>

#include "fileops/file_operations.hpp"
#include "foundation/path.hpp"
#include "operations/feedback.hpp"
#include "support/perform.hpp"
#include "support/scratch.hpp"
#include "support/system_flags.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen::testing {

class Feedback : public FeedbackConnection {
  public:
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        EXPECT_EQ(feedback.size(), 1U);
        fractions.push_back(feedback.find(kQRLPORK_ProgressFraction)->number()->doubleValue());
    }
    std::vector<double> fractions;
};

/// The names that a search finds.
struct Finds : FeedbackConnection {
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        const Value* records = feedback.find(kQRLPORK_FileObjectInfo);
        for (const Value& record : records != nullptr ? *records->array() : Array())
            names.emplace(lastPathComponent(*record.dictionary()->find(kKeyObjectPath)->string()));
    }
    std::set<std::string> names;
};

struct Users : UserDatabase {
    std::vector<std::uint32_t> listedUserIDs() override { return {0}; }
};

class OperationsTest : public Scratch {
  protected:
    std::string call(const std::string& selector, const Array& arguments) {
        feedback.fractions.clear();
        return summary(test::perform(operations, selector, arguments, &feedback));
    }
    std::string walk(const std::string& selector, const Array& arguments,
                     FeedbackConnection* connection = nullptr) {
        answer = test::perform(walks, selector, arguments, connection);
        return summary(answer);
    }

    test::FlagsWithSystemBits flags;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    std::unique_ptr<FileManager> manager = makeFileManager(flags);
    FileOperations operations{*manager, flags, *acl};
    Users users;
    TreeWalkOperations walks{users, *acl};
    Feedback feedback;
    ErrorRef answer;
};

}  // namespace corvalen::testing
