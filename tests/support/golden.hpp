// SPDX-License-Identifier: MIT
// Comparison with files of the source tree, which lie beside the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "support/eventually.hpp"
#include "support/packed.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::test {

/// On another machine the variable CORVALEN_GOLDEN names the directory that has the files.
inline std::string goldenPath(const std::string& name) {
    const char* elsewhere = std::getenv("CORVALEN_GOLDEN");
    return std::string(elsewhere != nullptr ? elsewhere : CORVALEN_GOLDEN) + "/" + name;
}

/// Compares the whole text with a golden file. CORVALEN_UPDATE_GOLDEN rewrites the file, for a
/// change of the contract; read the difference before you commit it.
inline void expectGolden(const std::string& name, const std::string& text) {
    if (std::getenv("CORVALEN_UPDATE_GOLDEN") != nullptr) std::ofstream(goldenPath(name)) << text;
    EXPECT_EQ(text, textOf(goldenPath(name))) << "differs from " << name << " of the tests";
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

/// Plays a transcript whose lines begin with the name of a step. "sh COMMANDS" runs commands of the
/// shell in the directory and shows what they print; "until COMMANDS" repeats them until they
/// succeed.
inline void expectSteps(const std::string& name, const std::string& directory,
                        std::map<std::string, Answer> steps) {
    const std::string enter = "cd '" + directory + "' && umask 022 && ";
    const ScratchFolder folder;
    steps["sh"] = [&](const std::string& commands) {
        const std::string output = folder.path("output");
        const int status = std::system((enter + "{ " + commands + "; } >" + output).c_str());
        return textOf(output) + (status == 0 ? "" : "failed\n");
    };
    steps["until"] = [&](const std::string& commands) {
        return eventually([&] { return shell(enter + commands); }) ? "" : "never\n";
    };
    expectTranscript(name, [&](const std::string& line) {
        const std::size_t blank = std::min(line.find(' '), line.size());
        return steps.at(line.substr(0, blank))(line.substr(std::min(blank + 1, line.size())));
    });
}

}  // namespace corvalen::test
