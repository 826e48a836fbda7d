// SPDX-License-Identifier: MIT
// Runs an operation in a child process in which one system call or one allocation fails.
//
// The child's system calls are handed to this process by seccomp (seccomp_unotify(2)), which lets
// them pass or answers with an errno. Calls that cannot fail, those by which threads wait for each
// other, and those of another program that the child executes are left alone. close(2) releases its
// descriptor even when it fails.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "corvalen/error.hpp"

namespace corvalen::test {

struct Fault {
    /// `memory`: all allocations from that number on; an exception may leave the operation then,
    /// which ends a connection, and counts as the answer ENOMEM.
    enum class Kind : std::uint8_t { none, call, allocation, memory };
    Kind kind = Kind::none;
    /// Which call or allocation after the start of the operation, counted from 0.
    int number = 0;
    /// The errno of a failing call. Memory is only refused to mmap(2) with ENOMEM.
    int error = 0;
};

struct Outcome {
    /// The operation made at least as many calls or allocations as the fault's number.
    bool reached = false;
    /// The failing call by name, with its number.
    std::string where;
    bool answered = false;
    /// The code and the domain of the answer; 0 for success.
    std::int64_t code = 0;
    std::string domain;
    /// What a success says beside its code; empty for nothing.
    std::string answer;
    /// What the process lost or kept although it answered: descriptors, children, the file creation
    /// mask, the file system user, or its life. Empty for nothing.
    std::string damage;
};

/// Forks, so the caller has no other threads. The answer is one error object, null for success.
Outcome runWithFault(const Fault& fault, const std::function<ErrorRef()>& operation);

/// False where the machine does not allow the interception.
bool canInterceptCalls();

}  // namespace corvalen::test
