/*
 * mutex.cpp - the host's mutexes: a reader-writer lock in one atomic word,
 * with a record of its holders so that release knows which mode the calling
 * thread holds. Taking or giving back a mutex nobody waits for is one
 * compare-and-swap; a taker that cannot have it spins for about a
 * microsecond, then sleeps on the word (futex) until a release wakes it.
 * Shared holders are preferred: a waiting exclusive taker does not stop new
 * shared holders.
 *
 * A release changes the word in one atomic step and touches the object no
 * more after it, except to name the word's address to the kernel when a
 * sleeper must be woken: a thread that takes the mutex next may destroy it at
 * once, and a wake-up on an address whose memory went back to the allocator
 * at worst wakes a sleeper of another word, which then looks again.
 */
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <vector>

#include "host_internal.h"

namespace qmhost {

namespace {

Lock *asLock(QMLockh l) {
  return reinterpret_cast<Lock *>(l);
}

// pthread_self is a register read on Linux and never 0 for a live thread.
uintptr_t self() {
  return static_cast<uintptr_t>(pthread_self());
}

// The shared holds of the calling thread, so that a release knows which mode
// its caller holds and a thread cannot take a mutex it already holds. A
// thread holds few mutexes shared at once: the first ones are kept in a
// fixed array (no allocation, no construction on first use), any more in a
// vector. The library's thread-locals use the initial-exec model: reaching
// them is one instruction instead of a call into the dynamic loader.
#define QMHOST_TLS __attribute__((tls_model("initial-exec")))
constexpr int kInlineHolds = 8;
thread_local QMHOST_TLS const Lock *tHolds[kInlineHolds];
thread_local QMHOST_TLS int tHoldCount = 0;      // used entries of tHolds
thread_local QMHOST_TLS int tMoreHoldCount = 0;  // entries of tMoreHolds
thread_local std::vector<const Lock *> tMoreHolds;

bool holdsShared(const Lock *l) {
  for (int i = 0; i < tHoldCount; ++i)
    if (tHolds[i] == l) return true;
  if (tMoreHoldCount == 0) return false;
  for (const Lock *h : tMoreHolds)
    if (h == l) return true;
  return false;
}

// Makes room for one more shared hold; false when that needs memory that
// cannot be had.
bool roomForHold() noexcept {
  if (tHoldCount < kInlineHolds) return true;
  try {
    tMoreHolds.reserve(tMoreHolds.size() + 1);
  } catch (const std::bad_alloc &) {
    return false;
  }
  return true;
}

void addHold(const Lock *l) noexcept {  // after roomForHold
  if (tHoldCount < kInlineHolds) {
    tHolds[tHoldCount++] = l;
  } else {
    tMoreHolds.push_back(l);
    tMoreHoldCount = static_cast<int>(tMoreHolds.size());
  }
}

bool dropHold(const Lock *l) noexcept {
  for (int i = tHoldCount; i-- > 0;) {
    if (tHolds[i] == l) {
      tHolds[i] = tHolds[--tHoldCount];
      return true;
    }
  }
  if (tMoreHoldCount == 0) return false;
  for (size_t i = tMoreHolds.size(); i-- > 0;) {
    if (tMoreHolds[i] == l) {
      tMoreHolds[i] = tMoreHolds.back();
      tMoreHolds.pop_back();
      tMoreHoldCount = static_cast<int>(tMoreHolds.size());
      return true;
    }
  }
  return false;
}

void futexWait(std::atomic<uint32_t> &word, uint32_t expected) {
  (void)syscall(SYS_futex, reinterpret_cast<uint32_t *>(&word), FUTEX_WAIT_PRIVATE, expected,
                nullptr, nullptr, 0);
}

void futexWakeAll(std::atomic<uint32_t> &word) {
  (void)syscall(SYS_futex, reinterpret_cast<uint32_t *>(&word), FUTEX_WAKE_PRIVATE, INT_MAX,
                nullptr, nullptr, 0);
}

// What keeps a taker of each mode out.
bool blocksExclusive(uint32_t s) {
  return (s & (kLockExclusive | kLockSharers)) != 0;
}
bool blocksShared(uint32_t s) {
  return (s & kLockExclusive) != 0 || (s & kLockSharers) == kLockSharers;
}

// One attempt; the sleeper bit is kept, so that the release wakes the others.
bool tryExclusive(Lock *l) {
  uint32_t s = l->state.load(std::memory_order_relaxed);
  while (!blocksExclusive(s))
    if (l->state.compare_exchange_weak(s, s | kLockExclusive, std::memory_order_acquire,
                                       std::memory_order_relaxed))
      return true;
  return false;
}
bool tryShared(Lock *l) {
  uint32_t s = l->state.load(std::memory_order_relaxed);
  while (!blocksShared(s))
    if (l->state.compare_exchange_weak(s, s + 1, std::memory_order_acquire,
                                       std::memory_order_relaxed))
      return true;
  return false;
}

// After a failed attempt: tries for about a microsecond (the sections callers guard with these
// mutexes are mostly a few hundred nanoseconds long, far shorter than falling
// asleep in the kernel and being woken again), then sleeps until a release
// changes the word, and tries again.
template <class Take, class Blocks>
[[gnu::noinline]] void take(Lock *l, Take tryTake, Blocks blocks) {
  for (int i = 0; i < 40; ++i) {
    if (tryTake(l)) return;
    for (int j = 0; j < 8; ++j) spinPause();
  }
  while (!tryTake(l)) {
    uint32_t s = l->state.load(std::memory_order_relaxed);
    if (!blocks(s)) continue;
    if ((s & kLockSleepers) == 0 &&
        !l->state.compare_exchange_weak(s, s | kLockSleepers, std::memory_order_relaxed))
      continue;
    futexWait(l->state, s | kLockSleepers);
  }
}

QMStatus lockGet(QMLockh lh, int exclusive, int wait) noexcept {
  if (lh == nullptr) return QM_E_BAD_ARGUMENT;
  Lock *l = asLock(lh);
  const uintptr_t me = self();
  // The mutex is not recursive: a second get by a thread that holds it, in
  // either mode, would never return.
  if (l->owner.load(std::memory_order_relaxed) == me || holdsShared(l)) return QM_E_BUSY;
  if (exclusive != 0) {
    if (!tryExclusive(l)) {
      if (wait == 0) return QM_E_BUSY;
      take(l, tryExclusive, blocksExclusive);
    }
    l->owner.store(me, std::memory_order_relaxed);
    return 0;
  }
  if (!roomForHold()) return QM_E_NO_MEMORY;
  if (!tryShared(l)) {
    if (wait == 0) return QM_E_BUSY;
    take(l, tryShared, blocksShared);
  }
  addHold(l);
  return 0;
}

// Gives back the exclusive hold of the calling thread.
void releaseExclusive(Lock *l) {
  l->owner.store(0, std::memory_order_relaxed);
  const uint32_t was =
      l->state.fetch_and(~(kLockExclusive | kLockSleepers), std::memory_order_release);
  if ((was & kLockSleepers) != 0) futexWakeAll(l->state);
}

// Gives back one shared hold. The last holder to leave clears the sleeper
// bit in the same step, and wakes the sleepers.
void releaseShared(Lock *l) {
  uint32_t s = l->state.load(std::memory_order_relaxed);
  uint32_t next;
  do {
    next = s - 1;
    if ((next & kLockSharers) == 0) next &= ~kLockSleepers;
  } while (!l->state.compare_exchange_weak(s, next, std::memory_order_release,
                                           std::memory_order_relaxed));
  if ((s & kLockSleepers) != 0 && (next & kLockSleepers) == 0) futexWakeAll(l->state);
}

// Only the exclusive holder ever stores its own id in owner, so reading our
// id there means we hold the mutex exclusively (relaxed is enough: a thread
// always sees its own latest store). Shared holds are the thread's own record.
QMStatus lockRelease(QMLockh lh) noexcept {
  if (lh == nullptr) return QM_E_BAD_ARGUMENT;
  Lock *l = asLock(lh);
  if (l->owner.load(std::memory_order_relaxed) == self()) {
    releaseExclusive(l);
    return 0;
  }
  if (!dropHold(l)) return QM_E_NOT_HELD;
  releaseShared(l);
  return 0;
}

// The caller may hold the mutex exclusively (it took it to be sure nobody
// else does): it is released first. Held by anyone else: QM_E_BUSY, and the
// mutex stays live.
QMStatus lockDestroy(void *object) noexcept {
  if (object == nullptr) return QM_E_BAD_ARGUMENT;
  Lock *l = static_cast<Lock *>(object);
  if (l->owner.load(std::memory_order_relaxed) == self())
    releaseExclusive(l);
  else if ((l->state.load(std::memory_order_acquire) & (kLockExclusive | kLockSharers)) != 0)
    return QM_E_BUSY;
  std::unique_ptr<Lock> owned = l->host->locks.take(object);
  return owned ? 0 : QM_E_BAD_ARGUMENT;
}

}  // namespace

Lock::Lock(Host *h, const char *lockName) : host(h) {
  if (lockName == nullptr) lockName = "mutex";
  const size_t n = std::strlen(lockName);
  if (n < sizeof shortName) {
    std::memcpy(shortName, lockName, n + 1);
    pub.generic.name = shortName;
  } else {
    longName = lockName;  // may throw bad_alloc: lockCreate handles it
    pub.generic.name = longName.data();
  }
  pub.generic.oven = oven("lock");
  pub.generic.destroy = lockDestroy;
  pub.get = lockGet;
  pub.release = lockRelease;
}

QMLockh lockCreate(QMHndlp h, const QMLockCreateParms * /*parms: every mutex is shared-capable*/,
                   QMJnlh /*jnl*/, const char *name) noexcept {
  if (h == nullptr) return nullptr;
  Host *host = hostOf(h);
  if (host->fail.hit(QMHOST_FAIL_LOCK_CREATE)) {
    setLastStatus(host, QM_E_INJECTED_FAILURE);
    return nullptr;
  }
  try {
    Lock *lock = host->locks.add(std::make_unique<Lock>(host, name));
    if (lock != nullptr) return &lock->pub;
  } catch (const std::bad_alloc &) {
  }
  setLastStatus(host, QM_E_NO_MEMORY);
  return nullptr;
}

}  // namespace qmhost
