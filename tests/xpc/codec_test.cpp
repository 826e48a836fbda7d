// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <sstream>

#include "corvalen/error.hpp"
#include "xpc/message_assembler.hpp"
#include "xpc/support.hpp"
#include "xpc/wire_limits.hpp"

namespace corvalen {
namespace {

using test::bytes;
using Status = MessageScanner::Status;

std::vector<UniqueFd> someDescriptors(std::size_t count) {
    std::vector<UniqueFd> result(count);
    for (UniqueFd& each : result)
        each.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    return result;
}

void feed(MessageAssembler& assembler, std::string_view piece,
          std::vector<UniqueFd> descriptors = {}) {
    const std::span<char> room = assembler.readBuffer();
    ASSERT_LE(piece.size(), room.size());
    std::copy(piece.begin(), piece.end(), room.begin());
    ASSERT_TRUE(assembler.addRead(piece.size(), std::move(descriptors)));
}

/// Feeds one message in pieces of this size, with its descriptors at the first byte.
Status arrive(std::string_view data, Message& message, std::size_t pieceSize = 4096,
              std::size_t descriptors = 0, std::shared_ptr<UserQuotas> quotas = nullptr) {
    MessageAssembler assembler(std::move(quotas));
    Status status = Status::incomplete;
    for (std::size_t at = 0; at < data.size() && status == Status::incomplete; at += pieceSize) {
        feed(assembler, data.substr(at, pieceSize), someDescriptors(at == 0 ? descriptors : 0));
        status = assembler.next(message);
    }
    return status;
}

/// A response whose result is the value with these bytes.
std::string around(std::string_view value) {
    return bytes("94 01 07 c0") + std::string(value);
}
std::string header32(int first, std::size_t length) {
    std::string result(1, static_cast<char>(first));
    for (int shift = 24; shift >= 0; shift -= 8)
        result += static_cast<char>(length >> shift);
    return result;
}

TEST(Codec, MessagesHaveExactlyTheBytesOfTheProtocol) {
    EncodedMessage out;
    Message message;
    ASSERT_TRUE(encodeRequest(4294967295U, "m:", {true, Value()}, out));
    EXPECT_EQ(out.bytes, bytes("94 00 ce ff ff ff ff a2 'm:' 92 c3 c0"));
    ASSERT_EQ(arrive(out.bytes, message), Status::complete);
    EXPECT_EQ(message.identifier, 4294967295U);
    EXPECT_EQ(message.params, (Array{true, Value()}));
    ASSERT_TRUE(encodeNotification("m:", {}, out));
    EXPECT_EQ(out.bytes, bytes("93 02 a2 'm:' 90"));
    ASSERT_EQ(arrive(bytes("dc 00 03 02 d9 01 'm' dd 00 00 00 00"), message), Status::complete);
    EXPECT_EQ(message.type, MessageType::notification);
    ASSERT_TRUE(encodeRefusal(5, "no", out));
    EXPECT_EQ(out.bytes, bytes("94 01 05 a2 'no' c0"));
    ASSERT_EQ(arrive(out.bytes, message), Status::complete);
    EXPECT_EQ(message.callError, "no");
}

TEST(Codec, EveryKindOfValueHasItsBytes) {
    const ErrorRef inner = makeError("d", 2);
    const ErrorRef outer = makeError("o", -1, Dictionary{{"u", inner}});
    const std::vector<std::pair<Value, std::string>> cases = {
        {Value(), "c0"},
        {-33, "d0 df"},
        {300, "cd 01 2c"},
        {std::numeric_limits<std::int64_t>::min(), "d3 80 00 00 00 00 00 00 00"},
        {std::numeric_limits<std::uint64_t>::max(), "cf ff ff ff ff ff ff ff ff"},
        {1.5, "cb 3f f8 00 00 00 00 00 00"},
        {0.0, "cb 00 00 00 00 00 00 00 00"},
        {1.0, "cb 3f f0 00 00 00 00 00 00"},
        {-2.0, "cb c0 00 00 00 00 00 00 00"},
        {Number::fromFloat(2.0F), "ca 40 00 00 00"},
        {Number::fromFloat(1.5F), "ca 3f c0 00 00"},
        {"\xff/\xc3", "a3 ff 2f c3"},
        {Data{{0, 255}}, "c4 02 00 ff"},
        {Date{4294967295, 0}, "d6 ff ff ff ff ff"},
        {Date{4294967296, 0}, "d7 ff 00 00 00 01 00 00 00 00"},
        {Date{1, 999999999}, "d7 ff ee 6b 27 fc 00 00 00 01"},
        {Date{std::int64_t{1} << 34, 1}, "c7 0c ff 00 00 00 01 00 00 00 04 00 00 00 00"},
        {Date{-1, 0}, "c7 0c ff 00 00 00 00 ff ff ff ff ff ff ff ff"},
        {Array{1, Array{}}, "92 01 90"},
        {Dictionary{{"b", 2}, {"a", Dictionary{}}}, "82 a1 'a' 80 a1 'b' 02"},
        {inner, "c7 05 02 93 a1 'd' 02 c0"},
        {makeError("dddddddddd", 127), "c7 0e 02 93 aa 'dddddddddd' 7f c0"},
        {makeError("ddddddddddd", 128), "d8 02 93 ab 'ddddddddddd' cc 80 c0"},
        {outer, "c7 0f 02 93 a1 'o' ff 81 a1 'u' c7 05 02 93 a1 'd' 02 c0"},
    };
    Message message;
    for (const auto& [value, notation] : cases) {
        SCOPED_TRACE(notation);
        EncodedMessage out;
        ASSERT_TRUE(encodeResult(7, value, out));
        EXPECT_EQ(out.bytes, around(bytes(notation)));
        for (const std::size_t pieceSize : {1U, 3U, 4096U}) {
            ASSERT_EQ(arrive(around(bytes(notation)), message, pieceSize), Status::complete);
            EXPECT_EQ(message.result, value);
            EXPECT_EQ(message.result.className(), value.className());
        }
    }
    ASSERT_EQ(arrive(around(bytes("82 a1 'a' 01 a1 'a' 02")), message), Status::complete);
    EXPECT_EQ(message.result, Value(Dictionary{{"a", 2}}));
}

// Separated by bars; "v" stands for a response up to its result. Each message is refused at its
// last byte and is only incomplete without it.
constexpr std::string_view kMalformed = R"(
c0|01|90|92|95|a3|81|c1|d4 01|dc 00 05|dd 00 01 00 04|94 03 00 c0 c0|94 ff 00 c0 c0|93 01 00 c0|
93 00 a1 'm' 90|94 02 00 a1 'm' 90|94 a1 '0' 00 a1 'm' 90|94 00 ff a1 'm' 90|94 00 00 01 90|
94 00 cf 00 00 00 01 00 00 00 00 a1 'm' 90|94 00 ca 00 00 00 00 a1 'm' 90|94 00 00 a1 'm' c0|
93 02 c4 00 90|93 02 a1 'm' 80|94 01 00 c3 c0|94 01 00 90 c0|
v c1|v d4 00|v d4 05|v 81 01|v 82 a1 'a' 01 c0|v 81 90|v d4 ff|v d5 ff|v c7 00 ff|
v d7 ff ee 6b 28 00 00 00 00 00|v c7 0c ff 3b 9a ca 00 00 00 00 00 00 00 00 00|
v d4 01 00|v d5 01|v c7 00 01|v c7 00 02|v d4 02 c0|v d4 02 93|v d5 02 d4 02|
v c7 04 02 93 a1 'd' 02 c0|v c7 06 02 93 a1 'd' 02 c0|v c7 04 02 93 a5|v c7 04 02 92 a1 'd' 02|
v c7 05 02 93 c4 00 02 c0|v c7 08 02 93 a1 'd' ca 3f 80 00 00 c0|v c7 05 02 93 a1 'd' 02 02|
v db 01 00 00 00|v c6 ff ff ff ff|v dd ff ff ff ff|v dd 00 ff ff f8|v df 80 00 00 00|
v df 00 80 00 00|v c9 ff ff ff ff 02)";

TEST(Codec, MalformedMessagesAreRefused) {
    std::istringstream cases{std::string(kMalformed)};
    for (std::string notation; std::getline(cases, notation, '|');) {
        SCOPED_TRACE(notation);
        const std::size_t value = notation.find('v');
        const std::string data = value == std::string::npos
                                     ? bytes(notation)
                                     : around(bytes(std::string_view(notation).substr(value + 1)));
        Message message;
        EXPECT_EQ(arrive(data, message), Status::malformed);
        EXPECT_EQ(arrive(data, message, 1), Status::malformed);
        EXPECT_EQ(arrive(data.substr(0, data.size() - 1), message), Status::incomplete);
    }
}

TEST(Codec, LimitsHoldAtTheirEdges) {
    Message message;
    EncodedMessage out;
    const auto nested = [](std::size_t levels) { return std::string(levels - 2, '\x91') + '\x90'; };
    Value deep;
    for (int i = 1; i < 32; ++i)
        deep = Array{deep};
    EXPECT_EQ(arrive(around(nested(32)), message), Status::complete);
    EXPECT_EQ(arrive(around(nested(33)), message), Status::malformed);
    EXPECT_TRUE(encodeResult(7, deep, out));
    EXPECT_FALSE(encodeResult(7, Dictionary{{"k", deep}}, out));

    const std::size_t room = 16 * test::kMiB - around("").size() - 5;
    for (const int first : {0xdb, 0xc6}) {
        EXPECT_EQ(arrive(around(header32(first, room) + std::string(room, 'x')), message),
                  Status::complete);
        EXPECT_EQ(arrive(around(header32(first, room + 1)), message), Status::malformed);
    }
    EXPECT_TRUE(encodeResult(7, std::string(room, 'x'), out));
    EXPECT_FALSE(encodeResult(7, std::string(room + 1, 'x'), out));
    // Each value fits; the last byte of the message exceeds the limit.
    const auto twoTexts = [&](std::size_t length) {
        return around(bytes("92") + header32(0xdb, length) + std::string(length, 'x') + '\xa0');
    };
    EXPECT_EQ(arrive(twoTexts(room - 2), message), Status::complete);
    EXPECT_EQ(arrive(twoTexts(room - 1), message), Status::malformed);

    const std::string four = bytes("d4 01 00 d4 01 01 d4 01 02 d4 01 03");
    const auto endpoints = [&](const char* first, const std::string& all, std::size_t descriptors) {
        return arrive(around(bytes(first) + all), message, 4096, descriptors);
    };
    EXPECT_EQ(endpoints("95", four + bytes("d4 01 00"), 4), Status::malformed);
    EXPECT_EQ(endpoints("92", bytes("d4 01 00 d4 01 00"), 2), Status::malformed);
    ASSERT_EQ(endpoints("94", four, 4), Status::complete);
    const Value last = message.result.array()->at(3);
    EXPECT_TRUE(encodeResult(7, Array(4, last), out));
    EXPECT_THAT(out.descriptors, testing::Each(last.endpoint()->descriptor->get()));
    EXPECT_FALSE(encodeResult(7, Array(5, last), out));
    MessageAssembler assembler(nullptr);
    (void)assembler.readBuffer();
    EXPECT_FALSE(assembler.addRead(1, someDescriptors(5)));
}

TEST(Codec, TheDecodedSizeIsBoundedAndPaidForWhileTheMessageLives) {
    Message message;
    // Refused at the header, before memory for the elements is reserved.
    EXPECT_EQ(arrive(around(header32(0xdd, 15000000)), message), Status::malformed);
    const std::size_t most = (wire::kMaximumDecodedSize - 1024) / sizeof(Value);
    EXPECT_EQ(arrive(around(header32(0xdd, most) + std::string(most, '\xc0')), message),
              Status::complete);
    EXPECT_EQ(arrive(around(header32(0xdd, most + 1024)), message), Status::malformed);

    std::string paths = header32(0xdd, 100000);
    for (int i = 0; i < 100000; ++i)
        paths += bytes("d9 64") + std::string(100, 'p');
    const auto quotas = std::make_shared<UserQuotas>();
    ASSERT_EQ(arrive(around(paths), message, 4096, 0, quotas), Status::complete);
    EXPECT_EQ(message.result.array()->size(), 100000U);
    EXPECT_EQ(quotas->charged(Resource::unfinishedBytes), 0U);
    const std::size_t paid = quotas->charged(Resource::decodedBytes);
    EXPECT_GT(paid, 100000U * (sizeof(Value) + 100));
    // Fill the user's quota with copies.
    std::vector<Message> kept(wire::kMaximumDecodedBytesPerUser / paid - 1);
    for (Message& each : kept)
        ASSERT_EQ(arrive(around(paths), each, 4096, 0, quotas), Status::complete);
    Message oneMore;
    EXPECT_EQ(arrive(around(paths), oneMore, 4096, 0, quotas), Status::malformed);
    kept.clear();
    message = Message();
    EXPECT_EQ(quotas->charged(Resource::decodedBytes), 0U);
}

TEST(Codec, AMessageThatArrivesByteByByteIsNotReadAgainAndAgain) {
    // A rescan from the start at each byte would read 5 * 10^11 bytes and run into the timeout.
    constexpr std::size_t kCount = 1000000;
    Message message;
    ASSERT_EQ(arrive(around(header32(0xdd, kCount) + std::string(kCount, '\x01')), message, 1),
              Status::complete);
}

TEST(Codec, DescriptorsGoToTheMessageThatBringsThem) {
    const std::ptrdiff_t before = test::openDescriptors();
    const std::string plain = bytes("93 02 a1 'p' 90");
    const std::string holder = bytes("93 02 a1 'h' 91 d4 01 00");
    auto assembler = std::make_unique<MessageAssembler>(nullptr);
    Message message;
    const auto next = [&](std::string_view piece, std::size_t descriptors) {
        feed(*assembler, piece, someDescriptors(descriptors));
        return assembler->next(message);
    };
    // One read with the end of a message, a whole message, and the message of the descriptor.
    EXPECT_EQ(next(plain.substr(0, 2), 0), Status::incomplete);
    EXPECT_EQ(next(plain.substr(2) + plain + holder.substr(0, 3), 1), Status::complete);
    EXPECT_EQ(assembler->next(message), Status::complete);
    EXPECT_EQ(assembler->next(message), Status::incomplete);
    // Descriptors in the middle of a message are closed at once.
    EXPECT_EQ(next(holder.substr(3, 2), 2), Status::incomplete);
    EXPECT_EQ(test::openDescriptors(), before + 1);
    ASSERT_EQ(next(holder.substr(5), 0), Status::complete);
    EXPECT_NE(message.params[0].endpoint(), nullptr);
    // Descriptors that no endpoint value refers to, alone and among others.
    EXPECT_EQ(next(plain, 3), Status::complete);
    EXPECT_EQ(next(holder, 3), Status::complete);
    EXPECT_EQ(test::openDescriptors(), before + 1);
    // An endpoint without a descriptor does not take one of an earlier message.
    EXPECT_EQ(next(plain, 1), Status::complete);
    EXPECT_EQ(next(holder, 0), Status::malformed);
    // Unclaimed descriptors are closed with the connection.
    assembler = std::make_unique<MessageAssembler>(nullptr);
    EXPECT_EQ(next(holder.substr(0, 3), 4), Status::incomplete);
    assembler.reset();
    message = Message();
    EXPECT_EQ(test::openDescriptors(), before);
}

}  // namespace
}  // namespace corvalen
