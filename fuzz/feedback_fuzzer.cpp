// SPDX-License-Identifier: MIT
// Fuzzes the client's feedback receiver through offered connections. No message may come after
// `finish`, and no descriptor may be left.
#include "client/feedback_receiver.hpp"

#include <atomic>

#include "fuzz.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen::fuzz {
namespace {

void run(Input input) {
    std::atomic<bool> finished{false};
    FeedbackReceiver receiver([&](const Dictionary&) { require(!finished); });
    require(receiver.endpoint().descriptor != nullptr);
    // Connections, each up to 0xFE; the first byte is the size of the pieces.
    for (int connection = 0; connection < 4 && !input.empty(); ++connection) {
        const std::size_t pieceSize = input.byte() + 1;
        std::string_view stream = input.until('\xfe');
        SocketPair pair = makeSocketPair(SOCK_STREAM);
        (void)offerConnection(receiver.endpoint(), pair.second);
        const UniqueFd sent = someDescriptor(static_cast<unsigned>(pieceSize));
        for (; !stream.empty(); stream.remove_prefix(std::min(pieceSize, stream.size()))) {
            const std::string_view piece = stream.substr(0, pieceSize);
            if (!(piece.size() % 2 == 0 ? sendWith(pair.first, piece, {sent})
                                        : sendWith(pair.first, piece, {})))
                break;
        }
    }
    (void)receiver.finish(true);
    finished = true;
}

}  // namespace
}  // namespace corvalen::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen::fuzz;
    const Surroundings surroundings;
    run(Input(data, size));
    surroundings.requireRestored();
    return 0;
}
