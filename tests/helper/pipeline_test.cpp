// SPDX-License-Identifier: MIT
// The pipeline's log lines, steps and replies for each kind of request.
#include <future>

#include "helper/log_line.hpp"
#include "helper_fixture.hpp"
#include "operations/names.hpp"
#include "support/eventually.hpp"

namespace corvalen::test {
namespace {

using namespace ::testing;

constexpr std::uint64_t kPlain = 0, kProgress = 1, kOutput = 256;
// clang-format off
constexpr StaticOperationDescription kTable[] = {
    {9998, "nop", 0, kPlain, 0, nullptr, "p"},
    {9997, "discard-auth", 0, kPlain, 0, nullptr, "p"},
    {1, "all-types", 1, kPlain, 3, "SND", "p"},
    {2, "any-strings", 1, kPlain, kVariableArgumentCount, nullptr, "p"},
    {3, "bad-type", 1, kPlain, 2, "SX", "p"},
    {4, "show-progress", 1, kProgress, kVariableArgumentCount, nullptr, "p"},
    {5, "show-output", 1, kOutput, 0, nullptr, "p"},
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
        for (const char* selector :
             {"performOperationShowProgressWithArguments:feedbackConnection:",
              "performOperationShowOutputWithArguments:feedbackConnection:"})
            table.add(
                selector, FeedbackOperationMethod([this](const Array&, auto* back) {
                    events.add(back ? "performed with feedback" : "performed without feedback");
                    sendProgress(back, 0.5);
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

// Each row: the operation, the reply, and the events between authorization and completion. Rejected
// requests have no completion. "@" is the operation.
TEST_F(PipelineTest, EveryKindOfRequestTakesItsStepsInOrder) {
    const Data data;
    const std::string run = "7 Operation @ will be executed with feedback option disabled.";
    const std::string rejected = "3 Operation @ was rejected because ";
    const std::string count = rejected + "an invalid number of arguments was specified ";
    const std::string n = " (expected type 'N').", d = " (expected type 'D').";
    const std::string string = " (string expected).";
    const std::string contradiction = rejected + "a contradiction in its definition has been ";
    const std::string missing =
        "3 Privileged operation @ could not be performed because no implementation found.";
    const std::tuple<OperationCode, Array, std::int64_t, std::vector<std::string>> cases[] = {
        {9998, {}, 0, {}},
        {9998, {1}, 22, {count + "(0 expected, 1 sent)."}},
        {1, {"s", true, data}, 0, {run, "performed with 3"}},
        {1, {"s", "1", data}, 22, {rejected + "argument 1 has class NSString" + n}},
        {1, {"s", 1, {}}, 22, {rejected + "argument 2 has class NSNull" + d}},
        {2, {}, 0, {run, "performed with 0"}},
        {2, {"s", 1}, 22, {rejected + "at least one argument has class NSNumber" + string}},
        {3, {"s", "s"}, 22, {contradiction + "detected (invalid type code 'X')."}},
        {4, {}, 0, {run, "performed without feedback"}},
        {6, {}, 22, {missing}},
        {7, {}, 12, {run, "3 Operation @ was given up (out of memory)."}},
        {8, {}, 17, {run}},
    };
    for (const auto& [code, arguments, replyCode, happened] : cases) {
        const std::string& name = operations.operationWithCode(code)->identifier;
        SCOPED_TRACE(name);
        std::vector<std::string> expected = happened;
        expected.insert(expected.begin(), {"7 About to perform privileged operation '@' with " +
                                               std::to_string(arguments.size()) + " arguments.",
                                           "right net.corvalen.kvx.@", "free"});
        if (expected.back().find("was rejected") == std::string::npos)
            expected.push_back("7 Operation @ was completed with return code " +
                               std::to_string(replyCode) + ".");
        const std::string domain(code == 8 ? "own.domain" : kPosixErrorDomain);
        if (code < 9000)
            expected.push_back("5 Audit: user 1000, process 4711, executable unknown, operation @" +
                               std::string(code < 3 && !arguments.empty() ? ", object s" : "") +
                               ", outcome " + (replyCode == 0 ? "" : domain + " ") +
                               std::to_string(replyCode) + ".");
        for (std::string& line : expected)
            if (const auto at = line.find('@'); at != std::string::npos) line.replace(at, 1, name);
        const ErrorRef reply = perform(code, &arguments);
        EXPECT_EQ(reply->code(), replyCode);
        EXPECT_EQ(reply->domain(), domain);
        EXPECT_EQ(reply->userInfo() != nullptr, code == 8);
        EXPECT_THAT(events.take(), ElementsAreArray(expected));
    }
}

TEST_F(PipelineTest, ARefusalEndsTheRequestWithTheErrorOfItsStatus) {
    using Status = AuthorizationStatus;
    const std::tuple<Status, Status, std::size_t, std::string_view, std::int64_t> cases[] = {
        {0, 0, 0, kPosixErrorDomain, 22},
        {0, 0, 31, kPosixErrorDomain, 22},
        {0, 0, 33, kPosixErrorDomain, 22},
        {-60002, 0, 32, kOSStatusErrorDomain, -60002},
        {0, -60005, 32, kPosixErrorDomain, 1},
        {0, -60006, 32, kPosixErrorDomain, 89},
        {0, -60007, 32, kOSStatusErrorDomain, -60007},
    };
    const Array wrong = {"one too many"};
    for (const auto& [reference, right, length, domain, code] : cases) {
        authorization.referenceStatus = reference;
        authorization.rightStatus = right;
        const ErrorRef reply = perform(9997, &wrong, {}, length);
        EXPECT_EQ(reply->domain(), domain);
        EXPECT_EQ(reply->code(), code);
        std::vector<std::string> expected = {
            "7 About to perform privileged operation 'discard-auth' with 1 arguments."};
        if (right != 0)
            expected.insert(expected.end(),
                            {"right net.corvalen.kvx.discard-auth", "destroy", "free"});
        expected.push_back("7 Operation could not be authorized, rejected with error code " +
                           std::to_string(code) + ".");
        EXPECT_THAT(events.take(), ElementsAreArray(expected));
    }
    // A failing authority, or one without a reference, admits nobody.
    authorization.rightStatus = 0;
    authorization.referenceStatus = 0;
    authorization.givesReference = false;
    EXPECT_EQ(*perform(9998, &none), *makeOSStatusError(kAuthorizationInternal));
    authorization.givesReference = true;
    authorization.rightStatus = FakeAuthorization::kThrow;
    EXPECT_EQ(perform(9998, &wrong)->code(), 12);
}

TEST_F(PipelineTest, LinesNameTheRequestAndWhatAnAdministratorLooksFor) {
    const Array wrong = {"one too many"};
    const std::tuple<OperationCode, const Array*, AuthorizationStatus, std::string_view> cases[] = {
        {9998, &none, 0, ""},
        {9998, &wrong, 0, kRequestRejectedId},
        {1234567, &none, 0, kRequestRejectedId},
        {9998, nullptr, 0, kRequestRejectedId},
        {8, &none, 0, audit_field::kMessageId},
        {9998, &none, kAuthorizationDenied, kRequestDeniedId},
        {9998, &none, kAuthorizationCanceled, kRequestDeniedId}};
    for (const auto& [code, arguments, right, id] : cases) {
        authorization.rightStatus = right;
        perform(code, arguments);
        std::map fields(log.lastFields.begin(), log.lastFields.end());
        EXPECT_EQ(fields[std::string(kMessageIdField)], id) << code;
        EXPECT_EQ(fields["CORVALEN_CLIENT_PID"], "4711");
        EXPECT_EQ(fields["CORVALEN_CLIENT_UID"], "1000");
        EXPECT_EQ(fields["CORVALEN_OPERATION_CODE"], std::to_string(code));
        EXPECT_EQ(fields["CORVALEN_OUTCOME"], code == 8 ? "17" : "");
    }
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

TEST_F(PipelineTest, FeedbackIsOpenedUsedAndClosed) {
    const Value opening = Dictionary{{"ProgressFraction", 0.0}};
    const Value outputOpening = Dictionary{{"OutputData", Data{}}, {"ErrorData", Data{}}};
    const Value half = Dictionary{{"ProgressFraction", 0.5}};
    const Value last = Dictionary{{"FinalFeedbackMessage", true}};
    const std::map<OperationCode, std::vector<Value>> cases = {
        {4, {opening, half, last}}, {5, {outputOpening, half, last}}, {7, {opening, last}}};
    for (const auto& [code, messages] : cases) {
        Receiver receiver;
        const auto listener = Listener::anonymousListener();
        listener->setDelegate(&receiver);
        listener->resume();
        log.onLine = [&](std::string_view line) {
            if (!line.starts_with("Suspending")) return;
            EXPECT_TRUE(eventually([&] { return receiver.isFinal.load(); }));
        };
        EXPECT_EQ(perform(code, &none, listener->endpoint())->code(), code == 7 ? 12 : 0);
        log.onLine = nullptr;
        ASSERT_EQ(receiver.ended.get_future().wait_for(std::chrono::seconds(60)),
                  std::future_status::ready);
        EXPECT_EQ(receiver.messages, messages) << code;
        EXPECT_THAT(events.take(),
                    AllOf(Contains(EndsWith("with feedback option enabled.")),
                          Contains("7 Sending final feedback message."),
                          Contains(StartsWith("7 Suspending feedback connection 0x"))));
    }
}

}  // namespace
}  // namespace corvalen::test
