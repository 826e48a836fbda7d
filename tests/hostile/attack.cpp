// SPDX-License-Identifier: MIT
// Runs one attack by its name, as the calling user, until it is ended: corvalen-attack NAME.
#include <cstdio>
#include <map>

#include "hostile/attacks.hpp"

int main(int argc, char** argv) {
    using namespace corvalen::test;
    const std::map<std::string, bool (*)()> attacks = {
        {"linger-past-quota", lingerPastTheQuota},
        {"linger-in-junk", lingerInJunkPackets},
        {"linger-in-offers", lingerInOffers},
        {"pin-buffers", pinBuffers},
        {"register-numbers", registerManyNumbers},
        {"flood-log", floodLog},
        {"unregister", unregisterForEver},
        {"flood-backlog", floodBacklog},
        {"connect", connectForEver},
        {"garbage", sendGarbageForEver},
    };
    const auto attack = attacks.find(argc == 2 ? argv[1] : "");
    if (attack != attacks.end()) {
        (void)attack->second();
        for (;;)
            ::pause();
    }
    for (const auto& [name, run] : attacks)
        std::printf("%s\n", name.c_str());
    return argc == 1 ? 0 : 2;
}
