// SPDX-License-Identifier: MIT
// Runs one of a fixed set of utilities of the operating system and forwards its output.
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
#include "operations/method_table.hpp"

namespace corvalen {

inline constexpr std::string_view kExecuteUtilitySelector =
    "performOperationExecuteUtilityWithArguments:feedbackConnection:";

/// The PATH of the one utility that gets one.
inline constexpr std::string_view kSafePath = "/usr/bin:/bin:/usr/sbin:/sbin";

/// Any thread may call the operation; one utility runs at a time, whoever asked for it, and the
/// others wait. The table of utilities never changes.
class UtilityOperations final : public OperationGroup, private QRLTaskExecutorDelegate {
  public:
    /// `descriptorLimit` is what the utilities get (setrlimit(2)); they have the limit of this
    /// process when there is none. `logErrorMessage` (may be empty) writes a line to the log.
    explicit UtilityOperations(std::optional<rlimit> descriptorLimit = std::nullopt,
                               std::function<void(std::string_view line)> logErrorMessage = {},
                               DrainLimits drainLimits = {});

    void registerMethods(MethodTable& table) override;

    /// Arguments: the path of the client application's bundle, the name of the utility, and the
    /// utility's own arguments.
    ErrorRef performOperationExecuteUtilityWithArguments(const Array& arguments,
                                                         FeedbackConnection* feedbackConnection);

    /// The path behind the name of a utility; nothing for an unknown one. The outputs may be null;
    /// they stay as they are when the path of the application or the name is empty.
    [[nodiscard]] static std::optional<std::string> trustedPathForApplicationPath(
        std::string_view applicationPath, std::string_view utilityName, bool* isExternal,
        bool* needsSafePathEnvironment);

    /// Whom the output goes to during a run. Kept on purpose after a run that failed, and not used
    /// any more then: its request may be over.
    [[nodiscard]] const FeedbackConnection* outputConnection() const noexcept {
        return _outputConnection;
    }

  private:
    ErrorRef executeTrusted(bool trusted, const ExecutableFile& systemProgram,
                            const std::vector<std::string>& arguments, bool safePathEnvironment,
                            FeedbackConnection* connection);
    void receiveTaskOutput(Data data, bool isError) override;

    void tellWhatWasCutOff(const ExecutableFile& program) const;

    std::optional<rlimit> _descriptorLimit;
    std::function<void(std::string_view line)> _logErrorMessage;
    DrainLimits _drainLimits;
    std::mutex _oneUtilityAtATime;
    std::atomic<FeedbackConnection*> _outputConnection{nullptr};
};

}  // namespace corvalen
