// SPDX-License-Identifier: MIT
// Replays the corpora of the fuzzers; a failed check aborts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>

#define FUZZERS(DO) \
    DO(daemon)      \
    DO(endpoint)    \
    DO(rights_file) DO(acl) DO(argument) DO(firmware) DO(feedback) DO(command_line) DO(xpc_decoder)

#define DECLARE(name) extern "C" int fuzz_##name(const std::uint8_t* data, std::size_t size);
FUZZERS(DECLARE)

namespace {

struct Fuzzer {
    const char* name;
    int (*run)(const std::uint8_t* data, std::size_t size);
};

class FuzzCorpus : public ::testing::TestWithParam<Fuzzer> {};

/// One input a line; %XX stands for a byte.
std::string unpacked(const std::string& line) {
    std::string input;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const bool isByte = line[i] == '%';
        input +=
            isByte ? static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16)) : line[i];
        i += isByte ? 2 : 0;
    }
    return input;
}

TEST_P(FuzzCorpus, PassesTheChecksOfItsFuzzer) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    std::ifstream corpus(std::string(CORVALEN_CORPUS "/") + GetParam().name);
    int inputs = 0;
    for (std::string line; std::getline(corpus, line); ++inputs) {
        SCOPED_TRACE(line);
        const std::string input = unpacked(line);
        GetParam().run(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    EXPECT_GT(inputs, 5);
}

#define ROW(name) Fuzzer{#name, fuzz_##name},
constexpr Fuzzer kFuzzers[] = {FUZZERS(ROW)};
std::string nameOf(const ::testing::TestParamInfo<Fuzzer>& fuzzer) {
    return fuzzer.param.name;
}
INSTANTIATE_TEST_SUITE_P(Replay, FuzzCorpus, ::testing::ValuesIn(kFuzzers), nameOf);

}  // namespace
