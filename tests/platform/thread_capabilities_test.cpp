// SPDX-License-Identifier: MIT
// The capabilities of a thread: none between operations, and no more than one needs during it.
#include "platform/thread_capabilities.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/linux/file_system_user.hpp"
#include "platform/peer_identity.hpp"
#include "support/child.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

namespace fs = std::filesystem;

TEST(ThreadCapabilities, AreInEffectOnlyWhileAnOperationNeedsThem) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to have capabilities";
    constexpr uid_t kUser = 65534;
    const test::ScratchFolder folder;
    const std::string theirs = folder.path("theirs"), file = theirs + "/file";
    fs::create_directory(theirs);
    std::ofstream(file) << "text";
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    for (const std::string& path : {theirs, file}) {
        ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
        ASSERT_EQ(::chown(path.c_str(), kUser, kUser), 0);
    }
    const auto mayOpen = [&file](int flags) {
        return static_cast<bool>(UniqueFd(::open(file.c_str(), flags | O_CLOEXEC)));
    };
    const auto mayNothing = [&] { return !mayOpen(O_RDONLY) && !mayOpen(O_WRONLY); };
    test::Child helper(0, [&] {
        if (!dropThreadCapabilities() || !mayNothing()) return false;
        bool good = true;
        const auto expect = [&good](bool condition, int line) {
            if (!condition) std::fprintf(stderr, "line %d\n", line);
            good = good && condition;
        };
        {
            const ScopedCapabilities search(capability::kReadAnything);
            expect(mayOpen(O_RDONLY) && !mayOpen(O_WRONLY), __LINE__);
            std::thread([&] { expect(mayOpen(O_RDONLY) && !mayOpen(O_RDWR), __LINE__); }).join();
        }
        expect(mayNothing(), __LINE__);
        {
            const ScopedCapabilities edit(capability::kChangeAnything);
            expect(mayOpen(O_RDWR), __LINE__);
        }
        {
            const ScopedCapabilities become(capability::kBecomeUser);
            const auto user = userAccountNamed("nobody");
            expect(user.has_value(), __LINE__);
            {
                const ScopedFileSystemUser asUser(*user);
                expect(asUser && mayOpen(O_RDWR), __LINE__);
            }
            // Going back to user 0 would bring every capability for files into effect.
            expect(mayNothing(), __LINE__);
        }
        // What serves every request does without.
        expect(processStartTime(1) > 0 && mayNothing(), __LINE__);
        return good;
    });
    EXPECT_EQ(helper.wait(), 0);
}

}  // namespace
}  // namespace corvalen
