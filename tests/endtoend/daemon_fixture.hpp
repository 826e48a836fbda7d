// SPDX-License-Identifier: MIT
// The built daemon behind its well-known socket, in private mounts.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <corvalen/client.hpp>
#include <corvalen/failure.hpp>

#include <filesystem>
#include <optional>

#include "operations/names.hpp"
#include "support/activator.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::test {

inline const std::string kProgram = CORVALEN_HELPER_PROGRAM;

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!enterPrivateMounts()) GTEST_SKIP() << "needs root and mount namespaces";
        activator.emplace(kProgram, std::string(kServiceSocketPath), std::string(kServiceName),
                          scratch.path("log"));
    }

    [[nodiscard]] std::string logText() const { return textOf(scratch.path("log")); }
    /// The daemon's directory in /proc.
    [[nodiscard]] std::filesystem::path proc() const {
        return "/proc/" + std::to_string(activator->lastProcess());
    }

    ScratchFolder scratch;
    std::optional<Activator> activator;
};

}  // namespace corvalen::test
