// SPDX-License-Identifier: MIT
// The pipeline's log lines, steps and replies for each kind of request.
#include <future>
#include <regex>

#include "helper/log_line.hpp"
#include "helper_fixture.hpp"
#include "operations/names.hpp"
#include "support/eventually.hpp"
#include "support/golden.hpp"
#include "support/request_notation.hpp"

namespace corvalen::test {
namespace {

using namespace ::testing;

constexpr std::uint64_t kPlain = 0, kProgress = 1;
// clang-format off
constexpr StaticOperationDescription kTable[] = {
    {9998, "nop", 0, kPlain, 0, nullptr, "p"},
    {9997, "discard-auth", 0, kPlain, 0, nullptr, "p"},
    {1, "all-types", 1, kPlain, 3, "SND", "p"},
    {2, "any-strings", 1, kPlain, kVariableArgumentCount, nullptr, "p"},
    {3, "bad-type", 1, kPlain, 2, "SX", "p"},
    {4, "show-progress", 1, kProgress, kVariableArgumentCount, nullptr, "p"},
    {6, "not-there", 1, kPlain, 0, nullptr, "p"},
    {7, "no-memory", 1, kProgress, 0, nullptr, "p"},
    {8, "fail", 1, kPlain, 0, nullptr, "p"},
    {kEndOfTableCode, nullptr, 0, 0, 0, nullptr, nullptr}};
// clang-format on

struct TestGroup : OperationGroup {
    explicit TestGroup(Events& recorder) : events(recorder) {}
    void registerMethods(MethodTable& table) override {
        for (const char* selector :
             {"performOperationAllTypesWithArguments:", "performOperationAnyStringsWithArguments:",
              "performOperationBadTypeWithArguments:"})
            table.add(selector, PlainOperationMethod([this](const Array& arguments) {
                          events.add("performed with " + std::to_string(arguments.size()));
                          return ErrorRef();
                      }));
        table.add("performOperationShowProgressWithArguments:feedbackConnection:",
                  FeedbackOperationMethod([this](const Array&, auto* back) {
                      events.add(back ? "performed with feedback" : "performed without feedback");
                      return ErrorRef();
                  }));
        table.add("performOperationNoMemoryWithArguments:feedbackConnection:",
                  FeedbackOperationMethod(
                      [](const Array&, auto*) -> ErrorRef { throw std::bad_alloc(); }));
        table.add("performOperationFailWithArguments:", PlainOperationMethod([](const Array&) {
                      return makeError("own.domain", 17, Dictionary{{"k", 1}});
                  }));
    }
    Events& events;
};

std::vector<std::unique_ptr<OperationGroup>> testGroups(Events& events) {
    std::vector<std::unique_ptr<OperationGroup>> groups;
    groups.push_back(std::make_unique<TestGroup>(events));
    return groups;
}

class PipelineTest : public HelperTest {
  protected:
    PipelineTest() { makeHelper(operations); }

    ErrorRef perform(OperationCode code, const Array* arguments, const EndpointRef& endpoint = {},
                     std::size_t authorizationLength = 32) {
        const std::string data(authorizationLength, 'a');
        std::vector<ErrorRef> replies;
        helper->performPrivilegedOperation(
            {code, data, endpoint, arguments, peer},
            [&](ErrorRef result) { replies.push_back(std::move(result)); });
        EXPECT_THAT(replies, ElementsAre(NotNull()));
        return replies.at(0);
    }

    const Array none;
    QRLPrivilegedOperationSetKVX operations{kTable, testGroups(events)};
};

TEST_F(PipelineTest, EveryKindOfRequestTakesItsStepsInOrder) {
    // "name=status ... request": the events, and the fields of the last line.
    expectTranscript("pipeline.txt", [&](const std::string& line) {
        std::istringstream words(line);
        std::map<std::string, int> given{{"length", 32}};
        std::string name;
        for (; words.peek() > '9' && std::getline(words, name, '='); words >> std::ws)
            words >> given[name];
        std::getline(words, name);
        authorization.referenceStatus = given["reference"];
        authorization.rightStatus = given["right"];
        authorization.givesReference = given["without"] == 0;
        const auto [code, arguments] = requestOf(name);
        const ErrorRef reply =
            perform(code, &arguments, {}, static_cast<std::size_t>(given["length"]));
        std::string text;
        for (const std::string& event : events.take())
            text += event + "\n";
        for (const auto& [field, value] : log.lastFields)
            text.append(" ").append(field).append("=" + value);
        text += "\n= " + reply->domain() + " " + std::to_string(reply->code()) +
                (reply->userInfo() != nullptr ? " with details\n" : "\n");
        return std::regex_replace(text, std::regex("0x[0-9a-f]+| CORVALEN_REQUEST=[0-9-]+"), "");
    });
    authorization.rightStatus = 0;
    EXPECT_EQ(perform(9998, nullptr)->code(), 22) << "without arguments";
    EXPECT_THAT(log.lastFields, Contains(Pair("MESSAGE_ID", kRequestRejectedId)));
    helper->setLogLevel(3);
    events.take();
    perform(9998, &none);
    EXPECT_THAT(events.take(), Each(Not(StartsWith("7"))));
    helper->logErrorMessage("outside of a request");
    EXPECT_THAT(log.lastFields, ElementsAre(Pair("MESSAGE_ID", kOperationFailedId)));
}

/// A client that keeps all feedback messages.
struct Receiver : ExportedObject, ListenerDelegate {
    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& made) override {
        static constexpr InterfaceMethod kMethod{selector::kProcessFeedback, false};
        made->setExportedInterface(
            Interface{"QRLPrivilegedOperationFeedbackProtocol", std::span(&kMethod, 1)},
            std::shared_ptr<ExportedObject>(this, [](auto*) {}));
        made->setInvalidationHandler([this] { ended.set_value(); });
        made->resume();
        return true;
    }
    CallResult handleMessage(Connection&, std::string_view, Array params) override {
        messages.push_back(params.at(0));
        isFinal = messages.back().dictionary()->find(kQRLPORK_FinalFeedbackMessage) != nullptr;
        return {};
    }
    std::vector<Value> messages;
    std::atomic<bool> isFinal{false};
    std::promise<void> ended;
};

TEST_F(PipelineTest, FeedbackIsOpenedAndClosedAlsoAroundAFailure) {
    Receiver receiver;
    const auto listener = Listener::anonymousListener();
    listener->setDelegate(&receiver);
    listener->resume();
    log.onLine = [&](std::string_view line) {
        if (!line.starts_with("Suspending")) return;
        EXPECT_TRUE(eventually([&] { return receiver.isFinal.load(); }));
    };
    EXPECT_EQ(perform(7, &none, listener->endpoint())->code(), 12);
    ASSERT_EQ(receiver.ended.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(receiver.messages, (std::vector<Value>{Dictionary{{"ProgressFraction", 0.0}},
                                                     Dictionary{{"FinalFeedbackMessage", true}}}));
    EXPECT_THAT(events.take(), Contains(StartsWith("7 Suspending feedback connection 0x")));
}

}  // namespace
}  // namespace corvalen::test
