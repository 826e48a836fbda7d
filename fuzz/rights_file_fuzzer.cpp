// SPDX-License-Identifier: MIT
// Fuzzes the rights file. Setting and removing another right must take effect at once and keep the
// definitions made by hand.
#include "fuzz.hpp"
#include "platform/linux/authorization/definition_files.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    using Answer = RightsFile::Answer;
    static const test::ScratchFolder folder;
    const std::string path = folder.path("store/rights");
    test::putFile(path, Input(data, size).rest(), 0600);
    RightsFile rights(path);
    const Answer known = rights.find("net.corvalen.kvx.nop");
    if (known == Answer::unreadable) return 0;
    require(rights.set("set-here", Value("allow"), "A prompt\nof two lines"));
    require(rights.find("set-here") == Answer::allow);
    require(rights.find("net.corvalen.kvx.nop") == known);
    require(rights.find("of") != Answer::allow || rights.find("of") == RightsFile(path).find("of"));
    require(rights.remove("set-here") && rights.find("set-here") == Answer::undefined);
    require(rights.find("net.corvalen.kvx.nop") == known);
    return 0;
}
