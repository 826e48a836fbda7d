// SPDX-License-Identifier: MIT
// The built-in authority: its decisions, and how it reads and writes its rights file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "platform/authorization/authorization.hpp"
#include "support/eventually.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

constexpr uid_t kOrdinaryUser = 65534;

class BuiltInAuthority : public testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
        _service = makeBuiltInAuthorizationService(
            rightsFile(), {{"open", "allow", ""}, {"guarded", "authenticate-admin", ""}});
    }
    std::string rightsFile() const { return _folder.path("store/rights"); }
    std::string text() const { return test::textOf(rightsFile()); }
    void write(std::string_view content) const {
        std::filesystem::create_directory(_folder.path("store"));
        std::ofstream(rightsFile()) << content;
    }
    /// This process, with another user as the kernel would report it.
    static PeerIdentity processOf(uid_t uid) {
        return {::getpid(), uid, uid, processStartTime(::getpid()), nullptr};
    }
    std::unique_ptr<Authorization> reference(uid_t uid) const {
        AuthorizationStatus status = kAuthorizationInternal;
        return _service->createFromExternalForm(
            std::string(kAuthorizationExternalFormMagic) + std::string(24, 'r'), processOf(uid),
            &status);
    }
    AuthorizationStatus check(uid_t uid, std::string_view right) const {
        return reference(uid)->copyRight(right, {});
    }

    const test::ScratchFolder _folder;
    std::unique_ptr<AuthorizationService> _service;
};

TEST_F(BuiltInAuthority, AdmitsByTheDefaultsWithoutAFile) {
    EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationSuccess);
    EXPECT_EQ(check(0, "guarded"), kAuthorizationSuccess);
    EXPECT_EQ(check(kOrdinaryUser, "guarded"), kAuthorizationDenied);
    EXPECT_EQ(check(0, "stranger"), kAuthorizationDenied);
    EXPECT_EQ(_service->rightGet("open"), kAuthorizationDenied);
}

TEST_F(BuiltInAuthority, RefusesOtherBytesAndProcessesThatEnded) {
    const std::string good = std::string(kAuthorizationExternalFormMagic) + std::string(24, '\0');
    for (const auto& bytes : {std::string(32, 'x'), good.substr(1), good + "x", std::string()}) {
        AuthorizationStatus status = kAuthorizationSuccess;
        EXPECT_EQ(_service->createFromExternalForm(bytes, processOf(0), &status), nullptr);
        EXPECT_EQ(status, kAuthorizationInvalidRef);
    }
    auto ended = processOf(0);
    --ended.startTime;
    AuthorizationStatus status = kAuthorizationInternal;
    EXPECT_EQ(_service->createFromExternalForm(good, ended, &status)->copyRight("guarded", {}),
              kAuthorizationDenied);
}

TEST_F(BuiltInAuthority, FollowsWhatTheAdministratorWrites) {
    write(
        "# mine\nopen default\nguarded\tallow  text\n\nlocked deny\ntwice allow\ntwice default\n");
    EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationDenied);
    EXPECT_EQ(check(kOrdinaryUser, "guarded"), kAuthorizationSuccess);
    EXPECT_EQ(check(kOrdinaryUser, "locked"), kAuthorizationDenied);
    EXPECT_EQ(check(0, "locked"), kAuthorizationSuccess);
    EXPECT_EQ(check(kOrdinaryUser, "twice"), kAuthorizationDenied);
    write("open allow");
    EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationSuccess);
    EXPECT_EQ(check(kOrdinaryUser, "guarded"), kAuthorizationDenied);
    // Replaced, removed, and moved away with its folder.
    std::ofstream(_folder.path("new")) << "open deny!\n";
    std::filesystem::rename(_folder.path("new"), rightsFile());
    EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationDenied);
    std::filesystem::remove(rightsFile());
    EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationSuccess);
    write("open deny\n");
    EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationDenied);
    std::filesystem::rename(_folder.path("store"), _folder.path("kept"));
    const auto isOpen = [&] { return check(kOrdinaryUser, "open") == kAuthorizationSuccess; };
    EXPECT_TRUE(test::eventually(isOpen));
}

