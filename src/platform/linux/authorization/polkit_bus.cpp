// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/polkit.hpp"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <string_view>

namespace corvalen {
namespace {

/// Interval at which a waiting thread checks the peer.
constexpr std::chrono::milliseconds kLookWhileQueued{200};

}  // namespace

PeerWatch::PeerWatch(const PeerIdentity& peer) noexcept
    : _peer(peer),
      // A pidfd is readable once its process has ended. A peer that closes its sending side
      // withdraws its request, and may still read the reply.
      _descriptors{pollfd{peer.processDescriptor ? peer.processDescriptor->get() : -1, POLLIN, 0},
                   pollfd{peer.socket.get(), POLLRDHUP, 0}} {}

bool PeerWatch::isGone() const noexcept {
    pollfd connection = _descriptors[1];
    if (connection.fd >= 0 && ::poll(&connection, 1, 0) > 0) return true;
    return !_peer.isAlive();
}

QuestionGate::Turn::~Turn() {
    if (_gate == nullptr) return;
    {
        const std::scoped_lock locked(_gate->_lock);
        _gate->_asked.erase(_user);
    }
    _gate->_left.notify_all();
}

bool QuestionGate::tryToEnter(uid_t user) {
    return _asked.size() < kMaxTurns && _asked.insert(user).second;
}

std::optional<QuestionGate::Turn> QuestionGate::enter(uid_t user, const PeerWatch& watch) {
    std::unique_lock locked(_lock);
    while (!tryToEnter(user)) {
        _left.wait_for(locked, kLookWhileQueued);
        if (watch.isGone()) return std::nullopt;
    }
    return std::optional<Turn>(std::in_place, *this, user);
}

namespace {

constexpr const char* kService = "org.freedesktop.PolicyKit1";
constexpr const char* kObject = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* kInterface = "org.freedesktop.PolicyKit1.Authority";
constexpr const char* kDismissedDetail = "polkit.dismissed";
// Identifies the only check that a connection has under way.
constexpr const char* kCancellationId = "check";
constexpr std::uint32_t kAllowUserInteraction = 1;
// Timeouts in microseconds.
constexpr std::uint64_t kNoTimeout = UINT64_MAX;
/// A rule may run programs, each for 10 seconds (polkit(8)).
constexpr std::uint64_t kCheckTimeout = 25'000'000;
constexpr std::uint64_t kStartTimeout = 5'000'000;
/// How long a check that was canceled is waited for.
constexpr std::chrono::seconds kCancelTimeout{1};
// Poll timeout: without a pidfd, only polling detects that the peer has ended.
constexpr int kLookAfterPeer = 1000;  // milliseconds

struct MessageReleaser {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

struct SlotReleaser {
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotReleaser>;

/// Appends the details that rules and agents receive. polkit translates the message first and then
/// replaces $(shown), so the value is not expanded again.
int appendDetails(sd_bus_message* message, const PolkitQuestion& question) noexcept {
    int status = sd_bus_message_open_container(message, 'a', "{ss}");
    const auto append = [&](const char* name, const std::string& value) {
        if (status >= 0) status = sd_bus_message_append(message, "{ss}", name, value.c_str());
    };
    const RightPurpose& purpose = question.purpose;
    for (const auto& [name, value] : purpose.details)
        append(name.c_str(), value);
    if (!purpose.prompt.empty() && !purpose.shown.empty()) {
        append("polkit.message", purpose.prompt + "\n$(shown)");
        append("polkit.gettext_domain", purpose.textDomain);
        append("shown", purpose.shown);
    }
    return status < 0 ? status : sd_bus_message_close_container(message);
}

Message newCheckMessage(sd_bus* bus, const PeerIdentity& peer, const PolkitQuestion& question,
                        bool mayAsk) {
    sd_bus_message* created = nullptr;
    if (sd_bus_message_new_method_call(bus, &created, kService, kObject, kInterface,
                                       "CheckAuthorization") < 0) {
        return nullptr;
    }
    Message message(created);
    const bool isComplete =
        sd_bus_message_append(created, "(sa{sv})s", "unix-process", 3, "pid", "u",
                              static_cast<std::uint32_t>(peer.pid), "start-time", "t",
                              peer.startTime, "uid", "i", static_cast<std::int32_t>(peer.uid),
                              question.action.c_str()) >= 0 &&
        appendDetails(created, question) >= 0 &&
        sd_bus_message_append(created, "us", mayAsk ? kAllowUserInteraction : std::uint32_t{0},
                              kCancellationId) >= 0;
    return isComplete ? std::move(message) : nullptr;
}

/// Returns whether the reply's details say that the prompt was dismissed; false if they cannot be
/// read.
bool wasDismissed(sd_bus_message* answer) noexcept {
    if (sd_bus_message_enter_container(answer, 'a', "{ss}") < 0) return false;
    const char* key = nullptr;
    const char* value = nullptr;
    while (sd_bus_message_read(answer, "{ss}", &key, &value) > 0) {
        if (std::string_view(key) == kDismissedDetail) return *value != '\0';
    }
    return false;
}

PolkitVerdict verdictOfError(const sd_bus_error& error) noexcept {
    // An error from polkit is a decision; any other means that there was no reply.
    const std::string_view name = error.name;
    return name.starts_with("org.freedesktop.PolicyKit1.") ? PolkitVerdict::denied
                                                           : PolkitVerdict::unreachable;
}

PolkitVerdict verdictOfAnswer(sd_bus_message* answer) noexcept {
    if (const auto* error = sd_bus_message_get_error(answer)) return verdictOfError(*error);
    int isAuthorized = 0;
    int isChallenge = 0;
    if (sd_bus_message_enter_container(answer, 'r', "bba{ss}") < 0 ||
        sd_bus_message_read(answer, "bb", &isAuthorized, &isChallenge) < 0) {
        return PolkitVerdict::unreachable;
    }
    if (isAuthorized != 0) return PolkitVerdict::authorized;
    if (wasDismissed(answer)) return PolkitVerdict::dismissed;
    return isChallenge != 0 ? PolkitVerdict::needsPrompt : PolkitVerdict::denied;
}

int takeAnswer(sd_bus_message* answer, void* verdict, sd_bus_error* /*error*/) {
    *static_cast<std::optional<PolkitVerdict>*>(verdict) = verdictOfAnswer(answer);
    return 1;
}

/// Handles the messages of the bus until `isDone` returns true. Returns false at the end of the
/// time, or if the bus fails.
template <class Condition>
bool processUntil(sd_bus* bus, std::chrono::microseconds timeout, Condition isDone) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!isDone()) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        const int processed = sd_bus_process(bus, nullptr);
        if (processed < 0) return false;
        if (processed == 0) (void)sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
    }
    return true;
}

/// Waits for the greeting of the bus. sd_bus_call(3) would wait longer than its own timeout.
bool waitUntilReady(sd_bus* bus, std::chrono::microseconds timeout) {
    int ready = 0;
    return processUntil(bus, timeout, [&] { return (ready = sd_bus_is_ready(bus)) != 0; }) &&
           ready > 0;
}

}  // namespace

