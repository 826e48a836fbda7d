// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "support/packed.hpp"

namespace corvalen::test {

/// Runs a fuzzer with each input of its corpus, one a line; a failed check aborts.
inline void replay(const std::string& name, int (*fuzz)(const std::uint8_t*, std::size_t)) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    std::ifstream corpus(CORVALEN_CORPUS "/" + name);
    int inputs = 0;
    for (std::string line; std::getline(corpus, line); ++inputs) {
        SCOPED_TRACE(line);
        const std::string input = unpacked(line);
        fuzz(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    EXPECT_GT(inputs, 5);
}

}  // namespace corvalen::test
