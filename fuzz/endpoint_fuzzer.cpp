// SPDX-License-Identifier: MIT
// Fuzzes the listener's half of an endpoint with packets and descriptors of several kinds. After
// each input the listener must take a valid offer, and no descriptor may be left.
#include "fuzz.hpp"
#include "xpc/endpoint.hpp"
#include "xpc/listener.hpp"

namespace corvalen::fuzz {
namespace {

constexpr InterfaceMethod kMethods[] = {{"ask:", true}};

struct Answering : ListenerDelegate, ExportedObject, std::enable_shared_from_this<Answering> {
    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& connection) override {
        connection->setExportedInterface({"Protocol", kMethods}, shared_from_this());
        connection->resume();
        return true;
    }
    CallResult handleMessage(Connection&, std::string_view, Array) override {
        return {Value("answer"), {}};
    }
};

/// Sends a packet: the number and kinds of its descriptors, then its bytes up to 0xFF.
void sendPacket(Input& input, int socket) {
    const unsigned count = input.byte() % 5;
    std::vector<UniqueFd> owned;
    std::vector<int> descriptors;
    for (unsigned i = 0; i < count; ++i) {
        owned.push_back(someDescriptor(input.byte()));
        descriptors.push_back(owned.back().get());
    }
    (void)sendSome(socket, input.until('\xff'), descriptors);
}

void run(Input input) {
    const auto delegate = std::make_shared<Answering>();
    const auto listener = Listener::anonymousListener();
    listener->setDelegate(delegate.get());
    listener->resume();
    const EndpointRef endpoint = listener->endpoint();
    require(endpoint.descriptor != nullptr);
    for (int packet = 0; packet < 8 && !input.empty(); ++packet)
        sendPacket(input, endpoint.descriptor->get());
    const auto connection = Connection::connectionToEndpoint(endpoint);
    require(connection->remoteObjectProxy().call("ask:", {}) == Value("answer"));
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
