/*
 * xvelmIOReaders - reading sections and the grace period: two process-wide
 * counters, never a wait for a reader; only a reset waits, holding no mutex.
 * Takes no mutex, allocates nothing.
 */
#include "iostats/xvelmIOReaders.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace xvelm::detail {
namespace {

// A section belongs to the phase that was current when it began; phases
// alternate between the two counters. Process-wide, as the handle set is: a
// grace period waits for the readers of every lock manager in the process,
// which only costs the waiting reset a little more time.
std::atomic<uint64_t> readPhase{0};
std::atomic<int64_t> phaseReaders[2];
std::atomic_flag graceRunning;  // one grace period at a time

// In the child of a fork only the forking thread goes on, and it is never
// inside a section (the lock manager does not fork): sections and a grace
// period that other threads of the parent had under way are forgotten, or
// the child's first grace period would wait for them for ever.
void forgetReadersAfterFork() {
  phaseReaders[0].store(0, std::memory_order_relaxed);
  phaseReaders[1].store(0, std::memory_order_relaxed);
  graceRunning.clear(std::memory_order_relaxed);
}
[[maybe_unused]] const int forkHandlerInstalled =
    pthread_atfork(nullptr, nullptr, forgetReadersAfterFork);

}  // namespace

ReadingSection::ReadingSection() noexcept {
  for (;;) {
    const uint64_t phase = readPhase.load(std::memory_order_seq_cst);
    slot_ = phase & 1;
    phaseReaders[slot_].fetch_add(1, std::memory_order_seq_cst);
    if (readPhase.load(std::memory_order_seq_cst) == phase) return;
    phaseReaders[slot_].fetch_sub(1, std::memory_order_release);
  }
}

ReadingSection::~ReadingSection() {
  phaseReaders[slot_].fetch_sub(1, std::memory_order_release);
}

// Returns once every reading section that began before the call has ended.
// Records taken off the list before the call are then out of every reader's
// reach: sections that begin later start from the list as it is now. The
// current phase is closed (new sections count in the other counter) and its
// readers drain; nothing makes them wait, so the drain ends once each of them
// has. Called only by a reset, with no mutex held.
void waitForReaders() noexcept {
  while (graceRunning.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  const uint64_t closed = readPhase.fetch_add(1, std::memory_order_seq_cst) & 1;
  while (phaseReaders[closed].load(std::memory_order_seq_cst) != 0) std::this_thread::yield();
  graceRunning.clear(std::memory_order_release);
}

}  // namespace xvelm::detail
