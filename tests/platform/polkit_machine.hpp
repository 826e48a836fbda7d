// SPDX-License-Identifier: MIT
// A machine of its own for the tests of polkit: the real bus and authority in a private mount
// namespace, ordinary users, and those who answer prompts.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include "platform/peer_identity.hpp"

namespace corvalen::polkit_test {

/// The first is the machine's only administrator, with the password "secret".
constexpr uid_t kAdministrator = 61234;
constexpr uid_t kOtherUser = 61235;

/// Runs a shell command; true when it succeeded.
inline bool run(const char* command) {
    return ::system(command) == 0;
}
/// The first line that a shell command prints.
inline std::string firstLine(const char* command) {
    char line[256] = "";
    FILE* const output = ::popen(command, "r");
    if (output != nullptr && ::fgets(line, sizeof line, output) == nullptr) line[0] = '\0';
    if (output != nullptr) ::pclose(output);
    return line;
}

constexpr const char* kSetUpMachine = R"(set -e
mount --make-rprivate /
for folder in /run /etc/polkit-1/rules.d /usr/share/polkit-1/actions; do
  mount -t tmpfs -o mode=0755 none $folder
done
mkdir /run/dbus
sed '/^sudo:/d; $a sudo:x:27:corvadmin' /etc/group > /run/group
sed '$a corvadmin:x:61234:61234::/:/bin/sh\ncorvother:x:61235:61235::/:/bin/sh' /etc/passwd > /run/passwd
(umask 077; cat /etc/shadow - > /run/shadow) << 'EOF'
corvadmin:$6$corvalen$BUpMfLR1wY501cuuVFIHBY.G9LA5NlpHludzh7juOwplC.AzAvM76Y5oUrgxfvgJJYuR0AeqabyNDlHy8kYle0:19000:0:99999:7:::
corvother:*:19000:0:99999:7:::
EOF
for name in group passwd shadow; do mount --bind /run/$name /etc/$name; done
)";

/// The namespace with its bus; the authority starts when it is wanted.
class Machine {
  public:
    static bool isPossible() {
        return ::geteuid() == 0 && run("command -v dbus-daemon pkttyagent pkaction busctl "
                                       "/usr/lib/polkit-1/polkitd > /dev/null");
    }

    Machine() : _outside(::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC)) {
        isReady = ::unshare(CLONE_NEWNS) == 0 && run(kSetUpMachine) && startBus();
    }
    ~Machine() {
        stopBus();
        (void)::setns(_outside.get(), CLONE_NEWNS);
    }
    bool startBus() {
        _bus = std::atoi(firstLine("dbus-daemon --system --fork --nopidfile --print-pid").c_str());
        return _bus > 0;
    }
    void stopBus() {
        if (_bus > 0) ::kill(std::exchange(_bus, 0), SIGKILL);
        while (run("busctl --system status > /dev/null 2>&1"))
            ::usleep(10'000);
    }
    /// Ends polkitd as a crash would.
    static bool crashAuthority() {
        return run(
            "kill -9 $(busctl --system call org.freedesktop.DBus / org.freedesktop.DBus "
            "GetConnectionUnixProcessID s org.freedesktop.PolicyKit1 | cut -c3-)");
    }

    bool isReady = false;

  private:
    UniqueFd _outside;
    pid_t _bus = 0;
};

/// A child process of the test, ended with this object.
class Child {
  public:
    explicit Child(pid_t pid = -1) : _pid(pid) {}
    Child(uid_t user, const std::function<void()>& work) : _pid(::fork()) {
        if (_pid == 0) become(user, work);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { end(); }

    pid_t pid() const { return _pid; }
    void end() {
        if (_pid <= 0) return;
        ::kill(_pid, SIGKILL);
        ::waitpid(std::exchange(_pid, -1), nullptr, 0);
    }
    [[noreturn]] static void become(uid_t user, const std::function<void()>& work) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::setgid(user) == 0 && ::setuid(user) == 0) work();
        ::_exit(1);
    }

  private:
    pid_t _pid;
};

