// SPDX-License-Identifier: MIT
// A walk by several threads, for work that does not depend on the order of the objects.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/tree_walk.hpp"

namespace corvalen {

/// What a walk does with the objects. Both functions return 0, or an errno that ends the walk in
/// all threads before their next object, and are called by several threads at once.
class SubtreeVisitor {
  public:
    virtual ~SubtreeVisitor() = default;
    /// `walk` stands at the object, which no thread has entered yet. `*enter` comes as whether it
    /// is a directory, and decides at return whether the walk enters it. `*sum` is the thread's
    /// own.
    virtual int visit(TreeWalk& walk, bool* enter, std::uint64_t* sum) = 0;
    /// A directory could not be entered (see TreeWalk::open).
    virtual int cannotEnter(int /*error*/) { return 0; }
};

struct SubtreeOptions {
    static constexpr int kUsualWorkers = 2;
    static constexpr int kMostWorkers = 16;
    static constexpr std::size_t kWaitingDirectories = 32;

    /// How often the calling thread gave up the processor by itself. Unlike its time off the
    /// processor this does not grow because others want it too.
    static long waitsOfThread() noexcept;

    TreeWalkOptions walk = {};
    /// Whether finished objects are added to the count of the walk's cancellation.
    bool counts = true;
    /// More than the usual ones only work while workers wait for the disk.
    int mostWorkers = kUsualWorkers;
    long (*waits)() noexcept = waitsOfThread;
};

struct SubtreeResult {
    /// 0, or the errno of the first failure; ECANCELED when the work was cancelled, ENOMEM also
    /// when memory ran out.
    int error = 0;
    /// Of the sums of all threads.
    std::uint64_t sum = 0;
};

/// Walks what lies below `top`, each directory before its contents, and returns when all threads
/// have ended. A second worker begins when the tree turns out to be large, where a thread can be
/// had. Directories that a worker meets while few wait are put aside for whoever is free next; at
/// most `kWaitingDirectories` wait, each an open descriptor. The visitor throws nothing but
/// std::bad_alloc.
SubtreeResult walkSubtrees(UniqueFd top, SubtreeVisitor& visitor,
                           const SubtreeOptions& options = {});

}  // namespace corvalen
