// SPDX-License-Identifier: MIT
// The messages that a running operation sends to its client.
#pragma once

#include <string_view>
#include <utility>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::string_view kQRLPORK_ProgressFraction = "ProgressFraction";
inline constexpr std::string_view kQRLPORK_FileObjectInfo = "FileObjectInfo";
inline constexpr std::string_view kQRLPORK_OutputData = "OutputData";
inline constexpr std::string_view kQRLPORK_ErrorData = "ErrorData";
inline constexpr std::string_view kQRLPORK_FinalFeedbackMessage = "FinalFeedbackMessage";

/// Keys of file object info records, and of answers in user info.
inline constexpr std::string_view kKeyObjectPath = "Path";
inline constexpr std::string_view kKeyObjectType = "Type";
inline constexpr std::string_view kKeyObjectSize = "Size";
inline constexpr std::string_view kKeyObjectModificationDate = "ModificationDate";
inline constexpr std::string_view kKeyObjectPOSIXMode = "Mode";
inline constexpr std::string_view kKeyObjectExistenceInfo = "ObjectExistence";
/// In the error of a stopped operation: the number of finished objects.
inline constexpr std::string_view kKeyObjectCount = "ObjectCount";

/// The feedback connection of one request. The request's thread sends messages in order and without
/// replies; a message that cannot be delivered is dropped silently.
class FeedbackConnection {
  public:
    virtual ~FeedbackConnection() = default;
    virtual void processPrivilegedOperationFeedback(Dictionary feedback) = 0;
};

/// Sends {"ProgressFraction": fraction}; does nothing if `connection` is null.
inline void sendProgress(FeedbackConnection* connection, double fraction) {
    if (connection == nullptr) return;
    Dictionary feedback;
    feedback.set(kQRLPORK_ProgressFraction, fraction);
    connection->processPrivilegedOperationFeedback(std::move(feedback));
}

}  // namespace corvalen
