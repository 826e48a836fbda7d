// SPDX-License-Identifier: MIT
#include <sched.h>
#include <sys/syscall.h>

#include "settings/settings_files.hpp"
#include "support/child.hpp"
#include "support/own_mounts.hpp"

namespace corvalen {
namespace {

SettingsOperations hostOperations() {
    return {hostSettingsServices(), [](auto) {}};
}

TEST(KernelSettings, ChangeARealVariableAndNothingByAnyOtherName) {
    // The variables below net belong to the network namespace of the caller.
    if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no private network namespace";
    // A link whose name has a dot.
    ASSERT_TRUE(
        test::shell("ip link add name br.9 type dummy || ip link set dev lo name br.9; "
                    "cd /proc/sys/net/ipv4 && echo 64 >ip_default_ttl && "
                    "echo 0 >conf/br.9/forwarding"));
    const auto set = [](const std::string& row) {
        const auto blank = row.rfind(' ');
        const Array arguments{row.substr(0, blank), std::int64_t{std::stoll(row.substr(blank))}};
        const ErrorRef error =
            hostOperations().performOperationModifyKernelsettingWithArguments(arguments);
        const std::string ttl = test::textOf("/proc/sys/net/ipv4/ip_default_ttl");
        const std::string forwarding = test::textOf("/proc/sys/net/ipv4/conf/br.9/forwarding");
        return testing::summary(error) + ": " + ttl.substr(0, ttl.find('\n')) + " " +
               forwarding.substr(0, forwarding.find('\n'));
    };
    test::expectRows("kernel.txt", {{"variable", set}});
    EXPECT_TRUE(
        set("net.ipv4.ip_default_ttl" + std::string(5000, 'x') + " 9").starts_with("ENAMETOOLONG"));
}

TEST(KernelSettings, FollowNoLink) {
    test::withOwn({"/proc/sys"}, [] {
        test::putFile("/proc/sys/a/value", "1\n");
        std::filesystem::create_symlink("value", "/proc/sys/a/link");
        std::filesystem::create_symlink("a", "/proc/sys/b");
        for (const char* name : {"a.link", "b.value"})
            EXPECT_EQ(codeOf(hostOperations().performOperationModifyKernelsettingWithArguments(
                          {name, 2})),
                      62)
                << name;
        EXPECT_EQ(test::textOf("/proc/sys/a/value"), "1\n");
    });
}

std::int64_t terminate(std::int64_t identifier) {
    return codeOf(hostOperations().performOperationTerminateProcessWithArguments({identifier}));
}

volatile std::sig_atomic_t signalsSeen = 0;

/// Of the first process of a namespace, in a group of its own, so that a signal to a group or to
/// all processes would reach no other process.
void endOneProcessOnly() {
    ::setsid();
    ::signal(SIGTERM, [](int) { signalsSeen = signalsSeen + 1; });
    for (const std::int64_t refused : {0LL, -1LL, 1LL << 32, 0x80000000LL, 0xffffffffLL})
        EXPECT_EQ(terminate(refused), 22) << refused;
    EXPECT_EQ(terminate(1), 0);
    EXPECT_EQ(signalsSeen, 1);
    ::signal(SIGTERM, SIG_DFL);
    test::Child child(0, [] { return ::pause() == 0; });
    const pid_t pid = child.pid();
    EXPECT_EQ(terminate((std::int64_t{1} << 32) + pid), 0) << "the low 32 bits count";
    EXPECT_TRUE(WIFSIGNALED(child.wait()));
    EXPECT_EQ(terminate(pid), 3);
}

TEST(ProcessTermination, EndsOneProcessButNeverAGroup) {
    const auto first = static_cast<pid_t>(
        ::syscall(SYS_clone, CLONE_NEWPID | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (first < 0) GTEST_SKIP() << "no private process namespace";
    if (first == 0) {
        endOneProcessOnly();
        ::_exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(first, &status, 0), first);
    EXPECT_EQ(status, 0);
}

/// A directory that replaces the firmware's.
class FirmwareOperations : public SettingsTest {
  protected:
    FirmwareOperations() {
        SettingsServices services = hostSettingsServices();
        services.firmwareVariables = makeFirmwareVariables(at("firmware"));
        _operations = std::make_unique<SettingsOperations>(std::move(services), [](auto) {});
        _operations->registerMethods(table);
    }
    std::string modify(const std::string& name, const std::string& text) {
        return call("ModifyNvram", {name, text});
    }

    std::unique_ptr<SettingsOperations> _operations;
};

TEST_F(FirmwareOperations, KeepTheKindAndTheAttributesOfAVariable) {
    expectOperations("firmware.txt");
}

TEST_F(FirmwareOperations, BoundSizesAndSayTheCodeOfTheKernel) {
    const char* const refused = "variable kept";
    folder("firmware");
    const std::string big = at("firmware/Big-" + std::string(kFirmwareVendorGuid));
    const std::size_t most = kMaximumFirmwareVariableSize - 4;
    EXPECT_EQ(modify("Big", std::string(most, 'x')), "none");
    EXPECT_EQ(modify("Big", std::string(most + 1, 'y')), refused);
    EXPECT_EQ(textOf(big).back(), 'x');
    test::putFile(big, std::string(4 + kMaximumFirmwareVariableSize + 1, 'z'));
    EXPECT_EQ(modify("Big", "%01"), refused);
    EXPECT_EQ(modify(std::string(300, 'n'), "%01"), refused);
    if (!chattr("+i", at("firmware"))) GTEST_SKIP() << "no inode flags";
    EXPECT_EQ(modify("New", "%01"), refused);
    EXPECT_TRUE(answer->localizedRecoverySuggestion()->ends_with("The error code is 1."));
}

}  // namespace
}  // namespace corvalen
