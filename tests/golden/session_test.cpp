// SPDX-License-Identifier: MIT
// What the built daemon logs in a session, and what its client tells a user in another language.
#include <regex>

#include "endtoend/daemon_fixture.hpp"
#include "support/child.hpp"
#include "support/golden.hpp"
#include "support/message_catalogue.hpp"
#include "support/own_mounts.hpp"
#include "xpc/connection.hpp"
#include "xpc/listener.hpp"

namespace corvalen::test {
namespace {

/// Sends requests with any parameters.
class RawClient {
  public:
    RawClient()
        : _connection(Connection::connectionToServiceAtPath(kServiceSocketPath)),
          _authorization(makeAuthorizationData()) {}

    void perform(OperationCode code, const Value& arguments, const Value& endpoint = {}) const {
        performAs(_authorization, code, arguments, endpoint);
    }
    void performAs(const Data& authorization, OperationCode code, const Value& arguments,
                   const Value& endpoint = {}) const {
        const Value reply = _connection->remoteObjectProxy().call(
            selector::kPerformPrivilegedOperation, {code, authorization, endpoint, arguments});
        EXPECT_NE(reply.error(), nullptr) << code;
    }

  private:
    std::shared_ptr<Connection> _connection;
    Data _authorization;
};

/// Replaces what differs between runs: addresses, processes, and the directory of the test.
std::string withoutChance(std::string text, const std::string& folder) {
    for (auto at = text.find(folder); at != std::string::npos; at = text.find(folder))
        text.replace(at, folder.size(), "<folder>");
    text = std::regex_replace(text, std::regex("process [0-9]+, executable [^,]+"),
                              "process <number>, executable <program>");
    return std::regex_replace(text, std::regex("0x[0-9a-f]+"), "<address>");
}

void playSession(const std::string& folder) {
    const auto client = Client::connect();
    ASSERT_TRUE(client && client->registerClient(17));
    EXPECT_EQ(client->version(), "1.4");
    const RawClient raw;
    raw.perform(9998, Array{});
    raw.perform(9997, Array{});
    // Each rejection.
    raw.perform(77, Array{});
    raw.perform(9998, Value());
    raw.performAs(Data::copy(std::string(31, 'x')), 9998, Array{});
    raw.performAs(Data::copy(std::string(32, 'x')), 9998, Array{});
    raw.perform(1, Array{"one"});
    raw.perform(5, Array{7});
    raw.perform(0, Array{folder, "text", 0});
    raw.perform(3, Array{"0", "0", Data()});
    const EndpointRef closed = Listener::anonymousListener()->endpoint();
    raw.perform(12, Array{}, Value(closed));
    Child nobody(
        65534, [] { return !Client::connect()->perform("delete-files", {"/run/no"}).succeeded(); });
    EXPECT_EQ(nobody.wait(), 0);
    // Operations of the daemon, a failure, and runs with and without feedback.
    raw.perform(9996, Array{folder + "/none"});
    raw.perform(5, Array{folder + "/none"});
    raw.perform(21, Array{0});
    raw.perform(15, Array{"No Such Setting", 1});
    raw.perform(10, Array{folder, 1, true});
    const auto ignore = [](const Dictionary&) {};
    EXPECT_TRUE(client->perform("search-filenames", {folder, "", "x", false}, ignore).succeeded());
    EXPECT_TRUE(
        client->perform("execute-utility", {"/", "chmod", "--version"}, ignore).succeeded());
    for (const bool enabled : {true, true, false})
        EXPECT_TRUE(client->enableDebugMode(enabled));
    EXPECT_TRUE(client->unregisterClient(17));
}

TEST_F(DaemonTest, SessionIsLoggedAsTheTranscriptSays) {
    const std::string folder = scratch.path("session");
    std::filesystem::create_directory(folder);
    playSession(folder);
    ASSERT_TRUE(eventually([&] { return activator->ends() == 1; }));
    EXPECT_EQ(activator->lastStatus(), 0);
    expectGolden("session.txt", withoutChance(logText(), folder));
}

TEST_F(DaemonTest, UsersReadTheTextsOfTheirLanguage) {
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
