// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

TEST(FuzzCorpus, EveryInputPassesTheChecksOfTheDecoderFuzzer) {
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(XPC_FUZZ_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        // It aborts where a check fails.
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
        ++inputs;
    }
    EXPECT_GT(inputs, 50);
}