void PolkitConnection::Closer::operator()(sd_bus* bus) const noexcept {
    sd_bus_close_unref(bus);
}

std::unique_ptr<PolkitConnection> PolkitConnection::open() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return nullptr;
    return std::unique_ptr<PolkitConnection>(new PolkitConnection(bus));
}

std::optional<std::string> PolkitConnection::authorityVersion() {
    if (!waitUntilReady(_bus.get(), std::chrono::microseconds(kStartTimeout))) return std::nullopt;
    sd_bus_message* created = nullptr;
    if (sd_bus_message_new_method_call(_bus.get(), &created, kService, kObject,
                                       "org.freedesktop.DBus.Properties", "Get") < 0) {
        return std::nullopt;
    }
    const Message call(created);
    sd_bus_message* received = nullptr;
    if (sd_bus_message_append(created, "ss", kInterface, "BackendVersion") < 0 ||
        sd_bus_call(_bus.get(), created, kStartTimeout, nullptr, &received) < 0) {
        return std::nullopt;
    }
    const Message answer(received);
    const char* version = nullptr;
    if (sd_bus_message_read(received, "v", "s", &version) < 0) return std::nullopt;
    return version;
}

bool PolkitConnection::waitForTraffic(const PeerWatch& watch) {
    const int descriptor = sd_bus_get_fd(_bus.get());
    const int events = sd_bus_get_events(_bus.get());
    if (descriptor < 0 || events < 0) return false;
    const auto& peer = watch.descriptors();
    std::array<pollfd, 3> awaited = {pollfd{descriptor, static_cast<short>(events), 0}, peer[0],
                                     peer[1]};
    if (::poll(awaited.data(), awaited.size(), kLookAfterPeer) < 0 && errno != EINTR) return false;
    return true;
}

void PolkitConnection::cancelCheck(const std::optional<PolkitVerdict>& verdict) noexcept {
    (void)sd_bus_call_method_async(_bus.get(), nullptr, kService, kObject, kInterface,
                                   "CancelCheckAuthorization", nullptr, nullptr, "s",
                                   kCancellationId);
    // Once it has the answer, the peer ends its agent. An agent that ends while polkit cancels its
    // prompt can block polkit for good (seen in version 122 with GLib 2.74).
    (void)processUntil(_bus.get(), kCancelTimeout, [&] { return verdict.has_value(); });
}

PolkitVerdict PolkitConnection::checkAuthorization(const PeerIdentity& peer,
                                                   const PolkitQuestion& question, bool mayAsk,
                                                   const PeerWatch& watch) {
    const auto message = newCheckMessage(_bus.get(), peer, question, mayAsk);
    std::optional<PolkitVerdict> verdict;
    sd_bus_slot* created = nullptr;
    if (!message || sd_bus_call_async(_bus.get(), &created, message.get(), takeAnswer, &verdict,
                                      mayAsk ? kNoTimeout : kCheckTimeout) < 0) {
        return PolkitVerdict::unreachable;
    }
    const Slot slot(created);
    while (!verdict) {
        const int processed = sd_bus_process(_bus.get(), nullptr);
        if (processed < 0) return PolkitVerdict::unreachable;
        if (processed > 0) continue;
        if (watch.isGone()) {
            cancelCheck(verdict);
            return PolkitVerdict::abandoned;
        }
        if (!waitForTraffic(watch)) return PolkitVerdict::unreachable;
    }
    return *verdict;
}

}  // namespace corvalen
