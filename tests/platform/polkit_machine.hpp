// SPDX-License-Identifier: MIT
// A machine of its own for the tests of polkit: the real bus and authority in a private mount
// namespace, ordinary users, and those who answer prompts.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "platform/peer_identity.hpp"

namespace corvalen::polkit_test {

/// The first is the machine's only administrator, with the password "secret".
constexpr uid_t kAdministrator = 61234;
constexpr uid_t kOtherUser = 61235;
constexpr const char* kPasswordHash =
    "$6$corvalen$BUpMfLR1wY501cuuVFIHBY.G9LA5NlpHludzh7juOwplC.Az"
    "AvM76Y5oUrgxfvgJJYuR0AeqabyNDlHy8kYle0";

/// A child process of the test, ended with this object.
class Child {
  public:
    Child() = default;
    Child(uid_t user, const std::function<void()>& run) : _pid(::fork()) {
        if (_pid == 0) become(user, run);
    }
    explicit Child(pid_t pid) : _pid(pid) {}
    Child(Child&& other) noexcept : _pid(std::exchange(other._pid, -1)) {}
    Child& operator=(Child&& other) noexcept {
        end();
        _pid = std::exchange(other._pid, -1);
        return *this;
    }
    ~Child() { end(); }

    pid_t pid() const { return _pid; }
    void end() {
        if (_pid <= 0) return;
        ::kill(_pid, SIGKILL);
        ::waitpid(std::exchange(_pid, -1), nullptr, 0);
    }
    [[noreturn]] static void become(uid_t user, const std::function<void()>& run) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::setgid(user) == 0 && ::setuid(user) == 0) run();
        ::_exit(1);
    }

  private:
    pid_t _pid = -1;
};

inline std::string textOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The namespace with its bus; authority and bus start when they are wanted.
class Machine {
  public:
    static bool isPossible() {
        for (const char* program : {"/usr/bin/dbus-daemon", "/usr/bin/pkttyagent",
                                    "/usr/lib/polkit-1/polkitd", "/usr/bin/pkaction"}) {
            if (::access(program, X_OK) != 0) return false;
        }
        return ::geteuid() == 0;
    }

    Machine() : _outside(::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC)) {
        isReady = ::unshare(CLONE_NEWNS) == 0 &&
                  ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  emptyFolder("/run") && emptyFolder("/etc/polkit-1/rules.d") &&
                  emptyFolder("/usr/share/polkit-1/actions") && ::mkdir("/run/dbus", 0755) == 0 &&
                  addUsers() && startBus();
    }
    ~Machine() {
        _bus.end();
        ::setns(_outside.get(), CLONE_NEWNS);
    }

    bool startBus() {
        _bus = Child(0, [] {
            ::execl("/usr/bin/dbus-daemon", "dbus-daemon", "--system", "--nofork", "--nopidfile",
                    nullptr);
        });
        for (int i = 0; i < 200; ++i, ::usleep(10'000)) {
            sd_bus* bus = nullptr;
            const bool answers =
                sd_bus_open_system(&bus) >= 0 &&
                sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                   "GetId", nullptr, nullptr, "") >= 0;
            sd_bus_close_unref(bus);
            if (answers) return true;
        }
        return false;
    }
    void stopBus() { _bus.end(); }

    /// Ends polkitd as a crash would.
    static void crashAuthority() {
        sd_bus* bus = nullptr;
        sd_bus_open_system(&bus);
        sd_bus_message* answer = nullptr;
        std::uint32_t pid = 0;
        if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                               "GetConnectionUnixProcessID", nullptr, &answer, "s",
                               "org.freedesktop.PolicyKit1") >= 0 &&
            sd_bus_message_read(answer, "u", &pid) >= 0 && pid > 1) {
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        }
        sd_bus_message_unref(answer);
        sd_bus_close_unref(bus);
    }

    static bool emptyFolder(const char* path) {
        return ::mount("tmpfs", path, "tmpfs", 0, "mode=0755") == 0;
    }

    bool isReady = false;

  private:
    static bool cover(const char* path, const std::string& content, mode_t mode) {
        const std::string copy = "/run" + std::string(path).substr(4);
        std::ofstream(copy) << content;
        return ::chmod(copy.c_str(), mode) == 0 &&
               ::mount(copy.c_str(), path, nullptr, MS_BIND, nullptr) == 0;
    }
    static bool addUsers() {
        std::string groups = "sudo:x:27:corvadmin\n";
        std::istringstream lines(textOf("/etc/group"));
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("sudo:")) groups += line + "\n";
        }
        return cover("/etc/group", groups, 0644) &&
               cover("/etc/passwd",
                     textOf("/etc/passwd") +
                         "corvadmin:x:61234:61234::/:/bin/sh\n"
                         "corvother:x:61235:61235::/:/bin/sh\n",
                     0644) &&
               cover("/etc/shadow",
                     textOf("/etc/shadow") + "corvadmin:" + std::string(kPasswordHash) +
                         ":19000:0:99999:7:::\n"
                         "corvother:*:19000:0:99999:7:::\n",
                     0600);
    }

    UniqueFd _outside;
    Child _bus;
};

