// SPDX-License-Identifier: MIT
// Fuzzes the decoder, which both sides share, with a stream in small pieces, some with descriptors.
// An accepted message must survive encoding and decoding.
//
// The first byte of an input is the size of the pieces, the second selects the pieces with
// descriptors; the rest is the stream.
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>

#include "xpc/limits.hpp"
#include "xpc/message_stream.hpp"
#include "xpc/messages.hpp"

namespace {

using namespace corvalen;

void require(bool condition) {
    if (!condition) std::abort();
}

void checkRoundTrip(const Message& message) {
    EncodedMessage first;
    // Encoding may shorten what was received in a long form, never lengthen it.
    require(test::encode(message, first));
    if (!first.descriptors.empty()) return;
    Message again;
    require(decodeMessage(first.bytes, {}, again));
    EncodedMessage second;
    require(test::encode(again, second) && first.bytes == second.bytes);
}

std::vector<UniqueFd> openDescriptors(std::size_t count) {
    std::vector<UniqueFd> descriptors;
    for (std::size_t i = 0; i < count; ++i) {
        descriptors.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    return descriptors;
}

// Checks each message that is complete; false after a malformed one.
bool checkComplete(MessageAssembler& assembler) {
    Message message;
    MessageScanner::Status status = assembler.next(message);
    while (status == MessageScanner::Status::complete) {
        checkRoundTrip(message);
        status = assembler.next(message);
    }
    return status != MessageScanner::Status::malformed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t pieceSize = std::size_t{data[0]} + 1;
    const std::uint8_t withDescriptors = data[1];
    const auto quotas = std::make_shared<UserQuotas>();
    {
        MessageAssembler assembler(quotas);
        for (std::size_t at = 2, piece = 0; at < size; at += pieceSize, ++piece) {
            const std::size_t length = std::min(pieceSize, size - at);
            std::copy_n(data + at, length, assembler.readBuffer().begin());
            const bool attach = ((withDescriptors >> (piece % 8)) & 1U) != 0;
            const std::size_t count = attach ? piece % (wire::kMaximumEndpoints + 1) + 1 : 0;
            if (!assembler.addRead(length, openDescriptors(count))) break;
            if (!checkComplete(assembler)) break;
        }
    }
    require(quotas->charged(Resource::unfinishedBytes) == 0);
    require(quotas->charged(Resource::decodedBytes) == 0);
    return 0;
}
