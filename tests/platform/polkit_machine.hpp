// SPDX-License-Identifier: MIT
// A machine of its own for the tests of polkit: the real bus and authority in a private mount
// namespace, processes of ordinary users, and agents that answer prompts.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <string>

#include "platform/authorization/identity.hpp"
#include "support/child.hpp"
#include "support/eventually.hpp"
#include "support/own_mounts.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::polkit_test {

using test::shell;

/// Rules apply in the order of their file names; the machine's own rule admits the group sudo.
constexpr const char* kSetUp =
    "mkdir /run/dbus && echo 'polkit.addAdminRule(function() { return [\"unix-user:0\"]; });'"
    " > /etc/polkit-1/rules.d/10.rules";

/// The namespace with its bus; the bus starts the authority on demand.
class Machine {
  public:
    static bool isPossible() {
        return ::geteuid() == 0 && shell(
                                       "command -v dbus-daemon pkaction busctl "
                                       "/usr/lib/polkit-1/polkitd");
    }

    Machine() : _outside(::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC)) {
        isReady = test::enterOwnMounts(
                      {"/run", "/etc/polkit-1/rules.d", "/usr/share/polkit-1/actions"}) &&
                  shell(kSetUp) && startBus();
    }
    ~Machine() {
        stopBus();
        (void)::setns(_outside.get(), CLONE_NEWNS);
    }
    bool startBus() {
        const bool done =
            shell("dbus-daemon --system --fork --nopidfile --print-pid > /run/bus-pid");
        _bus = std::atoi(test::textOf("/run/bus-pid").c_str());
        return done && _bus > 0;
    }
    void stopBus() {
        if (_bus > 0) ::kill(std::exchange(_bus, 0), SIGKILL);
        EXPECT_TRUE(test::eventually([] { return !shell("busctl --system status"); }))
            << "the bus does not end";
    }
    /// Sends polkitd a signal by its name.
    static bool signalAuthority(const std::string& signal) {
        return shell("kill -" + signal +
                     " $(busctl --system call org.freedesktop.DBus / org.freedesktop.DBus "
                     "GetConnectionUnixProcessID s org.freedesktop.PolicyKit1 | cut -c3-)");
    }

    bool isReady = false;

  private:
    UniqueFd _outside;
    pid_t _bus = 0;
};

inline std::array<UniqueFd, 2> makePair() {
    int ends[2] = {-1, -1};
    (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}
inline void tell(int socket, const char* what) {
    (void)!::write(socket, what, 1);
}
/// Returns the byte that the other end sent, or 0 after the timeout.
inline char hear(int socket, std::chrono::milliseconds patience = test::kPatience) {
    pollfd event{socket, POLLIN, 0};
    char what = 0;
    if (::poll(&event, 1, static_cast<int>(patience.count())) == 1) (void)!::read(socket, &what, 1);
    return what;
}

/// A process of an ordinary user, with a connection.
class Client {
  public:
    explicit Client(uid_t user)
        : _socket(makePair()), _process(user, [this] {
              tell(_socket[1].get(), "R");
              return ::pause() == 0;
          }) {
        peer.pid = _process.pid();
        peer.uid = user;
        peer.startTime = processStartTime(peer.pid);
        peer.processDescriptor = std::make_shared<const UniqueFd>(
            static_cast<int>(::syscall(SYS_pidfd_open, peer.pid, 0)));
        peer.socket = _socket[0];
        (void)hear(peer.socket.get());  // waits until it has become the user
    }
    /// Uses shutdown(2): children of the test hold copies of the socket.
    void hangUp() const { ::shutdown(_socket[1].get(), SHUT_RDWR); }
    void die() { _process.end(); }

    PeerIdentity peer;

  private:
    std::array<UniqueFd, 2> _socket;
    test::Child _process;
};

/// A user's agent, which answers every prompt in the same way, or leaves it open.
class Agent {
  public:
    enum Answer { grants, denies, dismisses, waits };

    Agent(const PeerIdentity& client, Answer answer)
        : _socket(makePair()),
          _answer(answer),
          _user(client.uid),
          _process(0, [&] { return serve(client); }) {
        isRegistered = next() == 'R';
    }
    /// What happened next: 'B' for a prompt that began, 'C' for one taken back, 0 for nothing.
    [[nodiscard]] char next(std::chrono::milliseconds patience = test::kPatience) const {
        return hear(_socket[0].get(), patience);
    }

    bool isRegistered = false;

  private:
    static int begin(sd_bus_message* call, void* self, sd_bus_error*) {
        const auto& agent = *static_cast<const Agent*>(self);
        tell(agent._socket[1].get(), "B");
        const char* cookie = nullptr;
        switch (agent._answer) {
            case grants:
                sd_bus_message_skip(call, "sssa{ss}");
                sd_bus_message_read(call, "s", &cookie);
                respond(sd_bus_message_get_bus(call), cookie, agent._user);
                [[fallthrough]];
            case denies:
                return sd_bus_reply_method_return(call, nullptr);
            case dismisses:
                return sd_bus_reply_method_errorf(
                    call, "org.freedesktop.PolicyKit1.Error.Cancelled", "no");
            default:
                sd_bus_message_ref(call);  // never answered
                return 1;
        }
    }
    /// Sends what the authority's own program sends after a correct password. A prompt is filed
    /// under the user of the process in question, before polkit 126 under the agent's user.
    static void respond(sd_bus* bus, const char* cookie, uid_t user) {
        for (const uid_t owner : {user, uid_t{0}})
            if (askAuthority(bus, "AuthenticationAgentResponse2", "us(sa{sv})", owner, cookie,
                             "unix-user", 1, "uid", "u", 0))
                return;
    }
    static int cancel(sd_bus_message* call, void* self, sd_bus_error*) {
        tell(static_cast<const Agent*>(self)->_socket[1].get(), "C");
        return sd_bus_reply_method_return(call, nullptr);
    }
    template <class... Parameters>
    static bool askAuthority(sd_bus* bus, const char* method, Parameters... parameters) {
        return sd_bus_call_method(bus, "org.freedesktop.PolicyKit1",
                                  "/org/freedesktop/PolicyKit1/Authority",
                                  "org.freedesktop.PolicyKit1.Authority", method, nullptr, nullptr,
                                  parameters...) >= 0;
    }
    bool serve(const PeerIdentity& client) {
        const sd_bus_vtable methods[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("BeginAuthentication", "sssa{ss}sa(sa{sv})", "", begin,
                          SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("CancelAuthentication", "s", "", cancel, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) < 0 ||
            sd_bus_add_object_vtable(bus, nullptr, "/agent",
                                     "org.freedesktop.PolicyKit1.AuthenticationAgent", methods,
                                     this) < 0 ||
            !askAuthority(bus, "RegisterAuthenticationAgent", "(sa{sv})ss", "unix-process", 3,
                          "pid", "u", client.pid, "start-time", "t", client.startTime, "uid", "i",
                          client.uid, "C", "/agent")) {
            return false;
        }
        tell(_socket[1].get(), "R");
        while (sd_bus_wait(bus, UINT64_MAX) >= 0) {
            while (sd_bus_process(bus, nullptr) > 0) {
            }
        }
        return false;
    }

    std::array<UniqueFd, 2> _socket;
    Answer _answer;
    uid_t _user;
    test::Child _process;
};

}  // namespace corvalen::polkit_test