inline std::array<UniqueFd, 2> makePair() {
    int ends[2] = {-1, -1};
    (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}
inline void tell(int socket, const char* what) {
    (void)!::write(socket, what, 1);
}
/// What the other end told, or 0 when it told nothing in time.
inline char hear(int socket, int milliseconds = 5000) {
    pollfd event{socket, POLLIN, 0};
    char what = 0;
    if (::poll(&event, 1, milliseconds) == 1) (void)!::read(socket, &what, 1);
    return what;
}

/// A process of an ordinary user, with a connection.
class Client {
  public:
    explicit Client(uid_t user)
        : _socket(makePair()), _process(user, [this] {
              tell(_socket[1].get(), "R");
              ::pause();
          }) {
        peer.pid = _process.pid();
        peer.uid = user;
        peer.startTime = processStartTime(peer.pid);
        peer.processDescriptor = std::make_shared<const UniqueFd>(
            static_cast<int>(::syscall(SYS_pidfd_open, peer.pid, 0)));
        peer.socket = _socket[0].get();
        (void)hear(peer.socket);  // until it has become the user
    }
    /// Children of the test hold copies of the socket, so closing it here would not do.
    void hangUp() const { ::shutdown(_socket[1].get(), SHUT_RDWR); }
    void die() { _process.end(); }

    PeerIdentity peer;

  private:
    std::array<UniqueFd, 2> _socket;
    Child _process;
};

/// The real agent of a terminal, and somebody who types the same password at every prompt.
class TypingUser {
  public:
    TypingUser(const PeerIdentity& client, const std::string& password)
        : _agent(startAgent(client)), _thread([this, password] { type(password + "\n"); }) {}
    ~TypingUser() {
        ::usleep(500'000);  // the agent still has to tell that it is done
        _agent.end();
        _thread.join();
    }

    std::atomic<int> prompts = 0;

  private:
    /// Returns when the agent is registered.
    pid_t startAgent(const PeerIdentity& client) {
        int ready[2] = {-1, -1};
        (void)!::pipe(ready);
        int terminal = -1;
        const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) {
            const auto subject =
                std::to_string(client.pid) + "," + std::to_string(client.startTime);
            const auto notify = std::to_string(ready[1]);
            Child::become(client.uid, [&] {
                ::execlp("pkttyagent", "pkttyagent", "--process", subject.c_str(), "--notify-fd",
                         notify.c_str(), nullptr);
            });
        }
        _terminal.reset(terminal);
        ::close(ready[1]);
        char byte = 0;
        (void)!::read(ready[0], &byte, 1);
        ::close(ready[0]);
        return pid;
    }
    void type(const std::string& typed) {
        std::string screen;
        char buffer[1024];
        for (ssize_t count = 0; (count = ::read(_terminal.get(), buffer, sizeof buffer)) > 0;) {
            screen.append(buffer, static_cast<std::size_t>(count));
            const auto prompt = screen.find("Password: ");
            if (prompt == std::string::npos) continue;
            screen.erase(0, prompt + 10);
            ++prompts;
            ::usleep(400'000);  // what is typed too early is thrown away
            (void)!::write(_terminal.get(), typed.data(), typed.size());
        }
    }

    UniqueFd _terminal;
    Child _agent;
    std::thread _thread;
};

/// An agent that dismisses every prompt, or leaves it open.
class SilentUser {
  public:
    SilentUser(const PeerIdentity& client, bool dismisses)
        : _socket(makePair()), _agent(client.uid, [&] { serve(client, dismisses); }) {
        isRegistered = next() == 'R';
    }
    /// What happened next: 'B' for a prompt that began, 'C' for one taken back, 0 for nothing.
    char next(int milliseconds = 5000) const { return hear(_socket[0].get(), milliseconds); }

    bool isRegistered = false;

  private:
    static int begin(sd_bus_message* call, void* self, sd_bus_error*) {
        tell(*static_cast<int*>(self), "B");
        sd_bus_message_ref(call);  // never answered
        return 1;
    }
    static int dismiss(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_errorf(call, "org.freedesktop.PolicyKit1.Error.Cancelled", "no");
    }
    static int cancel(sd_bus_message* call, void* self, sd_bus_error*) {
        tell(*static_cast<int*>(self), "C");
        return sd_bus_reply_method_return(call, nullptr);
    }
    void serve(const PeerIdentity& client, bool dismisses) {
        const sd_bus_vtable methods[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("BeginAuthentication", "sssa{ss}sa(sa{sv})", "",
                          dismisses ? dismiss : begin, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("CancelAuthentication", "s", "", cancel, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        int outside = _socket[1].get();
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) < 0 ||
            sd_bus_add_object_vtable(bus, nullptr, "/agent",
                                     "org.freedesktop.PolicyKit1.AuthenticationAgent", methods,
                                     &outside) < 0 ||
            sd_bus_call_method(
                bus, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
                "org.freedesktop.PolicyKit1.Authority", "RegisterAuthenticationAgent", nullptr,
                nullptr, "(sa{sv})ss", "unix-process", 3, "pid", "u", client.pid, "start-time", "t",
                client.startTime, "uid", "i", client.uid, "C", "/agent") < 0) {
            return;
        }
        tell(outside, "R");
        while (sd_bus_wait(bus, UINT64_MAX) >= 0) {
            while (sd_bus_process(bus, nullptr) > 0) {
            }
        }
    }

    std::array<UniqueFd, 2> _socket;
    Child _agent;
};

}  // namespace corvalen::polkit_test
