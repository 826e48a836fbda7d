// SPDX-License-Identifier: MIT
// Comparison with a file of the source tree.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/scratch_folder.hpp"

namespace corvalen::test {

/// Compares the whole text with a golden file. CORVALEN_UPDATE_GOLDEN rewrites the file, for a
/// change of the contract; read the difference before you commit it.
inline void expectGolden(const std::string& name, const std::string& text) {
    const std::string path = std::string(CORVALEN_GOLDEN) + "/" + name;
    if (std::getenv("CORVALEN_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
    EXPECT_EQ(text, textOf(path)) << "differs from tests/golden/" << name;
}

}  // namespace corvalen::test
