// SPDX-License-Identifier: MIT
// Fuzzes the decoder, which both sides share, with a stream in small pieces, some with descriptors.
// An accepted message must survive encoding and decoding.
//
// The first byte of an input is the size of the pieces, the second selects the pieces with
// descriptors; the rest is the stream.
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>

#include "xpc/message_assembler.hpp"
#include "xpc/wire_limits.hpp"

namespace {

using namespace corvalen;

void require(bool condition) {
    if (!condition) std::abort();
}

bool encode(const Message& message, EncodedMessage& out) {
    switch (message.type) {
        case MessageType::request:
            return encodeRequest(message.identifier, message.method, message.params, out);
        case MessageType::notification:
            return encodeNotification(message.method, message.params, out);
        case MessageType::response:
            return message.callError ? encodeRefusal(message.identifier, *message.callError, out)
                                     : encodeResult(message.identifier, message.result, out);
    }
    return false;
}

void checkRoundTrip(const Message& message) {
    EncodedMessage first;
    // Encoding may shorten what was received in a long form, never lengthen it.
    require(encode(message, first));
    if (!first.descriptors.empty()) return;
    Message again;
    require(decodeMessage(first.bytes, {}, again));
    EncodedMessage second;
    require(encode(again, second) && first.bytes == second.bytes);
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
            std::vector<UniqueFd> descriptors;
            if (((withDescriptors >> (piece % 8)) & 1U) != 0) {
                for (std::size_t i = 0; i <= piece % (wire::kMaximumEndpoints + 1); ++i) {
                    descriptors.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
                }
            }
            if (!assembler.addRead(length, std::move(descriptors))) break;
            Message message;
            MessageScanner::Status status = assembler.next(message);
            while (status == MessageScanner::Status::complete) {
                checkRoundTrip(message);
                status = assembler.next(message);
            }
            if (status == MessageScanner::Status::malformed) break;
        }
    }
    require(quotas->charged(Resource::unfinishedBytes) == 0);
    require(quotas->charged(Resource::decodedBytes) == 0);
    return 0;
}
