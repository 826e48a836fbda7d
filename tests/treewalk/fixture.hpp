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

    /// The finds, relative to the folder searched.
    [[nodiscard]] Names found(const std::string& base) const {
        Names names;
        for (const std::string& path : feedback.found)
            names.insert(path.starts_with(base + "/") ? path.substr(base.size() + 1) : path);
        return names;
    }

    /// Everything below a folder as the enumerator gives it; `messages` is what it logged.
    Names walked(const std::string& base, bool stay = false) {
        ::testing::internal::CaptureStderr();
        Names names;
        if (const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(base, stay)) {
            for (std::string& name : walk->allObjects())
                names.insert(std::move(name));
        }
        messages = ::testing::internal::GetCapturedStderr();
        return names;
    }

    /// Makes folders ("a/"), links ("a > target") and files ("a", or "a=text").
    void grow(const std::vector<std::string>& objects) {
        for (const std::string& object : objects) {
            const std::size_t arrow = object.find(" > ");
            const std::size_t text = std::min(object.find('='), object.size());
            if (arrow != std::string::npos) {
                link(object.substr(0, arrow), object.substr(arrow + 3));
            } else if (object.back() == '/') {
                folder(object);
            } else {
                file(object.substr(0, text), object.substr(std::min(text + 1, object.size())));
            }
        }
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

    /// How often the walk logged this.
    [[nodiscard]] std::size_t logged(const std::string& part) const {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = messages.find(part, at)) != std::string::npos; ++at)
            ++count;
        return count;
    }

    Users users;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    TreeWalkOperations operations{users, *acl};
    Feedback feedback;
    ErrorRef answer;
    std::string messages;
};

}  // namespace corvalen::testing
