// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <limits>

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

    const std::string host = readText("/proc/sys/kernel/panic");
    const std::pair<std::string, std::int64_t> kRefused[] = {
        {"", 22},
        {"no.such.variable", 2},
        {"../sys/net.ipv4.ip_default_ttl", 2},
        {"net/ipv4/ip_default_ttl", 2},
        {"/proc/sys/net/ipv4/ip_default_ttl", 2},
        {"net...net.ipv4.ip_default_ttl", 2},
        {"net..ipv4.ip_default_ttl", 2},
        {".net.ipv4.ip_default_ttl", 2},
        {name + ".", 2},
        {name + '\0', 2},
        {name + "\n", 2},
        {name + std::string(5000, 'x'), 63},
        {"net.ipv4", 21},
        {"kernel.osrelease", 13},
    };
    for (const auto& [variable, code] : kRefused)
        EXPECT_EQ(set(variable, 99), code) << variable.substr(0, 60);
    // The kernel judges the value: the whole 64 bits reach it.
    for (const std::int64_t value : {std::int64_t{256}, (std::int64_t{1} << 40) + 88,
                                     std::numeric_limits<std::int64_t>::min()})
        EXPECT_EQ(set(name, value), 22) << value;
    EXPECT_EQ(readText("/proc/sys/net/ipv4/ip_default_ttl"), "77\n");
    EXPECT_EQ(readText("/proc/sys/kernel/panic"), host);
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

/// The first process of a namespace of its own, in a group of its own, so that a signal to a group
/// or to everybody would meet nobody else. The exit status tells what went wrong.
[[noreturn]] void runAsFirstProcess() {
    ::setsid();
    struct sigaction action {};
    action.sa_handler = [](int) { signalsSeen = signalsSeen + 1; };
    ::sigaction(SIGTERM, &action, nullptr);
    const pid_t bystander = ::fork();
    if (bystander == 0) {
        ::signal(SIGTERM, SIG_DFL);
        ::pause();
        ::_exit(1);
    }
    int failures = 0;
    for (const std::int64_t refused : {0LL, -1LL, -2LL, 1LL << 32, 0x80000000LL, 0xffffffffLL})
        failures += terminate(refused) == 22 ? 0 : 1;
    failures += ::waitpid(bystander, nullptr, WNOHANG) == 0 && signalsSeen == 0 ? 0 : 16;
    failures += ::getpid() == 1 && terminate(1) == 0 && signalsSeen == 1 ? 0 : 32;
    ::_exit(failures);
}

TEST(ProcessTermination, ReachesTheFirstProcessButNeverAGroup) {
    const pid_t outer = ::fork();
    if (outer == 0) {
        if (::unshare(CLONE_NEWPID) != 0) ::_exit(77);
        const pid_t first = ::fork();
        if (first == 0) runAsFirstProcess();
        int status = 0;
        ::waitpid(first, &status, 0);
        ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 64);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(outer, &status, 0), outer);
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private process namespace";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace corvalen
