// SPDX-License-Identifier: MIT
// A walk by several threads, for work that does not depend on the order of the objects.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/tree_walk.hpp"

namespace corvalen {

/// What a walk does with the objects. The functions are called by several threads at once; the
/// errors are 0, or an errno that ends the walk in all threads before their next object.
class SubtreeVisitor {
  public:
    virtual ~SubtreeVisitor() = default;
    /// `walk` stands at the object, which no thread has entered yet. `*enter` comes as whether it
    /// is a directory, and decides at return whether the walk enters it. `*sum` is the thread's
    /// own.
    virtual int visit(TreeWalk& walk, bool* enter, std::uint64_t* sum) = 0;
    /// A directory could not be entered (see TreeWalk::open).
    virtual int cannotEnter(int /*error*/) { return 0; }
    /// Called after visit() while the calling thread waits for the disk again and again: may read
    /// what a later walk over the tree will need.
    virtual void warm(TreeWalk& /*walk*/) {}
};

struct SubtreeOptions {
    static constexpr int kUsualWorkers = 2;
    static constexpr int kMostWorkers = 32;
    static constexpr std::size_t kWaitingDirectories = 32;
    /// Workers look whether they wait after this many objects; one that gave up the processor this
    /// often in between waits for the disk.
    static constexpr std::uint64_t kObjectsPerLook = 128;
    static constexpr long kWaitsPerLook = 2;
    /// Descriptors of one worker where there may be many.
    static constexpr std::size_t kBudgetOfMany = 16;

    /// How often the calling thread gave up the processor by itself. Unlike its time off the
    /// processor this does not grow because others want it too.
    static long waitsOfThread() noexcept;

    TreeWalkOptions walk = {};
    /// Whether finished objects are added to the count of the walk's cancellation.
    bool counts = true;
    /// More than the usual ones only work while workers wait for the disk, each as long as it
    /// waits itself. They belong to the user of the walk's cancellation, whose share ExtraWorkers
    /// limits.
    int mostWorkers = kUsualWorkers;
    /// Counts the looks that found a worker waiting. May be null. Borrowed.
    std::atomic<std::uint64_t>* waitsFound = nullptr;
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
/// most `kWaitingDirectories` wait, each an open descriptor. What the walk's options say of the
/// order holds for the usual workers; extra ones take directories as listed, which needs less
/// memory. The visitor throws nothing but std::bad_alloc.
SubtreeResult walkSubtrees(UniqueFd top, SubtreeVisitor& visitor,
                           const SubtreeOptions& options = {});

}  // namespace corvalen
