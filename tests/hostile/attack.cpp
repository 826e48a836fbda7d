// SPDX-License-Identifier: MIT
// Runs one attack by its name, as the calling user, until it is ended: corvalen-attack NAME.
#include <cstdio>

#include "hostile/attacks.hpp"

int main(int argc, char** argv) {
    const auto& attacks = corvalen::test::attacks();
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
