/*
 * xvelmMutex.h - the lock order (Rank: every mutex of the lock manager,
 * outermost first), its run-time check, and the guard that holds a host
 * mutex for a scope. The check itself is xvelmLockOrder.cpp.
 */
#ifndef XVELM_MUTEX_H
#define XVELM_MUTEX_H

#include <cstdint>

#include "qmelm.h"

// Clang's thread-safety attributes, empty for other compilers. The guards
// below are marked scoped_lockable, but a host mutex is an opaque handle the
// analysis cannot name, so they acquire no capability it can check: the lock
// order is checked at run time instead (QMELM_CHECK_LOCK_ORDER).
#if defined(__clang__)
#define XVELM_TSA(x) __attribute__((x))
#else
#define XVELM_TSA(x)
#endif

namespace xvelm::detail {

// ---- the lock order -----------------------------------------------------

// Every mutex of the lock manager, outermost first. A thread takes them only
// in increasing rank (never one of a rank it already holds, nor a lower
// one), and OptionMutex only while it holds none of the others. Taking them
// in this order everywhere is what keeps two threads from waiting for each
// other. In debug and sanitizer builds (QMELM_CHECK_LOCK_ORDER) every guard
// records its rank on a per-thread list and the process aborts, naming both
// mutexes, on an inversion, on a release of a mutex the thread does not
// hold, and where a function that requires a mutex is entered without it.
// The fork handlers take every mutex of every rank at once; they bypass the
// guards and keep the same order (see xvelmFork.cpp).
enum class Rank : uint8_t {
  Registry = 1,     // the process's registry of lock manager objects
  List = 2,         // an object's ListMutex: LockList and the name index
  NodeDelete = 3,   // a node's NodeDeleteMutex: its acquirers against its destruction
  Node = 4,         // a node's NodeMutex: its counters, descriptors and type
  FileTable = 5,    // a file's turn in the process's file table
  TableStripe = 6,  // a stripe of the file table (table reads and writes only)
  IOInfo = 7,       // an object's IOInfoMutex: the I/O list and the records' chains
  Record = 8,       // an I/O record's own mutex: its counters and close time
  Option = 9,       // an object's OptionMutex: the option table (taken alone)
  HandleSet = 10,   // a bucket lock of the live-handle set (a leaf)
};

#if QMELM_CHECK_LOCK_ORDER
void lockOrderTake(Rank r) noexcept;     // before a mutex of rank r is taken
void lockOrderTaken(Rank r) noexcept;    // once it is held
void lockOrderGive(Rank r) noexcept;     // when it is given back
void lockOrderRequire(Rank r) noexcept;  // a function that needs it held
#else
inline void lockOrderTake(Rank) noexcept {}
inline void lockOrderTaken(Rank) noexcept {}
inline void lockOrderGive(Rank) noexcept {}
inline void lockOrderRequire(Rank) noexcept {}
#endif

// ---- mutexes -------------------------------------------------------------

enum class LockMode : int { Shared = 0, Exclusive = 1 };

// Holds a host mutex for its scope: get(mode, 1) on construction, release on
// destruction or unlock(). A get the host refuses (re-entry by a thread that
// holds the mutex, no memory, a failure) leaves the guard not held: the
// caller must test it and return status() instead of running its critical
// section unlocked.
class XVELM_TSA(scoped_lockable) MutexGuard {
 public:
  MutexGuard(QMLockh m, Rank rank, LockMode mode = LockMode::Exclusive)
      XVELM_TSA(no_thread_safety_analysis)
      : m_(m), rank_(rank) {
    lockOrderTake(rank);
    status_ = m == nullptr ? QMELM_E_NO_MEMORY : m->get(m, static_cast<int>(mode), 1);
    held_ = status_ == 0;
    if (held_) lockOrderTaken(rank);
  }
  ~MutexGuard() XVELM_TSA(no_thread_safety_analysis) { unlock(); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;
  void unlock() XVELM_TSA(no_thread_safety_analysis) {
    if (held_) {
      held_ = false;
      lockOrderGive(rank_);
      (void)m_->release(m_);
    }
  }
  bool held() const { return held_; }
  explicit operator bool() const { return held_; }
  // The host's status for a refused get; 0 while held.
  QMStatus status() const { return held_ ? 0 : status_; }

 private:
  QMLockh m_ = nullptr;
  Rank rank_;
  QMStatus status_ = 0;
  bool held_ = false;
};

}  // namespace xvelm::detail

#endif  // XVELM_MUTEX_H
