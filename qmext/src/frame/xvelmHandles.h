/*
 * xvelmHandles.h - the process-wide set of live lock handles (xvelmHandles.cpp)
 * and the block an acquisition allocates for each handle.
 */
#ifndef XVELM_HANDLES_H
#define XVELM_HANDLES_H

#include <sys/types.h>

#include "qmelm.h"

namespace xvelm::detail {

// What the request's name led to when the acquisition looked it up (its
// stat before the node was entered).
struct NameLookup {
  bool found = false;  // stat succeeded
  dev_t dev = 0;
  ino_t ino = 0;
};

// What lock acquisition really allocates for a handle: the public handle,
// its link in the process-wide set of live handles, and its name's look-up.
struct HandleBlock {
  XVELMLHndl pub;
  HandleBlock *nextLive;  // chain of the set's bucket; guarded by the bucket's lock
  NameLookup name;        // the acquisition's look-up of the name, for its identity check
};

// The set of live handles of every lock manager in the process. A handle
// joins it when lock acquisition hands it out and leaves it when a release
// takes it over, before anything reads it: a handle released twice (or never
// handed out) is refused without touching freed memory, unless its block has
// since been handed out again as a new handle (the set knows addresses
// only). The set allocates nothing (its chains run through the handle
// blocks) and its bucket locks are leaves of the lock order, held for a few
// pointer operations.
void registerHandle(HandleBlock *h) noexcept;
// Takes a handle out of the set; false when it was not live.
[[nodiscard]] bool unregisterHandle(const void *h) noexcept;
// Whether a handle is live (handed out and not yet released).
[[nodiscard]] bool handleIsLive(const void *h) noexcept;
// Takes every handle of an extension out of the set: its destroy frees them
// with its pool, whether or not their holders released them.
void unregisterHandlesOf(const QMELMExtension *ext) noexcept;
// Around fork(): every bucket lock is taken before it, so that no thread is
// half-way through a change of the set, and given back after it (in the
// child by resetHandleSetAfterFork, which frees them all).
void handleSetPrepareFork() noexcept;
void handleSetParentAfterFork() noexcept;
void resetHandleSetAfterFork() noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_HANDLES_H
