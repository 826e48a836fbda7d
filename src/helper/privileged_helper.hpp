// SPDX-License-Identifier: MIT
// The daemon object: holds the parts of the daemon and performs the messages of clients.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

#include "corvalen/error.hpp"
#include "helper/activity.hpp"
#include "helper/helper_log.hpp"
#include "helper/maintenance_operations.hpp"
#include "helper/request_pipeline.hpp"
#include "helper/service.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"
#include "platform/files/file_attributes.hpp"
#include "xpc/listener.hpp"

namespace corvalen {

/// The methods that clients may call.
[[nodiscard]] const Interface& privilegedHelperProtocol() noexcept;

/// Called exactly once per request, with an error whose code 0 means success.
using OperationReply = std::function<void(ErrorRef)>;

/// Services of the daemon object; none is null. Connections share the object, so the services live
/// until the last request has ended.
struct HelperServices {
    std::shared_ptr<SystemLog> log;
    std::shared_ptr<AuthorizationService> authorization;
    std::shared_ptr<FileFlags> fileFlags;
    /// The bound and listening socket of the service.
    UniqueFd serviceSocket;
    /// The path of that socket if this process made it and must remove it, else empty.
    std::string ownSocketPath = {};
};

/// The one daemon object of the process. Messages arrive on the threads of their connections, so
/// all methods but those marked "start-up" are thread-safe. A failing message affects only its own
/// request.
class QRLPrivilegedHelper final : public ListenerDelegate,
                                  public ExportedObject,
                                  public std::enable_shared_from_this<QRLPrivilegedHelper> {
  public:
    /// Returns the process-wide object; null before it is made and after its end.
    static std::shared_ptr<QRLPrivilegedHelper> privilegedHelper();
    /// Start-up: makes and returns the process-wide object; null without an operation set. Borrows
    /// the set, which must outlive the object.
    static std::shared_ptr<QRLPrivilegedHelper> initForOperationSet(
        const QRLPrivilegedOperationSet* operationSet, HelperServices services);
    ~QRLPrivilegedHelper() override;

    /// Start-up: see `HelperService::run`.
    void run() { _service.run(); }

    [[nodiscard]] Listener* listener() const noexcept { return &_service.listener(); }
    [[nodiscard]] std::unordered_set<std::int32_t> clientSet() const { return _clients.pids(); }
    [[nodiscard]] const QRLPrivilegedOperationSet& operationSet() const noexcept {
        return *_operationSet;
    }
    [[nodiscard]] std::uint32_t logLevel() const noexcept { return _log.level(); }
    void setLogLevel(std::uint32_t level) noexcept { _log.setLevel(level); }
    [[nodiscard]] HelperLog& log() noexcept { return _log; }
    /// Logs an operation's message about a failure; ignores an empty one.
    void logErrorMessage(std::string_view message) { _log.logErrorMessage(message); }

    bool listenerShouldAcceptNewConnection(Listener& listener,
                                           const std::shared_ptr<Connection>& connection) override;
    CallResult handleMessage(Connection& connection, std::string_view selector,
                             Array params) override;

    EndpointRef connectWithEndpoint(const PeerIdentity& peer);
    [[nodiscard]] const std::string& getVersionString() const;
    void enableDebugMode(bool enable);
    /// Returns false if the quota of `account` (null: no limits) is used up.
    bool registerClientWithPID(std::int32_t pid,
                               const std::shared_ptr<UserQuotas>& account = nullptr);
    /// Ends the process if no client is left (see `HelperService::endWhenIdle`).
    void unregisterClientWithPID(std::int32_t pid);
    /// Performs a request on this thread, which may block as long as the operation takes. Always
    /// calls `usingReply`.
    void performPrivilegedOperation(const PrivilegedRequest& request,
                                    const OperationReply& usingReply);

    /// Ends the process with status 0, regardless of connections and running requests.
    [[noreturn]] void terminatePrivilegedHelper() { _service.terminate(); }

    [[nodiscard]] ErrorRef checkAuthorization(const PrivilegedRequest& request,
                                              const OperationEntry* operation);
    // Same as the methods of MaintenanceOperations.
    ErrorRef deleteFileSystemObjectsWithPaths(const Array& paths) {
        return _maintenance.deleteFileSystemObjectsWithPaths(paths);
    }
    bool enforceRemovalOfFileSystemObjectAtPath(std::string_view path, ErrorRef* error = nullptr) {
        return _maintenance.enforceRemovalOfFileSystemObjectAtPath(path, error);
    }
    ErrorRef prepareUninstall() { return _maintenance.prepareUninstall({}); }

  private:
    QRLPrivilegedHelper(const QRLPrivilegedOperationSet& operationSet, HelperServices services);

    CallResult performMessage(Connection& connection, const Array& params);
    CallResult dispatchMessage(Connection& connection, std::string_view selector,
                               const Array& params);

    HelperLog _log;
    std::shared_ptr<AuthorizationService> _authorization;
    std::shared_ptr<FileFlags> _fileFlags;
    const QRLPrivilegedOperationSet* _operationSet;
    MaintenanceOperations _maintenance;
    ClientRegistry _clients;
    RunningRequests _requests;
    HelperService _service;
};

}  // namespace corvalen
