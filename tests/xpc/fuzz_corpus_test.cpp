// SPDX-License-Identifier: MIT
// What the fuzzer has found worth keeping must go on passing its checks.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

TEST(FuzzCorpus, EveryInputPassesTheChecksOfTheDecoderFuzzer) {
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(XPC_FUZZ_CORPUS)) {
        SCOPED_TRACE(entry.path());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        // It aborts where a check fails.
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()),
                                         input.size()),
                  0);
        ++inputs;
    }
    EXPECT_GT(inputs, 50);
}
