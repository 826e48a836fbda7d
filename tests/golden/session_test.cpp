// SPDX-License-Identifier: MIT
// What the built daemon logs in a session, and what its client tells a user in another language.
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>
#include <regex>

#include "endtoend/daemon_fixture.hpp"
#include "support/feedback_receiver.hpp"
#include "support/golden.hpp"
#include "support/message_catalogue.hpp"
#include "support/own_mounts.hpp"
#include "support/request_notation.hpp"
#include "xpc/support.hpp"

namespace corvalen::test {
namespace {

/// Runs only the calling thread as user "nobody".
class ScopedNobody {
  public:
    ScopedNobody() { ::syscall(SYS_setresuid, kUser, kUser, -1); }
    ~ScopedNobody() { ::syscall(SYS_setresuid, 0, 0, -1); }
    ScopedNobody(const ScopedNobody&) = delete;
    ScopedNobody& operator=(const ScopedNobody&) = delete;

  private:
    static constexpr uid_t kUser = 65534;
};

class SessionTest : public DaemonTest {
  protected:
    /// Sends the message of a row, "method|..." or "code|argument|...". Returns the lines that the
    /// daemon has logged since the last row, and the reply.
    std::string play(std::string line) {
        std::map<std::string, int> given;
        takeSettings(line, given);
        auto [method, params] = callOf(line);
        FeedbackReceiver receiver;
        if (method.find(':') == method.npos) {
            const std::string forged(static_cast<std::size_t>(given["forged"]), 'x');
            params = {std::uint64_t{std::stoull(method)},
                      forged.empty() ? makeAuthorizationData() : Data::copy(forged),
                      given["feedback"] != 0 ? Value(receiver.endpoint) : Value(),
                      given["nil"] != 0 ? Value() : Value(params)};
            method = selector::kPerformPrivilegedOperation;
        }
        if (given["deaf"] != 0) receiver.offers.first.reset();
        const auto connection = connect(given["nobody"] != 0);
        CallOutcome reply = connection->remoteObjectProxy().call(method, params);
        if (given["ends"] != 0) {
            EXPECT_TRUE(eventually([&] { return activator->ends() == 1; }));
            reply = Value();
        }
        const std::string log = logText();
        return log.substr(std::exchange(_logged, log.size())) + "= " + replyText(reply);
    }

  private:
    static std::shared_ptr<Connection> connect(bool asNobody) {
        std::optional<ScopedNobody> nobody;
        if (asNobody) nobody.emplace();
        return Connection::connectionToServiceAtPath(kServiceSocketPath).value();
    }
    static std::string replyText(const CallOutcome& reply) {
        if (!reply) return "refused: " + reply.error()->localizedDescription() + "\n";
        if (const ErrorRef error = reply->error())
            return error->domain() + " " + std::to_string(error->code()) + "\n";
        return (reply->string() != nullptr ? *reply->string() : "nothing") + "\n";
    }

    std::size_t _logged = 0;
};

/// Replaces what differs between runs.
std::string withoutChance(std::string text) {
    text = std::regex_replace(text, std::regex("process [0-9]+, executable [^,]+"),
                              "process <number>, executable <program>");
    return std::regex_replace(text, std::regex("0x[0-9a-f]+"), "<address>");
}

TEST_F(SessionTest, IsLoggedAsTheTranscriptSays) {
    const std::string folder = scratch.path("session");
    std::filesystem::create_directory(folder);
    expectTranscript("session.txt", [&](const std::string& line) {
        return withoutChance(replaced(play(replaced(line, "@", folder)), folder, "@"));
    });
    EXPECT_EQ(activator->lastStatus(), 0);
}

TEST_F(SessionTest, UsersReadTheTextsOfTheirLanguage) {
    ASSERT_TRUE(enterOwnMounts({"/usr/share/locale"}));
    putFile("/usr/share/locale/xx/LC_MESSAGES/PrivilegedOperationErrors.mo",
            catalogueOf({{"A required component of OS X is missing in your system installation.",
                          "<in another language>"}}));
    const std::string output = scratch.path("output");
    const auto ask = [&](const std::string& locale) {
        (void)!std::system((locale + " '" + CORVALENCTL_PATH +
                            "' call execute-utility S:/ S:xpchelper >'" + output + "' 2>&1")
                               .c_str());
        return textOf(output);
    };
    EXPECT_THAT(ask("LC_ALL=C LANGUAGE=xx"), ::testing::HasSubstr("A required component of OS X"));
    // gettext does not translate in the locale C, nor in C.UTF-8 since glibc 2.41.
    std::filesystem::create_symlink("/usr/lib/locale/C.utf8", scratch.path("xx.utf8"));
    EXPECT_THAT(ask("LOCPATH='" + scratch.path() + "' LC_ALL=xx.UTF-8 LANGUAGE=xx"),
                ::testing::HasSubstr("<in another language>"));
}

}  // namespace
}  // namespace corvalen::test
