// SPDX-License-Identifier: MIT
#pragma once

#include "platform/log/logs.hpp"

namespace corvalen::test {

struct SilentLog : SystemLog {
    std::string_view destination() const noexcept override { return "test"; }
    bool takesFields() const noexcept override { return true; }
    void log(LogLevel /*level*/, std::string_view /*line*/, const LogFields& /*fields*/) override {}
};

}  // namespace corvalen::test
