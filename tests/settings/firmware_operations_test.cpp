// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include "foundation/error.hpp"
#include "settings/scratch_folder.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

const std::string kForeign = "BootOrder-8be4df61-93ca-11d2-aa0d-00e098032b8c";
const std::string kAttributes("\x07\0\0\0", 4);

/// A folder in the place of the firmware's.
class FirmwareOperations : public testing::Test {
  protected:
    std::int64_t modify(const std::string& name, const std::string& text) {
        return modifyIn(_folder.path(), name, text);
    }
    std::int64_t modifyIn(const std::string& folder, const std::string& name,
                          const std::string& text) {
        SettingsServices services = hostSettingsServices();
        services.firmwareVariables = makeFirmwareVariables(folder);
        SettingsOperations operations(std::move(services), [](auto) {});
        _error = operations.performOperationModifyNvramWithArguments({name, text});
        return _error ? _error->code() : 0;
    }
    static bool isImmutable(const std::string& path) {
        const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        int flags = 0;
        return ::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL) != 0;
    }
    static void setImmutable(const std::string& path, bool immutable) {
        const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        int flags = immutable ? FS_IMMUTABLE_FL : 0;
        ::ioctl(file.get(), FS_IOC_SETFLAGS, &flags);
    }
    std::string ours(const std::string& name) {
        return _folder / (name + '-' + std::string(kFirmwareVendorGuid));
    }

    ScratchFolder _folder;
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
    // The whole name of a variable of ours names the same one.
    std::string upperCase(kFirmwareVendorGuid);
    for (char& character : upperCase)
        character = static_cast<char>(std::toupper(character));
    EXPECT_EQ(modify("Count-" + upperCase, "9"), 0);
    EXPECT_EQ(readText(ours("Count")), attributes + number);
}

TEST_F(FirmwareOperations, AForeignVariableIsDataWithItsFlagAndAttributes) {
    const std::string path = _folder / kForeign;
    writeText(path, std::string("\x27\0\0\0", 4) + "\1\2");
    setImmutable(path, true);
    if (!isImmutable(path)) GTEST_SKIP() << "no inode flags";
    EXPECT_EQ(modify(kForeign, "text"), 22);
    EXPECT_EQ(modify(kForeign, "   "), 11) << "empty contents would delete it";
    EXPECT_EQ(modify(kForeign, "%03%04"), 0);
    EXPECT_TRUE(isImmutable(path));
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
}

TEST_F(FirmwareOperations, AMachineWithoutVariablesIsQuietlyLeftAlone) {
    EXPECT_EQ(modifyIn(_folder / "none", "Name", "abc"), 0);
    EXPECT_FALSE(std::filesystem::exists(_folder / "none"));
    EXPECT_EQ(modifyIn("/sys/kernel", "Name", "abc"), 0) << "a bare mount point";
}

}  // namespace
}  // namespace corvalen
