// SPDX-License-Identifier: MIT
// The daemon object: the service, its clients, and what they may ask for.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "corvalen/error.hpp"
#include "helper/client_registry.hpp"
#include "helper/helper_log.hpp"
#include "helper/process_setup.hpp"
#include "helper/running_requests.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization.hpp"
#include "platform/file_flags.hpp"
#include "xpc/listener.hpp"

namespace corvalen {

/// What clients may call.
[[nodiscard]] const Interface& privilegedHelperProtocol() noexcept;

/// Called exactly once a request, with an error whose code 0 means success.
using OperationReply = std::function<void(ErrorRef)>;

/// What the daemon object stands on and keeps; none is null. Connections keep the object, so all of
/// this lives until the last request has ended.
struct HelperServices {
    std::shared_ptr<SystemLog> log;
    std::shared_ptr<AuthorizationService> authorization;
    std::shared_ptr<FileFlags> fileFlags;
    /// The bound and listening socket of the service.
    UniqueFd serviceSocket;
    /// The path of that socket when this process made it and has to remove it, else empty.
    std::string ownSocketPath = {};
};

/// One request as it was received. Borrows everything.
struct PrivilegedRequest {
    OperationCode code = kNoOperationCode;
    std::string_view authorizationData;
    EndpointRef feedbackEndpoint;
    /// Null when the client sent no list.
    const Array* arguments = nullptr;
    /// Who asks, as the kernel says.
    const PeerIdentity& peer;
};

/// The one daemon object of the process. Messages arrive on the threads of their connections, so
/// every method may be called by several threads at once, except where it says start-up. Nothing
/// that a client sends gets past its own request.
class QRLPrivilegedHelper final : public ListenerDelegate,
                                  public ExportedObject,
                                  public std::enable_shared_from_this<QRLPrivilegedHelper> {
  public:
    /// The process-wide object, or null before the first one is made and after the last is gone.
    static std::shared_ptr<QRLPrivilegedHelper> privilegedHelper();
    /// Start-up: makes the process-wide object ready to run, or gives null without an operation
    /// set. The set outlives the object.
    static std::shared_ptr<QRLPrivilegedHelper> initForOperationSet(
        const QRLPrivilegedOperationSet* operationSet, HelperServices services);
    ~QRLPrivilegedHelper() override;

    /// Start-up: serves until the process is asked to end by a signal that the caller has blocked
    /// in all threads (see process_setup.hpp). Then nothing new begins, walks end before their next
    /// object, and operations on single objects are finished; returns within a second.
    void run();

    [[nodiscard]] Listener* listener() const noexcept { return _listener.get(); }
    [[nodiscard]] std::unordered_set<std::int32_t> clientSet() const { return _clients.pids(); }
    [[nodiscard]] RunningRequests& requests() noexcept { return _requests; }
    [[nodiscard]] const QRLPrivilegedOperationSet& operationSet() const noexcept {
        return *_operationSet;
    }
    [[nodiscard]] std::uint32_t logLevel() const noexcept { return _log.level(); }
    void setLogLevel(std::uint32_t level) noexcept { _log.setLevel(level); }
    [[nodiscard]] HelperLog& log() noexcept { return _log; }
    /// Logs what an operation has to say of a failure; an empty message logs nothing.
    void logErrorMessage(std::string_view message);

    bool listenerShouldAcceptNewConnection(Listener& listener,
                                           const std::shared_ptr<Connection>& connection) override;
    CallResult handleMessage(Connection& connection, std::string_view selector,
                             Array params) override;

    EndpointRef connectWithEndpoint(const PeerIdentity& peer);
    [[nodiscard]] const std::string& getVersionString() const;
    void enableDebugMode(bool enable);
    /// False when `account`, which pays for it (null: nobody), has no room for one more.
    bool registerClientWithPID(std::int32_t pid,
                               const std::shared_ptr<UserQuotas>& account = nullptr);
    /// Ends the process when no client is left: at once, or as soon as every request that is under
    /// way has been answered, unless somebody has registered by then.
    void unregisterClientWithPID(std::int32_t pid);
    /// Takes a request through all its steps on this thread, which may block as long as the
    /// operation takes. The reply is called whatever happens.
    void performPrivilegedOperation(const PrivilegedRequest& request,
                                    const OperationReply& usingReply);

    /// Ends the process with status 0, whoever is still connected and whatever is under way.
    [[noreturn]] void terminatePrivilegedHelper();

    [[nodiscard]] ErrorRef checkAuthorization(const PrivilegedRequest& request,
                                              const OperationEntry* operation);
    /// Deletes the objects one by one and goes on after failures: the error of the last path that
    /// failed, or null. Elements that are no strings are skipped.
    ErrorRef deleteFileSystemObjectsWithPaths(const Array& paths);
    /// Removes one object, unlocked before, without following a link and without descending: POSIX
    /// 22 for no path, 5 for a whiteout and for protection that cannot be taken off, else the
    /// POSIX error of the call that failed.
    bool enforceRemovalOfFileSystemObjectAtPath(std::string_view path, ErrorRef* error = nullptr);
    /// Removes the definitions of all rights.
    ErrorRef prepareUninstall();

  private:
    QRLPrivilegedHelper(const QRLPrivilegedOperationSet& operationSet, HelperServices services);

    CallResult performMessage(Connection& connection, const Array& params);
    CallResult dispatchMessage(Connection& connection, std::string_view selector,
                               const Array& params);
    void removeOwnSocket() noexcept;
    void endIfIdle();
    std::optional<std::chrono::milliseconds> attend();
    void letOperationsFinish();

    HelperLog _log;
    std::shared_ptr<AuthorizationService> _authorization;
    std::shared_ptr<FileFlags> _fileFlags;
    const QRLPrivilegedOperationSet* _operationSet;
    std::string _ownSocketPath;
    std::shared_ptr<UserQuotaTable> _quotas = std::make_shared<UserQuotaTable>();
    ClientRegistry _clients;
    RunningRequests _requests;
    TerminationWait _wait;
    /// The last client has gone, and the process ends as soon as nothing is under way.
    std::atomic<bool> _endRequested{false};
    std::unique_ptr<Listener> _listener;
};

}  // namespace corvalen
