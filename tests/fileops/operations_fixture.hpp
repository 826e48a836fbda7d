// SPDX-License-Identifier: MIT
// The group of file-system operations over the real services, with system flags that no kernel
// running normally would clear.
#pragma once

#include <atomic>
#include <cerrno>
#include <set>
#include <vector>

#include "fileops/file_operations.hpp"
#include "fileops/scratch.hpp"
#include "operations/feedback.hpp"

namespace corvalen::testing {

/// The kernel's flags, with more of them on some inodes, and failures on demand.
class FlagsWithSystemBits : public FileFlags {
  public:
    int readFlags(const ObjectAddress& object, const struct statx& attributes,
                  std::uint32_t* flags) override {
        const int error = _kernel->readFlags(object, attributes, flags);
        if (error == 0 && systemLocked.count(attributes.stx_ino) != 0)
            *flags |= kSystemImmutableFlag;
        return error;
    }
    int setFlags(const ObjectAddress& object, std::uint32_t flags) override {
        ++changes;
        return failure != 0 ? failure : _kernel->setFlags(object, flags);
    }

    std::set<std::uint64_t> systemLocked;
    int failure = 0;
    std::atomic<int> changes{0};

  private:
    std::unique_ptr<FileFlags> _kernel = makeFileFlags();
};

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

    FlagsWithSystemBits flags;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    std::unique_ptr<FileManager> manager = makeFileManager(flags);
    FileOperations operations{*manager, flags, *acl};
    Feedback feedback;
};

}  // namespace corvalen::testing
