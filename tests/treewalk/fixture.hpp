// SPDX-License-Identifier: MIT
// The tree walk operations with the real services and a user database of the test.
#pragma once

#include <algorithm>

#include "foundation/path.hpp"
#include "support/operations_test.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/search.hpp"
#include "treewalk/split_walk.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen::testing {

class TreeWalkTest : public OperationsTest {
  protected:
    TreeWalkTest() { operations.registerMethods(table); }

    /// Returns everything below a directory, and checks that reading ahead, which leaves out names
    /// of 182 bytes, gives the same order and each object's own attributes, and that the count is
    /// the same. `messages` receives the log.
    Names walked(const std::string& base, bool stay = false) {
        ::testing::internal::CaptureStderr();
        std::vector<std::string> all;
        if (const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(base, stay))
            all = walk->allObjects();
        messages = ::testing::internal::GetCapturedStderr();
        Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(base);
        Result<SearchedFolder, ErrorRef> again = openSearchedFolder(base);
        if (!folder || !again) return {};
        const std::size_t relative = folder->path.size() + 1;
        const auto isWanted = [](std::string_view name) { return name.size() != 182; };
        std::vector<std::string> ahead;
        ::testing::internal::CaptureStderr();
        WalkAhead walk(*std::move(folder), stay, STATX_INO, isWanted);
        while (const WalkAhead::Object* object = walk.next()) {
            struct stat own {};
            const int status =
                ::fstatat(object->parent.get(), object->name.data(), &own, AT_SYMLINK_NOFOLLOW);
            const struct statx* attributes = walk.attributes();
            EXPECT_EQ(attributes != nullptr ? attributes->stx_ino : 0,
                      status == 0 ? own.st_ino : 0);
            ahead.emplace_back(object->path().substr(relative));
            EXPECT_EQ(ahead.back(), all.at(static_cast<std::size_t>(object->index)));
        }
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), messages);
        ::testing::internal::CaptureStderr();
        const std::optional<ObjectCount> count = countObjects(*again, stay, STATX_SIZE, isWanted);
        EXPECT_EQ(count->objects, all.size());
        (void)::testing::internal::GetCapturedStderr();
        if (count->arePlain) expectSplit(*again, stay, all, isWanted);
        const auto wanted = std::count_if(all.begin(), all.end(), [&](const std::string& path) {
            return isWanted(lastPathComponent(path));
        });
        EXPECT_EQ(static_cast<std::ptrdiff_t>(ahead.size()), wanted);
        return {all.begin(), all.end()};
    }

    /// Two threads return what one does, in its order.
    static void expectSplit(SearchedFolder& folder, bool stay, const std::vector<std::string>& all,
                            const NameFilter& isWanted) {
        SplitWalk walk(folder, stay, STATX_INO, isWanted);
        std::size_t before = 0;
        while (const SplitWalk::Object* object = walk.next()) {
            const auto index = static_cast<std::size_t>(object->index);
            EXPECT_EQ(object->path().substr(folder.path.size() + 1), all.at(index));
            struct stat own {};
            EXPECT_EQ(::lstat(object->path().c_str(), &own), 0);
            EXPECT_EQ(walk.attributes()->stx_ino, own.st_ino);
            for (; before < index; ++before)
                EXPECT_FALSE(isWanted(lastPathComponent(all[before])));
            before = index + 1;
        }
        EXPECT_FALSE(walk.wasCancelled());
        for (; before < all.size(); ++before)
            EXPECT_FALSE(isWanted(lastPathComponent(all[before])));
    }

    /// A chain of `levels` folders "d", each with a file "f" beside the next one.
    void chain(const std::string& base, int levels) {
        UniqueFd at(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < levels; ++level) {
            ASSERT_EQ(::mknodat(at.get(), "f", S_IFREG | 0644, 0), 0);
            ASSERT_EQ(::mkdirat(at.get(), "d", 0755), 0);
            at.reset(::openat(at.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
    }

    TreeWalkOperations operations{users, *acl};
    std::string messages;
};

}  // namespace corvalen::testing
