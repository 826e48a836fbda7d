// SPDX-License-Identifier: MIT
// The messages that a running operation sends to its client.
#pragma once

#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::string_view kQRLPORK_ProgressFraction = "ProgressFraction";
inline constexpr std::string_view kQRLPORK_FileObjectInfo = "FileObjectInfo";
inline constexpr std::string_view kQRLPORK_OutputData = "OutputData";
inline constexpr std::string_view kQRLPORK_ErrorData = "ErrorData";
inline constexpr std::string_view kQRLPORK_FinalFeedbackMessage = "FinalFeedbackMessage";

/// Keys of a file object info record and of the answers in user information.
inline constexpr std::string_view kKeyObjectPath = "Path";
inline constexpr std::string_view kKeyObjectType = "Type";
inline constexpr std::string_view kKeyObjectSize = "Size";
inline constexpr std::string_view kKeyObjectModificationDate = "ModificationDate";
inline constexpr std::string_view kKeyObjectPOSIXMode = "Mode";
inline constexpr std::string_view kKeyObjectExistenceInfo = "ObjectExistence";
/// In the error of an operation that was stopped: how many objects it had finished, a number.
inline constexpr std::string_view kKeyObjectCount = "ObjectCount";

/// The feedback connection of one request, open as long as the request runs. Messages are sent one
/// way and in order by the thread that runs the request; one that cannot be delivered is lost
/// without a sign.
class FeedbackConnection {
  public:
    virtual ~FeedbackConnection() = default;
    virtual void processPrivilegedOperationFeedback(Dictionary feedback) = 0;
};

/// Sends {"ProgressFraction": fraction}; nothing without a connection.
void sendProgress(FeedbackConnection* connection, double fraction);

}  // namespace corvalen
