// SPDX-License-Identifier: MIT
// The pipeline's log lines, steps and replies for each kind of request.
#include <chrono>
#include <regex>
#include <thread>

#include "helper/helper_log.hpp"
#include "helper_fixture.hpp"
#include "support/feedback_receiver.hpp"
#include "support/golden.hpp"
#include "support/request_notation.hpp"

namespace corvalen::test {
namespace {

constexpr std::uint64_t kPlain = 0, kProgress = 1;
// clang-format off
constexpr StaticOperationDescription kTable[] = {
    {9998, "nop", 0, kPlain, 0, nullptr, "p"},
    {9997, "discard-auth", 0, kPlain, 0, nullptr, "p"},
    {9995, "prepare-uninstall", 1, kPlain, 0, nullptr, "p"},
    {1, "all-types", 1, kPlain, 3, "SND", "p"},
    {2, "any-strings", 1, kPlain, kVariableArgumentCount, nullptr, "p"},
    {3, "bad-type", 1, kPlain, 2, "SX", "p"},
    {4, "show-progress", 1, kProgress, kVariableArgumentCount, nullptr, "p"},
    {5, "for-administrators", 2, kPlain, 0, nullptr, "p"},
    {6, "not-there", 1, kPlain, 0, nullptr, "p"},
    {kEndOfTableCode, nullptr, 0, 0, 0, nullptr, nullptr}};
// clang-format on

struct TestGroup : OperationGroup {
    explicit TestGroup(Events& recorder) : events(recorder) {}
    void registerMethods(MethodTable& table) override {
        for (const char* name : {"AllTypes", "AnyStrings", "BadType", "ForAdministrators"})
            table.add(std::string("performOperation") + name + "WithArguments:",
                      PlainOperationMethod([this](const Array& arguments) {
                          return perform(arguments, "performed with ");
                      }));
        table.add("performOperationShowProgressWithArguments:feedbackConnection:",
                  FeedbackOperationMethod([this](const Array& arguments, auto* feedback) {
                      return perform(arguments, feedback != nullptr
                                                    ? "performed with feedback and "
                                                    : "performed without feedback, with ");
                  }));
    }
    ErrorRef perform(const Array& arguments, const char* how) {
        events.add(how + std::to_string(arguments.size()));
        if (arguments == Array{"throw"}) throw std::bad_alloc();
        if (arguments == Array{"cancel"}) return makePosixError(ECANCELED);
        return arguments == Array{"fail"} ? makeError("own.domain", 17, Dictionary{{"k", 1}})
                                          : nullptr;
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
    PipelineTest() {
        makeHelper(operations);
        log.onLine = [this] {
            if (const std::string bytes = receiver.read(); !bytes.empty())
                events.add("received " + bytes);
        };
    }

    /// Performs a row of the transcript. Returns the events, the fields of the last line, and the
    /// reply.
    std::string play(std::string line) {
        std::map<std::string, int> given{{"length", 32}, {"level", 7}};
        takeSettings(line, given);
        helper->setLogLevel(static_cast<std::uint32_t>(given["level"]));
        authorization.referenceStatus = given["reference"];
        authorization.rightStatus = given["right"];
        authorization.createStatus = given["create"];
        authorization.givesReference = given["without"] == 0;
        UserQuotas account(1000);
        const LogQuotaScope quota(given["flooded"] != 0 ? &account : nullptr);
        // The lines are counted by the second, so the row begins with a new one.
        for (const auto now = quotaSecond(); given["flooded"] != 0 && quotaSecond() == now;)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        while (account.logLines().admit(quotaSecond())) {
        }
        SocketPair client = makeSocketPair(SOCK_STREAM);
        if (given["gone"] != 0) client.second.reset();
        peer.socket = client.first;
        receiver = FeedbackReceiver();
        log.lastFields.clear();
        const auto [code, arguments] = requestOf(line);
        const std::string data(static_cast<std::size_t>(given["length"]), 'a');
        std::string replies;
        helper->performPrivilegedOperation(
            {code, data, given["feedback"] != 0 ? receiver.endpoint : EndpointRef(),
             given["nil"] != 0 ? nullptr : &arguments, peer},
            [&replies](const ErrorRef& reply) {
                replies += "\n= " + reply->domain() + " " + std::to_string(reply->code()) +
                           (reply->userInfo() != nullptr ? " with details" : "");
            });
        std::string text;
        for (const std::string& event : events.take())
            text += event + "\n";
        for (const auto& [field, value] : log.lastFields)
            text.append(" ").append(field).append("=" + value);
        return std::regex_replace(text + replies + "\n",
                                  std::regex("0x[0-9a-f]+| CORVALEN_REQUEST=[0-9-]+"), "");
    }

    FeedbackReceiver receiver;
    QRLPrivilegedOperationSetKVX operations{kTable, testGroups(events)};
};

TEST_F(PipelineTest, EveryKindOfRequestTakesItsStepsInOrder) {
    expectTranscript("pipeline.txt", [this](const std::string& line) { return play(line); });
    helper->logErrorMessage("outside of a request");
    EXPECT_THAT(log.lastFields,
                ::testing::ElementsAre(::testing::Pair("MESSAGE_ID", kOperationFailedId)));
}

}  // namespace
}  // namespace corvalen::test