/// A process of an ordinary user, with a connection.
class Client {
  public:
    explicit Client(uid_t user) : _process(user, [] { ::pause(); }) {
        int ends[2] = {-1, -1};
        (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        _ours.reset(ends[0]);
        _theirs.reset(ends[1]);
        peer.pid = _process.pid();
        peer.uid = user;
        peer.startTime = processStartTime(peer.pid);
        peer.processDescriptor = std::make_shared<const UniqueFd>(
            static_cast<int>(::syscall(SYS_pidfd_open, peer.pid, 0)));
        peer.socket = ends[0];
    }
    /// Children of the test hold copies of the socket, so closing it here would not do.
    void hangUp() const { ::shutdown(_theirs.get(), SHUT_RDWR); }
    void die() { _process.end(); }

    PeerIdentity peer;

  private:
    Child _process;
    UniqueFd _ours;
    UniqueFd _theirs;
};

/// The real agent of a terminal, and somebody who types the same password at every prompt.
class TypingUser {
  public:
    TypingUser(const PeerIdentity& client, std::string password) {
        int ready[2] = {-1, -1};
        (void)::pipe(ready);
        const auto subject = std::to_string(client.pid) + "," + std::to_string(client.startTime);
        const auto notify = std::to_string(ready[1]);
        int terminal = -1;
        const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) {
            Child::become(client.uid, [&] {
                ::execl("/usr/bin/pkttyagent", "pkttyagent", "--process", subject.c_str(),
                        "--notify-fd", notify.c_str(), nullptr);
            });
        }
        _agent = Child(pid);
        _terminal.reset(terminal);
        ::close(ready[1]);
        char byte = 0;
        (void)::read(ready[0], &byte, 1);
        ::close(ready[0]);
        _thread = std::thread([this, typed = std::move(password) + "\n"] { type(typed); });
    }
    ~TypingUser() {
        ::usleep(500'000);  // the agent still has to tell that it is done
        _agent.end();
        _thread.join();
    }

    std::atomic<int> prompts = 0;

  private:
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
            (void)::write(_terminal.get(), typed.data(), typed.size());
        }
    }

    Child _agent;
    UniqueFd _terminal;
    std::thread _thread;
};

/// An agent that dismisses every prompt, or leaves it open.
class SilentUser {
  public:
    SilentUser(const PeerIdentity& client, bool dismisses) {
        int told[2] = {-1, -1};
        (void)::pipe2(told, O_CLOEXEC);
        _told.reset(told[0]);
        _agent = Child(client.uid, [&] { serve(client, dismisses, told[1]); });
        ::close(told[1]);
        isRegistered = next() == 'R';
    }
    /// What happened next: 'B' for a prompt that began, 'C' for one taken back, 0 for nothing.
    char next(int milliseconds = 5000) const {
        pollfd event{_told.get(), POLLIN, 0};
        char what = 0;
        if (::poll(&event, 1, milliseconds) == 1) (void)::read(_told.get(), &what, 1);
        return what;
    }

    bool isRegistered = false;

  private:
    struct Agent {
        bool dismisses;
        int tell;
        static int begin(sd_bus_message* call, void* self, sd_bus_error*) {
            const auto& agent = *static_cast<Agent*>(self);
            (void)::write(agent.tell, "B", 1);
            if (!agent.dismisses) {
                sd_bus_message_ref(call);
                return 1;
            }
            return sd_bus_reply_method_errorf(call, "org.freedesktop.PolicyKit1.Error.Cancelled",
                                              "dismissed");
        }
        static int cancel(sd_bus_message* call, void* self, sd_bus_error*) {
            (void)::write(static_cast<Agent*>(self)->tell, "C", 1);
            return sd_bus_reply_method_return(call, nullptr);
        }
    };

    static void serve(const PeerIdentity& client, bool dismisses, int tell) {
        static const sd_bus_vtable methods[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("BeginAuthentication", "sssa{ss}sa(sa{sv})", "", Agent::begin,
                          SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("CancelAuthentication", "s", "", Agent::cancel,
                          SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        Agent agent{dismisses, tell};
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) < 0 ||
            sd_bus_add_object_vtable(bus, nullptr, "/agent",
                                     "org.freedesktop.PolicyKit1.AuthenticationAgent", methods,
                                     &agent) < 0 ||
            sd_bus_call_method(
                bus, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
                "org.freedesktop.PolicyKit1.Authority", "RegisterAuthenticationAgent", nullptr,
                nullptr, "(sa{sv})ss", "unix-process", 3, "pid", "u", client.pid, "start-time", "t",
                client.startTime, "uid", "i", client.uid, "C", "/agent") < 0) {
            return;
        }
        (void)::write(tell, "R", 1);
        while (sd_bus_wait(bus, UINT64_MAX) >= 0) {
            while (sd_bus_process(bus, nullptr) > 0) {
            }
        }
    }

    Child _agent;
    UniqueFd _told;
};

}  // namespace corvalen::polkit_test
