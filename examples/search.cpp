// SPDX-License-Identifier: MIT
// Prints the paths of all log files below a directory that only root can read.
//   c++ -std=c++20 search.cpp $(pkg-config --cflags --libs corvalenclient) -o search
//   ./search /var/log
#include <corvalen/client.hpp>
#include <corvalen/failure.hpp>
#include <cstdio>

using namespace corvalen;

namespace {

int fail(const ErrorRef& error) {
    std::fprintf(stderr, "%s\n", describeFailure(error).c_str());
    return 1;
}

// Runs on a thread of the library, for one message at a time.
void printFound(const Dictionary& message) {
    const Value* found = message.find("FileObjectInfo");
    const Array* records = found != nullptr ? found->array() : nullptr;
    if (records == nullptr) return;  // a message about something else
    for (const Value& record : *records) {
        const Value* path = record.dictionary() ? record.dictionary()->find("Path") : nullptr;
        if (path != nullptr && path->string() != nullptr) std::puts(path->string()->c_str());
    }
}

}  // namespace

int main(int count, char** words) {
    if (count != 2) {
        std::fprintf(stderr, "usage: search DIRECTORY\n");
        return 2;
    }
    ErrorRef error;
    const auto client = Client::connect({}, &error);
    // The daemon runs until the last registered client unregisters.
    if (client == nullptr || !client->registerClient(0, &error)) return fail(error);
    // All mounts ("0"), and one rule: type 2 (extension), "log". See corvalen-protocol(7).
    const OperationResult result =
        client->perform("search-patterns", {words[1], "0", "2", "log"}, printFound);
    client->unregisterClient();
    return result.succeeded() ? 0 : fail(result.error);
}
