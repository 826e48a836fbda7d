// SPDX-License-Identifier: MIT
#include "operations/feedback.hpp"

namespace corvalen {

void sendProgress(FeedbackConnection* connection, double fraction) {
    if (connection == nullptr) return;
    Dictionary feedback;
    feedback.set(kQRLPORK_ProgressFraction, fraction);
    connection->processPrivilegedOperationFeedback(std::move(feedback));
}

}  // namespace corvalen
