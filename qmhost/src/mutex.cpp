/*
 * mutex.cpp - the host's mutexes: a std::shared_mutex with a record of its
 * holders, so that release knows which mode the calling thread holds. The
 * record is updated before the unlock and the object is never touched after
 * it: a thread that takes the mutex next may destroy it at once.
 */
#include <pthread.h>

#include <system_error>
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
// thread holds few mutexes shared at once: a short vector searched linearly.
class SharedHolds {
 public:
  bool holds(const Lock *l) const {
    for (const Lock *h : held_)
      if (h == l) return true;
    return false;
  }
  void reserveOne() { held_.reserve(held_.size() + 1); }    // may throw bad_alloc
  void add(const Lock *l) noexcept { held_.push_back(l); }  // after reserveOne
  bool drop(const Lock *l) noexcept {
    for (size_t i = held_.size(); i-- > 0;) {
      if (held_[i] == l) {
        held_[i] = held_.back();
        held_.pop_back();
        return true;
      }
    }
    return false;
  }

 private:
  std::vector<const Lock *> held_;
};

thread_local SharedHolds sharedHolds;

// Tries take() for about a microsecond before the caller blocks: the
// sections callers guard with these mutexes are mostly a few hundred
// nanoseconds long, far shorter than falling asleep in the kernel and being
// woken again.
template <class Take>
bool spinFor(Take take) {
  for (int i = 0; i < 40; ++i) {
    if (take()) return true;
    for (int j = 0; j < 8; ++j) spinPause();
  }
  return false;
}

QMStatus lockGet(QMLockh lh, int exclusive, int wait) noexcept {
  if (lh == nullptr) return QM_E_BAD_ARGUMENT;
  Lock *l = asLock(lh);
  const uintptr_t me = self();
  // The mutex is not recursive: a second get by a thread that holds it, in
  // either mode, would never return (or is undefined for a shared holder).
  if (l->owner.load(std::memory_order_relaxed) == me || sharedHolds.holds(l)) return QM_E_BUSY;
  try {
    if (exclusive != 0) {
      if (wait != 0) {
        if (!spinFor([l] { return l->m.try_lock(); })) l->m.lock();
      } else if (!l->m.try_lock()) {
        return QM_E_BUSY;
      }
      l->owner.store(me, std::memory_order_relaxed);
    } else {
      sharedHolds.reserveOne();
      if (wait != 0) {
        if (!spinFor([l] { return l->m.try_lock_shared(); })) l->m.lock_shared();
      } else if (!l->m.try_lock_shared()) {
        return QM_E_BUSY;
      }
      sharedHolds.add(l);
      l->shared.fetch_add(1, std::memory_order_relaxed);
    }
  } catch (const std::system_error &) {
    return QM_E_BUSY;  // the library saw a deadlock, or too many readers
  } catch (const std::bad_alloc &) {
    return QM_E_NO_MEMORY;
  }
  return 0;
}

// Only the exclusive holder ever stores its own id in owner, so reading our
// id there means we hold the mutex exclusively (relaxed is enough: a thread
// always sees its own latest store). Shared holds are the thread's own record.
QMStatus lockRelease(QMLockh lh) noexcept {
  if (lh == nullptr) return QM_E_BAD_ARGUMENT;
  Lock *l = asLock(lh);
  if (l->owner.load(std::memory_order_relaxed) == self()) {
    l->owner.store(0, std::memory_order_relaxed);
    l->m.unlock();
    return 0;
  }
  if (!sharedHolds.drop(l)) return QM_E_NOT_HELD;
  l->shared.fetch_sub(1, std::memory_order_relaxed);
  l->m.unlock_shared();
  return 0;
}

// The caller may hold the mutex exclusively (it took it to be sure nobody
// else does): it is released first. Held by anyone else: QM_E_BUSY, and the
// mutex stays live.
QMStatus lockDestroy(void *object) noexcept {
  if (object == nullptr) return QM_E_BAD_ARGUMENT;
  Lock *l = static_cast<Lock *>(object);
  if (l->owner.load(std::memory_order_relaxed) == self()) {
    l->owner.store(0, std::memory_order_relaxed);
    l->m.unlock();
  } else if (l->owner.load(std::memory_order_relaxed) != 0 ||
             l->shared.load(std::memory_order_relaxed) > 0) {
    return QM_E_BUSY;
  }
  std::unique_ptr<Lock> owned = l->host->locks.take(object);
  return owned ? 0 : QM_E_BAD_ARGUMENT;
}

}  // namespace

Lock::Lock(Host *h, const char *lockName)
    : host(h), name(lockName != nullptr ? lockName : "mutex") {
  pub.generic.oven = oven("lock");
  pub.generic.name = name.data();
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