TEST_F(BuiltInAuthority, DeniesEverythingWhileTheFileCannotBeTrusted) {
    write("open allow\n");
    const auto path = rightsFile();
    const auto expectDenied = [&](const char* why) {
        EXPECT_EQ(check(0, "open"), kAuthorizationInternal) << why;
        EXPECT_EQ(check(kOrdinaryUser, "open"), kAuthorizationInternal) << why;
        EXPECT_EQ(_service->rightGet("open"), kAuthorizationInternal) << why;
    };
    ::chmod(path.c_str(), 0620);
    expectDenied("writable by a group");
    ::chmod(path.c_str(), 0600);
    EXPECT_EQ(check(0, "open"), kAuthorizationSuccess);
    EXPECT_EQ(::chown(path.c_str(), kOrdinaryUser, 0), 0);
    expectDenied("owned by somebody");
    EXPECT_EQ(::chown(path.c_str(), 0, 0), 0);
    write("open allow\n#" + std::string(256 * 1024 - 12, 'x'));
    EXPECT_EQ(check(0, "open"), kAuthorizationSuccess);
    write("open allow\n#" + std::string(256 * 1024 - 11, 'x'));
    expectDenied("a byte too long");
    write("open allow\n");
    std::filesystem::rename(path, path + "2");
    std::filesystem::create_symlink(path + "2", path);
    expectDenied("a link");
    std::filesystem::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    expectDenied("a FIFO");
}

TEST_F(BuiltInAuthority, ChangesOnlyTheLineOfTheRight) {
    AuthorizationStatus status = kAuthorizationInternal;
    const auto root = _service->create(&status);
    const auto set = [&](std::string_view name, const Value& definition, std::string_view prompt) {
        return _service->rightSet(root.get(), name, definition, prompt, "table");
    };
    EXPECT_EQ(set("a.b", Dictionary{{"rule", "default"}}, "first"), kAuthorizationSuccess);
    const auto permissions = [](const std::string& path) {
        return std::filesystem::status(path).permissions();
    };
    EXPECT_EQ(permissions(rightsFile()), std::filesystem::perms(0600));
    EXPECT_EQ(permissions(_folder.path("store")), std::filesystem::perms(0700));

    write(text() + "# kept\nforeign deny");
    EXPECT_EQ(set("c", "allow", "line one\nopen allow"), kAuthorizationSuccess);
    EXPECT_EQ(set("a.b", "authenticate-admin", "again"), kAuthorizationSuccess);
    EXPECT_EQ(text(),
              "# kept\nforeign deny\nc allow line one open allow\na.b authenticate-admin again\n");
    EXPECT_EQ(_service->rightGet("a.b"), kAuthorizationSuccess);
    EXPECT_EQ(_service->rightRemove(root.get(), "a.b"), kAuthorizationSuccess);
    EXPECT_EQ(_service->rightGet("a.b"), kAuthorizationDenied);

    for (const auto* name : {"", "a b", "../x", "-x", "#x", "a\nb"})
        EXPECT_EQ(set(name, "allow", ""), kAuthorizationInvalidSet) << name;
    EXPECT_EQ(set("x", Dictionary{{"rule", "other"}}, ""), kAuthorizationInvalidSet);
    EXPECT_EQ(_service->rightSet(nullptr, "x", "allow", "", ""), kAuthorizationInvalidRef);
    EXPECT_EQ(_service->rightRemove(reference(kOrdinaryUser).get(), "c"), kAuthorizationDenied);
    EXPECT_EQ(text(), "# kept\nforeign deny\nc allow line one open allow\n");
}

TEST_F(BuiltInAuthority, LosesNoChangeAndAdmitsNobodyWronglyUnderManyThreads) {
    std::vector<std::future<void>> threads(4);
    for (auto& thread : threads)
        thread = std::async(std::launch::async, [this, writer = &thread - threads.data()] {
            const auto root = reference(0);
            for (int i = 0; i < 10; ++i) {
                const auto name = std::to_string(writer) + "." + std::to_string(i);
                EXPECT_EQ(_service->rightSet(root.get(), name, "allow", "", ""), 0);
                EXPECT_EQ(check(kOrdinaryUser, "guarded"), kAuthorizationDenied);
                EXPECT_EQ(check(kOrdinaryUser, name), kAuthorizationSuccess);
            }
        });
    threads.clear();
    const auto content = text();
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 40);
}

}  // namespace
}  // namespace corvalen
