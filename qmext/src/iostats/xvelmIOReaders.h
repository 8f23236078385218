/*
 * xvelmIOReaders.h - how I/O records are read without a mutex: atomic
 * accesses to the fields such readers see, reading sections, and the grace
 * period a reset waits for before a record leaves every reader's reach
 * (xvelmIOReaders.cpp).
 *
 * Why a reader without a mutex never touches a freed record. The
 * report, and the queries whose caller did not ask for locking, walk the list
 * and read records holding no mutex at all, so that they run even while other
 * threads hold IOInfoMutex or a record's mutex. Such a reader announces itself
 * in a reading section (two process-wide counters, never a wait), and a
 * record is given back to the pool only after a grace period: once it is off
 * the list, every reading section that might still hold a pointer to it must
 * have ended. Readers never wait. The only thread that waits for them is a
 * reset, holding no mutex of the lock manager: a reader may be a report
 * writing to a journal that blocks, and nothing else may wait behind it. So
 * a reset marks a record retired only after the grace period that follows
 * its leaving the list, and a retired record is out of every reader's reach:
 * a node's destruction, which runs inside a lock acquisition, frees its
 * retired records at once and never waits. The fields such readers see
 * change only through atomic accesses, so a reader gets each value whole, if
 * not a consistent record.
 */
#ifndef XVELM_IOREADERS_H
#define XVELM_IOREADERS_H

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "qmelm.h"

namespace xvelm::detail {

// Counters, times and flags: relaxed (a reader accepts a record half updated).
template <class T>
inline T peek(const T &field) {
  static_assert(std::atomic_ref<T>::is_always_lock_free);
  return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}
template <class T>
inline void poke(T &field, std::type_identity_t<T> value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}
// The list's links: a reader that reaches a record through one sees it whole.
inline QMELMIOInfop follow(const QMELMIOInfop &link) {
  return std::atomic_ref<QMELMIOInfop>(const_cast<QMELMIOInfop &>(link))
      .load(std::memory_order_acquire);
}
inline void setLink(QMELMIOInfop &link, QMELMIOInfop to) {
  std::atomic_ref<QMELMIOInfop>(link).store(to, std::memory_order_release);
}

// Counters are added modulo 2^64: a total never overflows into undefined
// behaviour, however large the increments a host reports.
inline QMIOSize addWrapping(QMIOSize a, QMIOSize b) {
  return static_cast<QMIOSize>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// A reader's section. It counts itself in the current phase's counter, and
// tries again when the phase moved meanwhile: a section never stays counted
// in a phase that a grace period has already closed.
class ReadingSection {
 public:
  ReadingSection() noexcept;
  ~ReadingSection();
  ReadingSection(const ReadingSection &) = delete;
  ReadingSection &operator=(const ReadingSection &) = delete;

 private:
  uint64_t slot_ = 0;
};

// Returns once every reading section that began before the call has ended.
// Records taken off the list before the call are then out of every reader's
// reach: sections that begin later start from the list as it is now. The
// current phase is closed (new sections count in the other counter) and its
// readers drain; nothing makes them wait, so the drain ends once each of them
// has. Called only by a reset, with no mutex held.
void waitForReaders() noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_IOREADERS_H
