// SPDX-License-Identifier: MIT
// Operations in a directory of the test, one by one or by the lines of a transcript.
#pragma once

#include <set>

#include "operations/errors.hpp"
#include "operations/names.hpp"
#include "platform/authorization/identity.hpp"
#include "platform/files/extended_acl.hpp"
#include "support/golden.hpp"
#include "support/perform.hpp"
#include "support/request_notation.hpp"
#include "support/scratch.hpp"
#include "support/tree_state.hpp"

namespace corvalen::testing {

struct Users : UserDatabase {
    std::vector<std::uint32_t> listedUserIDs() override { return ids; }
    std::vector<std::uint32_t> ids{1, 1000};
};

using Names = std::multiset<std::string>;

/// A transcript only counts more objects.
inline constexpr std::size_t kMostListed = 10;

/// What a client receives: the messages, such as "0:20 1:0" (fraction and number of records), and
/// the found paths, relative to `top` if they are below it.
class Feedback : public FeedbackConnection {
  public:
    explicit Feedback(const std::string& top = {}) : _top(top + "/") {}
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        std::ostringstream text;
        text << feedback.find(kQRLPORK_ProgressFraction)->number()->doubleValue();
        const Value* records = feedback.find(kQRLPORK_FileObjectInfo);
        EXPECT_EQ(feedback.size(), records != nullptr ? 2U : 1U);
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

/// A test registers its groups of operations.
class OperationsTest : public Scratch {
  protected:
    virtual std::string call(const std::string& operation, const Array& arguments) {
        feedback = Feedback(_top);
        answer = test::perform(table, operation, arguments, &feedback);
        return summary(answer);
    }

    /// Plays a transcript. "$ tree OBJECTS" (see makeTree()) says what lies in the directory of the
    /// test, "$ Operation|argument|..." performs an operation in a new one, "$ then Operation|..."
    /// in what the last one left. "@" stands for the directory. After each come the error with the
    /// numbers of an answer, the feedback, the found objects, and what has changed.
    void expectOperations(const std::string& name) {
        std::string objects;
        test::expectTranscript(name, [&](const std::string& line) -> std::string {
            const std::size_t first = line.find(' ') + 1;
            if (line.starts_with("tree ")) objects = line.substr(first);
            if (line.starts_with("tree ")) return "";
            const bool goesOn = line.starts_with("then ");
            if (!goesOn) test::clearTree(_top);
            if (!goesOn) test::makeTree(_top, objects);
            const test::TreeState before = test::stateOf(_top);
            const auto [operation, arguments] =
                test::callOf(test::replaced(goesOn ? line.substr(first) : line, "@", _top + "/"));
            std::string text = "= " + call(operation, arguments);
            if (answer && answer->code() == 0)
                for (const auto& [key, value] : *answer->userInfo())
                    text += " " + key + "=" + value.number()->stringValue();
            if (!feedback.sent.empty()) text += "; " + feedback.sent;
            const bool isLong = feedback.found.size() > kMostListed;
            if (isLong) text += "\nfound " + std::to_string(feedback.found.size()) + " objects";
            for (const std::string& found : isLong ? Names() : feedback.found)
                text += "\nfound " + found;
            return test::replaced(text + "\n" + test::changes(before, test::stateOf(_top)),
                                  _top + "/", "@");
        });
        test::clearTree(_top);
    }

    Users users;
    std::unique_ptr<ExtendedAcl> acl = makeExtendedAcl();
    MethodTable table;
    Feedback feedback;
    ErrorRef answer;
};

}  // namespace corvalen::testing
