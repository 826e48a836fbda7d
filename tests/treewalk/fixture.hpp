// SPDX-License-Identifier: MIT
// The group of tree walks over the real services, with a user database of the test's own.
#pragma once

#include <algorithm>
#include <set>
#include <vector>

#include "fileops/scratch.hpp"
#include "operations/feedback.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen::testing {

class Users : public UserDatabase {
  public:
    std::vector<std::uint32_t> listedUserIDs() override { return ids; }
    std::vector<std::uint32_t> ids{1, 1000};
};

/// What a client sees: the fractions, how many records came with each (-1: none were sent), the
/// paths found.
class Feedback : public FeedbackConnection {
  public:
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        fractions.push_back(feedback.find(kQRLPORK_ProgressFraction)->number()->doubleValue());
        const Value* records = feedback.find(kQRLPORK_FileObjectInfo);
        counts.push_back(records == nullptr ? -1 : static_cast<int>(records->array()->size()));
        if (records == nullptr) return;
        for (const Value& record : *records->array())
            found.insert(*record.dictionary()->find(kKeyObjectPath)->string());
    }
    std::vector<double> fractions;
    std::vector<int> counts;
    std::multiset<std::string> found;
};

using Names = std::multiset<std::string>;

class TreeWalkTest : public Scratch {
  protected:
    /// Calls an operation by its selector, as the daemon does.
    std::string call(const std::string& operation, const Array& arguments) {
        MethodTable table;
        operations.registerMethods(table);
        const std::string full = "performOperation" + operation + "WithArguments:";
        feedback = Feedback();
        answer = nullptr;
        const OperationMethod* method = table.find(full);
        answer = method != nullptr
                     ? std::get<PlainOperationMethod>(*method)(arguments)
                     : std::get<FeedbackOperationMethod>(*table.find(full + "feedbackConnection:"))(
                           arguments, &feedback);
        return summary(answer);
    }

    /// The finds, relative to the folder of the test.
    [[nodiscard]] Names found() const {
        Names names;
        for (const std::string& path : feedback.found)
            names.insert(path.starts_with(_top + "/") ? path.substr(_top.size() + 1) : path);
        return names;
    }

    /// Everything below a folder as the enumerator gives it, and read ahead in the same order;
    /// `messages` is what it logged, without the name of the program.
    Names walked(const std::string& base, bool stay = false) {
        ::testing::internal::CaptureStderr();
        std::vector<std::string> all;
        if (const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(base, stay))
            all = walk->allObjects();
        const std::string logged = ::testing::internal::GetCapturedStderr();
        messages.clear();
        std::istringstream lines(logged);
        for (std::string line; std::getline(lines, line);)
            messages += line.substr(line.find(": ") + 2) + "\n";
        SearchedFolder folder;
        if (openSearchedFolder(base, &folder)) return {};
        const std::size_t relative = folder.path.size() + 1;
        std::vector<std::string> ahead;
        ::testing::internal::CaptureStderr();
        for (WalkAhead walk(std::move(folder), stay, 0); const auto* object = walk.next();)
            ahead.emplace_back(object->path.substr(relative));
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), logged);
        EXPECT_EQ(ahead, all);
        return {all.begin(), all.end()};
    }

    /// Runs shell commands in the folder of the test.
    [[nodiscard]] bool inside(const std::string& commands) const {
        return shell("cd '" + _top + "' && umask 022 && " + commands);
    }
    /// The messages as a client got them, such as "0:20 1:0"; without a number for no records.
    [[nodiscard]] std::string sent() const {
        std::ostringstream text;
        for (std::size_t i = 0; i < feedback.counts.size(); ++i) {
            text << (i > 0 ? " " : "") << feedback.fractions[i];
            if (feedback.counts[i] >= 0) text << ":" << feedback.counts[i];
        }
        return text.str();
    }

    /// A chain of `levels` folders "d", each with a file "f" beside the next one.
    void chain(const std::string& base, int levels) {
        UniqueFd at(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < levels; ++level) {
            ASSERT_EQ(::mknodat(at.get(), "f", S_IFREG | 0644, 0), 0);
            ASSERT_EQ(::mkdirat(at.get(), "d", 0755), 0);
            at.reset(::openat(at.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
    }

    Users users;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    TreeWalkOperations operations{users, *acl};
    Feedback feedback;
    ErrorRef answer;
    std::string messages;
};

}  // namespace corvalen::testing
