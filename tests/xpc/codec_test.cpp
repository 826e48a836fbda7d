// SPDX-License-Identifier: MIT
#include <fmt/ranges.h>
#include <malloc.h>

#include "support/golden.hpp"
#include "xpc/limits.hpp"
#include "xpc/message_stream.hpp"
#include "xpc/support.hpp"

namespace corvalen {
namespace {

using Status = MessageScanner::Status;

constexpr std::size_t kUsualChunk = 4096;
const EndpointRef kEndpoint{std::make_shared<const UniqueFd>(::memfd_create("", MFD_CLOEXEC))};

Status add(MessageAssembler& assembler, std::string_view chunk, Message& message,
           std::size_t descriptors = 0) {
    std::copy(chunk.begin(), chunk.end(), assembler.readBuffer().begin());
    const bool isAllowed = assembler.addRead(chunk.size(), test::numberedFiles(descriptors));
    return isAllowed ? assembler.next(message) : Status::malformed;
}

/// Receives a stream in chunks of one size.
class Receiver {
  public:
    explicit Receiver(std::size_t chunkSize) : _chunkSize(chunkSize) {}

    /// Returns the messages of a piece, a refusal, and the number of descriptors that are kept.
    std::string receive(std::string_view piece, std::size_t descriptors) {
        std::vector<std::string> events;
        Status status = Status::incomplete;
        _received += piece;
        while (status == Status::incomplete && !piece.empty()) {
            const std::string_view chunk = piece.substr(0, _chunkSize);
            piece.remove_prefix(chunk.size());
            Message message;
            status = add(_assembler, chunk, message, std::exchange(descriptors, 0U));
            for (; status == Status::complete; status = _assembler.next(message))
                events.push_back(outcomeOf(message));
        }
        if (status == Status::malformed)
            events.emplace_back(piece.empty() ? "malformed" : "malformed early");
        else if (!_assembler.isWithinMessage() && _encoded != _received)
            events.push_back("encoded as " + _encoded);
        const std::ptrdiff_t kept = test::openDescriptors() - _descriptorsBefore;
        if (kept > 0) events.push_back(fmt::format("{} kept", kept));
        return events.empty() ? "nothing" : fmt::format("{}", fmt::join(events, "; "));
    }

  private:
    /// Describes a message, the descriptors of its encoding, and what does not fit around it.
    std::string outcomeOf(const Message& message) {
        EncodedMessage out;
        EXPECT_TRUE(test::encode(message, out));
        _encoded += out.bytes;
        std::string text = test::described(message);
        if (text.size() > 200) text = fmt::format("{}... of {}", text.substr(0, 40), text.size());
        for (const Descriptor each : out.descriptors)
            text += fmt::format(" +{}", ::lseek(each.get(), 0, SEEK_CUR));
        const std::pair<const char*, Value> larger[] = {
            {"array", Array{message.result}},
            {"dictionary", Dictionary{{"", message.result}}},
            {"endpoint", Array{message.result, kEndpoint}},
        };
        for (const auto& [name, value] : larger)
            if (!encodeResult(7, value, out)) text.append(", no ").append(name);
        return text;
    }

    const std::ptrdiff_t _descriptorsBefore = test::openDescriptors();
    const std::size_t _chunkSize;
    MessageAssembler _assembler{nullptr};
    std::string _received, _encoded;
};

/// Returns what each piece of a stream brings.
std::string received(std::size_t chunkSize, const std::string& notation) {
    Receiver receiver(chunkSize);
    std::string text;
    test::forEachPiece(notation, [&](const std::string& piece, std::size_t descriptors) {
        text += (text.empty() ? "" : " | ") + receiver.receive(piece, descriptors);
    });
    return text;
}

class Codec : public test::NothingLeftBehind {};

TEST_F(Codec, MessagesHaveExactlyTheBytesOfTheProtocol) {
    const auto inAnyChunks = [](const std::string& notation) {
        std::string outcome = received(kUsualChunk, notation);
        for (const std::size_t chunkSize : {1U, 3U})
            EXPECT_EQ(received(chunkSize, notation), outcome) << notation;
        return outcome;
    };
    test::expectRows("messages.txt", {{"messages", inAnyChunks}});
}

TEST_F(Codec, LimitsHoldAtTheirEdges) {
    const auto inPieces = std::bind_front(received, kUsualChunk);
    test::expectRows("streams.txt", {{"limits", inPieces}, {"descriptors", inPieces}});
}

TEST_F(Codec, ALargeBufferGoesWithItsMessage) {
    const auto inUse = [] {
        const struct mallinfo2 info = ::mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    // The next message may have begun in the last read.
    for (const char* const next : {"", " 93 02"}) {
        const auto quotas = std::make_shared<UserQuotas>();
        const std::string data =
            test::bytes(std::string("94 01 07 c0 db 00 10 00 00 1048576*78") + next);
        MessageAssembler assembler(quotas);
        const std::size_t before = inUse();
        {
            Message message;
            Status status = Status::incomplete;
            for (std::size_t at = 0; at < data.size(); at += kUsualChunk)
                status = add(assembler, std::string_view(data).substr(at, kUsualChunk), message);
            EXPECT_EQ(status, Status::complete);
            EXPECT_EQ(quotas->charged(Resource::unfinishedBytes), 0U);
        }
        EXPECT_LT(inUse(), before + 65536) << next;
    }
}

TEST_F(Codec, TheDecodedSizeIsPaidForWhileTheMessageLives) {
    const std::string data =
        test::bytes("94 01 07 c0 92 dd 00 01 86 a0 100000*c0 db 00 01 86 a0 100000*78");
    const auto quotas = std::make_shared<UserQuotas>();
    const auto arrive = [&](Message& message) {
        MessageAssembler assembler(quotas);
        Status status = Status::incomplete;
        for (std::size_t at = 0; at < data.size(); at += kUsualChunk)
            status = add(assembler, std::string_view(data).substr(at, kUsualChunk), message);
        return status;
    };
    Message first, second;
    ASSERT_EQ(arrive(first), Status::complete);
    EXPECT_EQ(quotas->charged(Resource::unfinishedBytes), 0U);
    const std::size_t paid = quotas->charged(Resource::decodedBytes);
    EXPECT_GT(paid, 100000 * (sizeof(Value) + 1));
    const std::size_t others = wire::kMaximumDecodedBytesPerUser - 2 * paid + 1;
    ASSERT_TRUE(quotas->charge(Resource::decodedBytes, others));
    EXPECT_EQ(arrive(second), Status::malformed);
    first = Message();
    EXPECT_EQ(arrive(second), Status::complete);
    EXPECT_EQ(quotas->charged(Resource::decodedBytes), others + paid);
}

}  // namespace
}  // namespace corvalen
