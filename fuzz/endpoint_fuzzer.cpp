// SPDX-License-Identifier: MIT
// Fuzzes the listener's half of an endpoint with packets and descriptors of several kinds. The
// listener must take the valid offers and no others, also after the input, and no descriptor may be
// left.
#include <atomic>

#include "fuzz.hpp"
#include "xpc/listener.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen::fuzz {
namespace {

constexpr InterfaceMethod kMethods[] = {{"ask:", true}};

struct Answering : ListenerDelegate, ExportedObject, std::enable_shared_from_this<Answering> {
    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& connection) override {
        ++offers;
        connection->setExportedInterface({"Protocol", kMethods}, shared_from_this());
        connection->resume();
        return true;
    }
    CallResult handleMessage(Connection&, std::string_view, Array) override {
        return {Value("answer"), {}};
    }
    std::atomic<int> offers = 0;
};

/// Sends a packet: the number and kinds of its descriptors, then its bytes up to 0xFF. Returns true
/// if it offers a connection.
bool sendPacket(Input& input, Descriptor socket) {
    const unsigned count = input.byte() % 5;
    std::vector<UniqueFd> owned;
    std::vector<Descriptor> descriptors;
    bool hasHalf = false;
    for (unsigned i = 0; i < count; ++i) {
        const unsigned kind = input.byte();
        hasHalf = kind % 4 == kStreamHalf;
        owned.push_back(someDescriptor(kind));
        descriptors.emplace_back(owned.back());
    }
    const std::string_view bytes = input.until('\xff');
    const bool isSent = sendSome(socket, bytes, descriptors).has_value();
    return isSent && count == 1 && hasHalf && bytes == std::string_view("\0", 1);
}

void run(Input input) {
    const auto delegate = std::make_shared<Answering>();
    const auto listener = Listener::anonymousListener();
    listener->setDelegate(delegate.get());
    listener->resume();
    const EndpointRef endpoint = listener->endpoint();
    require(endpoint.descriptor != nullptr);
    int offers = 1;
    for (int packet = 0; packet < 8 && !input.empty(); ++packet)
        offers += sendPacket(input, *endpoint.descriptor);
    const auto connection = Connection::connectionToEndpoint(endpoint);
    require(connection->remoteObjectProxy().call("ask:", {}) == Value("answer"));
    require(delegate->offers == offers);
    connection->invalidate();
    listener->invalidate();
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
