// SPDX-License-Identifier: MIT
// The tree walk operations with the real services and a user database of the test.
#pragma once

#include <algorithm>
#include <set>
#include <vector>

#include "foundation/path.hpp"
#include "operations/feedback.hpp"
#include "support/perform.hpp"
#include "support/scratch.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/object_count.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen::testing {

class Users : public UserDatabase {
  public:
    std::vector<std::uint32_t> listedUserIDs() override { return ids; }
    std::vector<std::uint32_t> ids{1, 1000};
};

using Names = std::multiset<std::string>;

/// What a client receives: the messages, such as "0:20 1:0" (fraction and number of records), and
/// the found paths, relative to `top` if they are below it.
class Feedback : public FeedbackConnection {
  public:
    explicit Feedback(const std::string& top = {}) : _top(top + "/") {}
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        std::ostringstream text;
        text << feedback.find(kQRLPORK_ProgressFraction)->number()->doubleValue();
        const Value* records = feedback.find(kQRLPORK_FileObjectInfo);
        if (records != nullptr) text << ":" << records->array()->size();
        sent.append(sent.empty() ? "" : " ").append(text.str());
        for (const Value& record : records != nullptr ? *records->array() : Array()) {
            const std::string& path = *record.dictionary()->find(kKeyObjectPath)->string();
            found.insert(path.starts_with(_top) ? path.substr(_top.size()) : path);
        }
    }
    std::string sent;
    Names found;

  private:
    std::string _top;
};

class TreeWalkTest : public Scratch {
  protected:
    std::string call(const std::string& operation, const Array& arguments) {
        feedback = Feedback(_top);
        answer = test::perform(operations, operation, arguments, &feedback);
        return summary(answer);
    }

    /// Returns everything below a directory, and checks that reading ahead, which leaves out names
    /// of 182 bytes, gives the same order, and that the count is the same. `messages` receives the
    /// log.
    Names walked(const std::string& base, bool stay = false) {
        ::testing::internal::CaptureStderr();
        std::vector<std::string> all;
        if (const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(base, stay))
            all = walk->allObjects();
        messages = ::testing::internal::GetCapturedStderr();
        Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(base);
        const Result<SearchedFolder, ErrorRef> again = openSearchedFolder(base);
        if (!folder || !again) return {};
        const std::size_t relative = folder->path.size() + 1;
        const auto isWanted = [](std::string_view name) { return name.size() != 182; };
        std::vector<std::string> ahead;
        ::testing::internal::CaptureStderr();
        WalkAhead walk(*std::move(folder), stay, 0, isWanted);
        while (const WalkAhead::Object* object = walk.next()) {
            ahead.emplace_back(object->path.substr(relative));
            EXPECT_EQ(ahead.back(), all.at(object->index));
        }
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), messages);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(countObjects(*again, stay, STATX_SIZE, isWanted), all.size());
        (void)::testing::internal::GetCapturedStderr();
        const auto wanted = std::count_if(all.begin(), all.end(), [&](const std::string& path) {
            return isWanted(lastPathComponent(path));
        });
        EXPECT_EQ(static_cast<std::ptrdiff_t>(ahead.size()), wanted);
        return {all.begin(), all.end()};
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
