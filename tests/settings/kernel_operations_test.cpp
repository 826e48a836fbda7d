// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>

#include "foundation/error.hpp"
#include "settings/scratch_folder.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

std::int64_t codeOf(const ErrorRef& error) {
    if (!error) return 0;
    EXPECT_EQ(error->domain(), kPosixErrorDomain);
    return error->code();
}

SettingsOperations hostOperations() {
    return {hostSettingsServices(), [](auto) {}};
}

TEST(KernelSettings, ChangeARealVariableAndNothingByAnyOtherName) {
    // The variables below net belong to the network namespace of the caller.
    if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no private network namespace";
    const std::string name = "net.ipv4.ip_default_ttl";
    const auto set = [](const std::string& variable, std::int64_t value) {
        return codeOf(
            hostOperations().performOperationModifyKernelsettingWithArguments({variable, value}));
    };
    ASSERT_EQ(set(name, 77), 0);
    ASSERT_EQ(readText("/proc/sys/net/ipv4/ip_default_ttl"), "77\n");

    const std::pair<std::string, std::int64_t> kRefused[] = {
        {"", 22},         {"no.such", 2},      {"net..ipv4.ip_default_ttl", 2},
        {".net", 2},      {name + ".", 2},     {"net/ipv4/ip_default_ttl", 2},
        {name + '\0', 2}, {name + "\n", 2},    {"../sys/net.ipv4.ip_default_ttl", 2},
        {"net.ipv4", 21}, {"kernel.arch", 13}, {name + std::string(5000, 'x'), 63},
    };
    for (const auto& [variable, code] : kRefused)
        EXPECT_EQ(set(variable, 99), code) << variable.substr(0, 60);
    // The kernel judges the value: the whole 64 bits reach it.
    for (const std::int64_t value : {std::int64_t{256}, (std::int64_t{1} << 40) + 88, INT64_MIN})
        EXPECT_EQ(set(name, value), 22) << value;
    EXPECT_EQ(readText("/proc/sys/net/ipv4/ip_default_ttl"), "77\n");
}

std::int64_t terminate(std::int64_t processIdentifier) {
    return codeOf(
        hostOperations().performOperationTerminateProcessWithArguments({processIdentifier}));
}

TEST(ProcessTermination, EndsOneProcessOfAnotherUser) {
    for (const std::int64_t highBits : {std::int64_t{0}, std::int64_t{1} << 32}) {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::setresuid(61001, 61001, 61001) == 0) ::pause();
            ::_exit(1);
        }
        EXPECT_EQ(terminate(highBits + child), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
        EXPECT_EQ(terminate(child), 3);
    }
}

volatile std::sig_atomic_t signalsSeen = 0;

/// In a namespace and a group of its own, so that a signal to a group or to everybody would meet
/// nobody else.
int failuresOfFirstProcess() {
    ::setsid();
    ::signal(SIGTERM, [](int) { signalsSeen = signalsSeen + 1; });
    int failures = 0;
    for (const std::int64_t refused : {0LL, -1LL, 1LL << 32, 0x80000000LL, 0xffffffffLL})
        failures += terminate(refused) == 22 && signalsSeen == 0 ? 0 : 1;
    failures += ::getpid() == 1 && terminate(1) == 0 && signalsSeen == 1 ? 0 : 32;
    return failures;
}

TEST(ProcessTermination, ReachesTheFirstProcessButNeverAGroup) {
    const auto first = static_cast<pid_t>(
        ::syscall(SYS_clone, CLONE_NEWPID | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (first < 0) GTEST_SKIP() << "no private process namespace";
    if (first == 0) ::_exit(failuresOfFirstProcess());
    int status = 0;
    ASSERT_EQ(::waitpid(first, &status, 0), first);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace corvalen
