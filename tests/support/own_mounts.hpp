// SPDX-License-Identifier: MIT
// Private mounts over directories of the system.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <functional>
#include <initializer_list>
#include <iostream>

namespace corvalen::test {

/// Gives the calling thread, and threads that it starts, a private mount namespace in which each of
/// the directories is empty. Returns false without permission.
inline bool enterOwnMounts(std::initializer_list<const char*> folders) {
    bool done = ::unshare(CLONE_NEWNS) == 0 &&
                ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    for (const char* folder : folders)
        done = done && ::mount("tmpfs", folder, "tmpfs", 0, "mode=0755") == 0;
    return done;
}

/// Runs the body in a child in which each of the directories is empty and private. A failure in the
/// body fails the test.
// NOLINTNEXTLINE(readability-function-size): the macro counts
inline void withOwn(std::initializer_list<const char*> folders, const std::function<void()>& body) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const auto child = [&] {
        EXPECT_TRUE(enterOwnMounts(folders));
        if (!testing::Test::HasFailure()) body();
        // Google Test prints nothing in the child, and shows its standard error when it fails.
        const auto& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
        for (int i = 0; i < result.total_part_count(); ++i)
            std::cerr << result.GetTestPartResult(i).message() << '\n';
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

}  // namespace corvalen::test
