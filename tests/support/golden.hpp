// SPDX-License-Identifier: MIT
// Comparison with files of the source tree, which lie beside the test in CORVALEN_GOLDEN.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "support/scratch_folder.hpp"

namespace corvalen::test {

inline std::string goldenPath(const std::string& name) {
    return std::string(CORVALEN_GOLDEN) + "/" + name;
}

/// Compares the whole text with a golden file. CORVALEN_UPDATE_GOLDEN rewrites the file, for a
/// change of the contract; read the difference before you commit it.
inline void expectGolden(const std::string& name, const std::string& text) {
    if (std::getenv("CORVALEN_UPDATE_GOLDEN") != nullptr) std::ofstream(goldenPath(name)) << text;
    EXPECT_EQ(text, textOf(goldenPath(name))) << "differs from " << name << " of the tests";
}

/// In golden files, as in the corpora of the fuzzers, %XX stands for a byte.
inline std::string unpacked(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isByte = text[i] == '%';
        bytes +=
            isByte ? static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)) : text[i];
        i += isByte ? 2 : 0;
    }
    return bytes;
}
/// Keeps the characters of `plain`, and printable ASCII except "%".
inline std::string packed(const std::string& bytes, const std::string& plain = {}) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if ((byte >= ' ' && byte <= '~' && byte != '%') || plain.find(byte) != plain.npos)
            text += byte;
        else
            text.append({'%', kDigits[value >> 4U], kDigits[value & 15U]});
    }
    return text;
}

/// Returns the result for an input.
using Answer = std::function<std::string(const std::string& input)>;

/// Answers each row "input => result" of a golden file, by the function of its section "[name]",
/// and compares the rows with the file. Lines that begin with "#" are comments.
inline void expectRows(const std::string& name, const std::map<std::string, Answer>& sections) {
    std::istringstream file(textOf(goldenPath(name)));
    std::string text, section;
    std::set<std::string> used;
    for (std::string line; std::getline(file, line); text += line + "\n") {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            section = line.substr(1, line.size() - 2);
            continue;
        }
        used.insert(section);
        line.erase(std::min(line.find(" =>"), line.size()));
        const std::string result = packed(sections.at(section)(unpacked(line)));
        line += result.empty() ? " =>" : " => " + result;
    }
    EXPECT_EQ(used.size(), sections.size()) << "a section without rows";
    expectGolden(name, text);
}

/// Runs each line "$ input" of a golden file, and compares what it returns with the lines after it.
inline void expectTranscript(const std::string& name, const Answer& run) {
    std::istringstream file(textOf(goldenPath(name)));
    std::string text;
    for (std::string line; std::getline(file, line);)
        if (line[0] == '#')
            text += line + "\n";
        else if (line.starts_with("$ "))
            text += line + "\n" + packed(run(unpacked(line.substr(2))), "\n");
    EXPECT_NE(text.find('$'), text.npos) << "no line to run";
    expectGolden(name, text);
}

}  // namespace corvalen::test
