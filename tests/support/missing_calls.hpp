// SPDX-License-Identifier: MIT
// A kernel without some system calls, as older ones are.
#pragma once

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <vector>

namespace corvalen::test {

/// fchmodat2, the xattrat calls, file_getattr and file_setattr: newer than Linux 6.5.
inline const std::vector<long> kNewCalls = {452, 463, 464, 465, 466, 468, 469};

/// Makes the calls fail in this thread and in threads that it starts later.
inline bool loseCalls(const std::vector<long>& numbers, unsigned error = ENOSYS) {
    std::vector<sock_filter> code = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long number : numbers) {
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1));
        code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
    }
    code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{static_cast<unsigned short>(code.size()), code.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// Runs the body here and in a child without the calls. A failure in either fails the test. It
/// needs a child because a process remembers which calls are missing.
// NOLINTNEXTLINE(readability-function-size): the macro counts
inline void withAndWithout(const std::vector<long>& numbers, const std::function<void()>& body) {
    const auto child = [&] {
        EXPECT_TRUE(loseCalls(numbers));
        body();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "") << "without the newer calls";
    body();
}

}  // namespace corvalen::test
