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
    const std::string name = "net.ipv4.ip_default_ttl";
    const auto set = [](const std::string& variable, std::int64_t value) {
        return codeOf(
            hostOperations().performOperationModifyKernelsettingWithArguments({variable, value}));
    };
    ASSERT_EQ(set(name, 77), 0);
    ASSERT_EQ(test::textOf("/proc/sys/net/ipv4/ip_default_ttl"), "77\n");
    // A link whose name has a dot, in both spellings.
    ASSERT_EQ(::system("ip link add name br.9 type dummy 2>/dev/null || "
                       "ip link set dev lo name br.9"),
              0);
    const std::string forwarding = "/proc/sys/net/ipv4/conf/br.9/forwarding";
    EXPECT_EQ(set("net/ipv4/conf/br.9/forwarding", 1), 0);
    EXPECT_EQ(test::textOf(forwarding), "1\n");
    EXPECT_EQ(set("net.ipv4.conf.br/9.forwarding", 0), 0);
    EXPECT_EQ(test::textOf(forwarding), "0\n");
    const std::pair<std::string, std::int64_t> kRefused[] = {
        {"", 22},
        {"no.such", 2},
        {"net..ipv4.ip_default_ttl", 2},
        {".net", 2},
        {name + ".", 2},
        {"net/../net/ipv4/ip_default_ttl", 2},
        {"/net/ipv4/ip_default_ttl", 2},
        {"net./.ipv4", 2},
        {name + '\0', 2},
        {name + "\n", 2},
        {"../sys/net.ipv4.ip_default_ttl", 2},
        {"net.ipv4", 21},
        {"kernel.arch", 13},
        {name + std::string(5000, 'x'), 63},
    };
    for (const auto& [variable, code] : kRefused)
        EXPECT_EQ(set(variable, 99), code) << variable.substr(0, 60);
    // The kernel judges the value: the whole 64 bits reach it.
    for (const std::int64_t value : {std::int64_t{256}, (std::int64_t{1} << 40) + 88, INT64_MIN})
        EXPECT_EQ(set(name, value), 22) << value;
    EXPECT_EQ(test::textOf("/proc/sys/net/ipv4/ip_default_ttl"), "77\n");
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

const std::string kForeign = "BootOrder-8be4df61-93ca-11d2-aa0d-00e098032b8c";
const std::string kAttributes("\x07\0\0\0", 4);
const std::string kOtherAttributes("\x27\0\0\0", 4);

/// A directory that replaces the firmware's.
class FirmwareOperations : public SettingsTest {
  protected:
    std::int64_t modify(const std::string& name, const std::string& text) {
        SettingsServices services = hostSettingsServices();
        services.firmwareVariables = makeFirmwareVariables(_place);
        SettingsOperations operations(std::move(services), [](auto) {});
        _error = operations.performOperationModifyNvramWithArguments({name, text});
        return codeOf(_error);
    }
    std::string ours(const std::string& name) {
        return at("firmware/" + name + '-' + std::string(kFirmwareVendorGuid));
    }

    std::string _place = folder("firmware");
    ErrorRef _error;
};

TEST_F(FirmwareOperations, AVariableKeepsTheKindOfItsFirstText) {
    const std::tuple<const char*, const char*, std::int64_t, const char*> kSteps[] = {
        {"D", "%01%02", 0, "KVXd\1\2"}, {"D", "%ff", 0, "KVXd\xff"}, {"D", "abc", 22, "KVXd\xff"},
        {"S", "abc", 0, "KVXsabc"},     {"S", "", 0, "KVXs"},        {"T", "true", 0, "KVXstrue"},
    };
    for (const auto& [name, text, code, contents] : kSteps) {
        EXPECT_EQ(modify(name, text), code) << name << text;
        EXPECT_EQ(textOf(ours(name)), kAttributes + contents);
    }
    // Kinds that only other programs create, with another attribute word.
    test::putFile(ours("Flag"), kOtherAttributes + "KVXb" + '\0');
    EXPECT_EQ(modify("Flag", "yes"), 22);
    EXPECT_EQ(modify("Flag", "true"), 0);
    EXPECT_EQ(textOf(ours("Flag")), kOtherAttributes + "KVXb\1");
    test::putFile(ours("Count"), kOtherAttributes + "KVXn\x09" + std::string(7, '\0'));
    EXPECT_EQ(modify("Count", "-2x"), 0);
    EXPECT_EQ(textOf(ours("Count")), kOtherAttributes + "KVXn\xfe" + std::string(7, '\xff'));
}

TEST_F(FirmwareOperations, AForeignVariableIsDataWithItsFlagAndAttributes) {
    const std::string path = file("firmware/" + kForeign, kOtherAttributes + "\1\2");
    if (!chattr("+i", path)) GTEST_SKIP() << "no inode flags";
    EXPECT_EQ(modify(kForeign, "text"), 22);
    EXPECT_EQ(modify(kForeign, "   "), -11) << "empty contents would delete it";
    EXPECT_EQ(modify(kForeign, "%03%04"), 0);
    EXPECT_FALSE(std::ofstream(path).is_open()) << "immutable again";
    EXPECT_EQ(textOf(path), kOtherAttributes + "\3\4");
    // A variable that cannot be created: the suggestion has the kernel's code.
    chattr("+i", _place);
    EXPECT_EQ(modify("New", "%01"), -11);
    EXPECT_TRUE(_error->localizedRecoverySuggestion()->ends_with("The error code is 1."));
}

TEST_F(FirmwareOperations, BoundsSizesAndRefusesNamesThatLeadElsewhere) {
    const std::size_t most = kMaximumFirmwareVariableSize - 4;
    EXPECT_EQ(modify("Big", std::string(most, 'x')), 0);
    EXPECT_EQ(modify("Big", std::string(most + 1, 'y')), -11);
    EXPECT_EQ(textOf(ours("Big")).back(), 'x');
    test::putFile(ours("Big"), std::string(4 + kMaximumFirmwareVariableSize + 1, 'z'));
    EXPECT_EQ(modify("Big", "%01"), -11);

    const std::string victim = file("victim", kAttributes + "victim");
    std::filesystem::create_symlink(victim, ours("Link"));
    for (const std::string& name :
         {std::string("../x"), std::string("a\0b", 3), std::string("Link"), std::string(300, 'n')})
        EXPECT_EQ(modify(name, "%01"), -11) << name;
    EXPECT_EQ(modify("", "%01"), 22);
    EXPECT_EQ(textOf(victim), kAttributes + "victim");
    EXPECT_EQ(entriesOf(_place), 2);
    _place = at("none");
    EXPECT_EQ(modify("Name", "abc"), 0) << "a machine without such variables";
}

}  // namespace
}  // namespace corvalen
