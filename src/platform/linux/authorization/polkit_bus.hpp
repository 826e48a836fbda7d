// SPDX-License-Identifier: MIT
// polkit's authority on the system bus (polkit(8), org.freedesktop.PolicyKit1.Authority).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/authorization/authorization.hpp"
#include "platform/authorization/peer_identity.hpp"
#include "platform/linux/authorization/prompts.hpp"

struct sd_bus;

namespace corvalen {

enum class PolkitVerdict : std::uint8_t {
    authorized,
    /// A user has to authenticate first, but prompting was not allowed or there is no agent.
    needsPrompt,
    denied,
    /// The user dismissed the prompt.
    dismissed,
    /// The peer went away; its prompt was withdrawn.
    abandoned,
    /// No reply (no bus, no authority, or it ended), or an unreadable one.
    unreachable,
};

struct PolkitQuestion {
    std::string action;
    RightPurpose purpose;
};

/// One connection to the system bus. Used by one thread at a time.
class PolkitConnection {
  public:
    /// Returns null if there is no system bus.
    static std::unique_ptr<PolkitConnection> open();

    /// Starts the authority if needed and returns its version; std::nullopt without a reply within
    /// 5 seconds.
    [[nodiscard]] std::optional<std::string> authorityVersion();

    /// Checks whether the peer may do the action, without a time limit: with `mayAsk` until the
    /// user replies or the peer is gone. After `abandoned` or `unreachable` the connection must not
    /// be used again.
    [[nodiscard]] PolkitVerdict checkAuthorization(const PeerIdentity& peer,
                                                   const PolkitQuestion& question, bool mayAsk,
                                                   const PeerWatch& watch);

  private:
    struct Closer {
        void operator()(sd_bus* bus) const noexcept;
    };
    explicit PolkitConnection(sd_bus* bus) noexcept : _bus(bus) {}
    /// Waits at most a second for the bus or the peer. Returns false if that fails.
    [[nodiscard]] bool waitForTraffic(const PeerWatch& watch);
    void cancelCheck() noexcept;

    std::unique_ptr<sd_bus, Closer> _bus;
};

}  // namespace corvalen
