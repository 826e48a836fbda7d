// SPDX-License-Identifier: MIT
// The authority of polkit(8) as the system bus offers it (org.freedesktop.PolicyKit1.Authority).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/authorization.hpp"
#include "platform/linux/authorization_prompts.hpp"
#include "platform/peer_identity.hpp"

struct sd_bus;

namespace corvalen {

enum class PolkitVerdict : std::uint8_t {
    authorized,
    /// Somebody has to authenticate first, and asking was not allowed or no agent could ask.
    needsPrompt,
    denied,
    /// The one who was asked dismissed the prompt.
    dismissed,
    /// The peer went away; its prompt was taken back.
    abandoned,
    /// No answer came (no bus, no authority, or one that ended meanwhile) or it cannot be read.
    unreachable,
};

struct PolkitQuestion {
    std::string action;
    RightPurpose purpose;
};

/// One connection to the system bus. Used by one thread at a time.
class PolkitConnection {
  public:
    /// Null when there is no system bus.
    static std::unique_ptr<PolkitConnection> open();

    /// The version of the authority that answers, started when needed; nothing when none does
    /// within a few seconds.
    [[nodiscard]] std::optional<std::string> authorityVersion();

    /// Asks whether the peer may do the action, as long as that takes: with `mayAsk` until the user
    /// has answered or the peer is gone. After `abandoned` or `unreachable` the connection is
    /// of no use any more.
    [[nodiscard]] PolkitVerdict checkAuthorization(const PeerIdentity& peer,
                                                   const PolkitQuestion& question, bool mayAsk,
                                                   const PeerWatch& watch);

  private:
    struct Closer {
        void operator()(sd_bus* bus) const noexcept;
    };
    explicit PolkitConnection(sd_bus* bus) noexcept : _bus(bus) {}
    /// False when the watch or the bus ended the waiting.
    [[nodiscard]] bool waitForTraffic(const PeerWatch& watch);
    void cancelCheck() noexcept;

    std::unique_ptr<sd_bus, Closer> _bus;
};

}  // namespace corvalen
