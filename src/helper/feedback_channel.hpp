// SPDX-License-Identifier: MIT
// The connection to a client that carries an operation's feedback.
#pragma once

#include <chrono>
#include <memory>

#include "foundation/result.hpp"
#include "operations/operation_rows.hpp"
#include "xpc/connection.hpp"
#include "xpc/limits.hpp"

namespace corvalen {

/// A client that accepts no feedback for this long loses it; its operation continues.
inline constexpr std::chrono::seconds kFeedbackSendTimeout{30};

/// The feedback connection of one request. Only the request's thread uses it. Destroying it closes
/// the connection.
class FeedbackChannel final : public FeedbackConnection {
  public:
    /// Connects to the client's listener and sends the first message. POSIX ENOBUFS if the user has
    /// too many feedback connections that are not read to their end: the kernel keeps what was sent
    /// over them, in memory of this process. `quotas` may be null (no limits).
    [[nodiscard]] static Result<std::unique_ptr<FeedbackChannel>, ErrorRef> open(
        const EndpointRef& endpoint, Dictionary openingMessage, std::shared_ptr<UserQuotas> quotas);
    ~FeedbackChannel() override;

    void processPrivilegedOperationFeedback(Dictionary feedback) override;
    void processLater(Dictionary feedback) override;
    void flush() override;
    /// The address that names the connection in the log.
    [[nodiscard]] const void* address() const noexcept { return _connection.get(); }

  private:
    FeedbackChannel(std::shared_ptr<Connection> connection, QuotaCharge charge);

    std::shared_ptr<Connection> _connection;
    QuotaCharge _charge;
    RemoteObjectProxy _proxy;
};

}  // namespace corvalen
