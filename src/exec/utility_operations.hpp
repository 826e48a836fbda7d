// SPDX-License-Identifier: MIT
// Runs one of a fixed set of utilities and forwards its output.
#pragma once

#include <sys/resource.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "exec/task_executor.hpp"
#include "operations/operation_rows.hpp"

namespace corvalen {

/// The PATH of "periodic"; the other utilities get none.
inline constexpr std::string_view kSafePath = "/usr/bin:/bin:/usr/sbin:/sbin";

/// Any thread may call the operation. Only one utility runs at a time; further calls block until
/// their turn. The table of utilities is constant.
class UtilityOperations final : public GroupOfRows<UtilityOperations>,
                                private QRLTaskExecutorDelegate {
  public:
    /// `descriptorLimit`: RLIMIT_NOFILE of the utilities (setrlimit(2)); without it they inherit
    /// this process's. `logErrorMessage` writes a line to the log; may be empty.
    explicit UtilityOperations(std::optional<rlimit> descriptorLimit = std::nullopt,
                               std::function<void(std::string_view line)> logErrorMessage = {},
                               DrainLimits drainLimits = {});

    /// Arguments: the path of the client application's bundle, the name of the utility, and the
    /// utility's own arguments.
    ErrorRef performOperationExecuteUtilityWithArguments(const Array& arguments,
                                                         FeedbackConnection* feedbackConnection);

    /// Returns the path of a utility; std::nullopt for an unknown name. "External" are all
    /// utilities but lipo, which is part of the application. The output pointers may be null. If
    /// the application's path or the name is empty, the outputs stay unchanged.
    [[nodiscard]] static std::optional<std::string> trustedPathForApplicationPath(
        std::string_view applicationPath, std::string_view utilityName, bool* isExternal,
        bool* needsSafePathEnvironment);

    /// The receiver of the output during a run. Kept on purpose after a failed run, but not to be
    /// used then: its request may be over.
    [[nodiscard]] const FeedbackConnection* outputConnection() const noexcept {
        return _outputConnection;
    }

  private:
    /// Runs the program; unless `trusted`, only if root alone can change it or its directory.
    ErrorRef executeTrusted(bool trusted, const ExecutableFile& program,
                            const std::vector<std::string>& arguments, bool safePathEnvironment,
                            FeedbackConnection* connection);
    void receiveTaskOutput(Data data, bool isError) override;

    /// Logs that what the program's processes still write is discarded.
    void logCutOffOutput(const ExecutableFile& program) const;

    std::optional<rlimit> _descriptorLimit;
    std::function<void(std::string_view line)> _logErrorMessage;
    DrainLimits _drainLimits;
    std::mutex _oneUtilityAtATime;
    std::atomic<FeedbackConnection*> _outputConnection{nullptr};
};

}  // namespace corvalen
