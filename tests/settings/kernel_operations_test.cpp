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

const std::string kForeign = "BootOrder-8be4df61-93ca-11d2-aa0d-00e098032b8c";
const std::string kAttributes("\x07\0\0\0", 4);

/// A folder in the place of the firmware's.
class FirmwareOperations : public testing::Test {
  protected:
    std::int64_t modify(const std::string& name, const std::string& text) {
        SettingsServices services = hostSettingsServices();
        services.firmwareVariables = makeFirmwareVariables(_place);
        SettingsOperations operations(std::move(services), [](auto) {});
        _error = operations.performOperationModifyNvramWithArguments({name, text});
        return _error ? _error->code() : 0;
    }
    std::string ours(const std::string& name) {
        return _folder / (name + '-' + std::string(kFirmwareVendorGuid));
    }

    ScratchFolder _folder;
    std::string _place = _folder.path();
    ErrorRef _error;
};

TEST_F(FirmwareOperations, AVariableOfOursKeepsTheKindOfItsFirstText) {
    const struct {
        const char *name, *text;
        std::int64_t code;
        const char* contents;
    } kSteps[] = {
        {"D", "%01%02", 0, "KVXd\1\2"},   {"D", "%ff", 0, "KVXd\xff"},
        {"D", "abc", 22, "KVXd\xff"},     {"S", "abc", 0, "KVXsabc"},
        {"S", "%01%02", 0, "KVXs%01%02"}, {"S", "", 0, "KVXs"},
        {"T", "true", 0, "KVXstrue"},
    };
    for (const auto& [name, text, code, contents] : kSteps) {
        EXPECT_EQ(modify(name, text), code) << name << text;
        EXPECT_EQ(readText(ours(name)), kAttributes + contents);
    }
    // Kinds that only other programs begin; the attribute word is not the usual one.
    const std::string attributes("\x03\0\0\0", 4);
    const std::string number = std::string("KVXn\x09").append(7, '\0');
    writeText(ours("Flag"), attributes + "KVXb" + '\0');
    EXPECT_EQ(modify("Flag", "yes"), 22);
    EXPECT_EQ(modify("Flag", "true"), 0);
    EXPECT_EQ(readText(ours("Flag")), attributes + "KVXb\1");
    writeText(ours("Count"), attributes + number);
    EXPECT_EQ(modify("Count", "-2x"), 0);
    EXPECT_EQ(readText(ours("Count")), attributes + "KVXn\xfe" + std::string(7, '\xff'));
    EXPECT_EQ(modify("Count-" + std::string(kFirmwareVendorGuid), "9"), 0);
    EXPECT_EQ(readText(ours("Count")), attributes + number);
}

TEST_F(FirmwareOperations, AForeignVariableIsDataWithItsFlagAndAttributes) {
    const std::string path = _folder / kForeign;
    writeText(path, std::string("\x27\0\0\0", 4) + "\1\2");
    if (!setImmutable(path, true)) GTEST_SKIP() << "no inode flags";
    EXPECT_EQ(modify(kForeign, "text"), 22);
    EXPECT_EQ(modify(kForeign, "   "), 11) << "empty contents would delete it";
    EXPECT_EQ(modify(kForeign, "%03%04"), 0);
    EXPECT_FALSE(std::ofstream(path).is_open()) << "immutable again";
    EXPECT_EQ(readText(path), std::string("\x27\0\0\0", 4) + "\3\4");
    setImmutable(path, false);

    // A variable that cannot be made: the kernel's code is in the text.
    setImmutable(_folder.path(), true);
    EXPECT_EQ(modify("New", "%01"), 11);
    EXPECT_TRUE(_error->localizedRecoverySuggestion()->ends_with("The error code is 1."));
    setImmutable(_folder.path(), false);
}

TEST_F(FirmwareOperations, BoundsSizesAndRefusesNamesThatLeadElsewhere) {
    const std::size_t most = kMaximumFirmwareVariableSize - 4;
    EXPECT_EQ(modify("Big", std::string(most, 'x')), 0);
    EXPECT_EQ(modify("Big", std::string(most + 1, 'y')), 11);
    EXPECT_EQ(readText(ours("Big")).back(), 'x');
    writeText(ours("Big"), std::string(4 + kMaximumFirmwareVariableSize + 1, 'z'));
    EXPECT_EQ(modify("Big", "%01"), 11);

    const ScratchFolder outside;
    writeText(outside / "victim", kAttributes + "victim");
    std::filesystem::create_symlink(outside / "victim", ours("Link"));
    for (const std::string& name :
         {std::string("../x"), std::string("a/b"), std::string(".."), std::string("a\0b", 3),
          std::string("a\n"), std::string("Link"), std::string(300, 'n')})
        EXPECT_EQ(modify(name, "%01"), 11) << name;
    EXPECT_EQ(modify("", "%01"), 22);
    EXPECT_EQ(readText(outside / "victim"), kAttributes + "victim");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_folder.path()), {}), 2);
    // A machine without such variables, or with nothing on the mount point, is left alone.
    for (const std::string& place : {_folder / "none", std::string("/sys/kernel")}) {
        _place = place;
        EXPECT_EQ(modify("Name", "abc"), 0);
    }
}

}  // namespace
}  // namespace corvalen
