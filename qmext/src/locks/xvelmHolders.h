/*
 * xvelmHolders.h - the internal arbitration rules and the holder accounting
 * of a node, for acquisition, release and change alike: the sharing test,
 * counting and un-counting internal and external holders, the recount of a
 * change, and the record-lock decision that follows a release. Every
 * function expects the node's NodeMutex held (or works on copies).
 *
 * The deliberate asymmetry, stated once: at acquisition a holder takes no
 * external lock when its type has QMELM_NOEXTERNAL_LOCK or QMELM_OPT_NONE,
 * and is counted in noexternal_lock; at release only QMELM_NOEXTERNAL_LOCK is
 * tested, so a holder
 * with option None is taken out of the counter of its external bit. Each
 * release still takes exactly one from the three external counters, so
 * their sum stays the number of holders and the node dies with its last.
 */
#ifndef XVELM_HOLDERS_H
#define XVELM_HOLDERS_H

#include "locks/xvelmIdentity.h"

namespace xvelm::detail {

inline constexpr QMMemSize kNoExternalAtAcquisition = QMELM_NOEXTERNAL_LOCK | QMELM_OPT_NONE;
// The bits of a type's internal lock that a change may alter.
inline constexpr QMMemSize kInternalLockBits =
    QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_SHARED;

// The internal counters of a node, or copies of them being recounted.
struct InternalCounts {
  QMMemSize exclusive;     // int_exclusive
  QMMemSize nonexclusive;  // int_nonexclusive
  uint32_t nonshared;      // int_nonshared_nonexclusive

  static InternalCounts of(const QMELMResLock &n) {
    return {n.int_exclusive, n.int_nonexclusive, n.int_nonshared_nonexclusive};
  }
  void storeIn(QMELMResLock &n) const {
    n.int_exclusive = exclusive;
    n.int_nonexclusive = nonexclusive;
    n.int_nonshared_nonexclusive = nonshared;
  }
};

// Would a request of type `request` mix shared and non-shared holders on a
// node whose current type is `nodeType`? Only asked of a node that has a type and takes internal
// locks. The cases are tested in this order on purpose: a shared holder is
// the one kind that may join an exclusive holder, and the one kind of
// exclusive holder that may join non-exclusive ones.
[[nodiscard]] inline bool mixesSharing(QMMemSize nodeType, QMMemSize request) {
  const bool nShared = (nodeType & QMELM_SHARED) != 0;
  const bool rShared = (request & QMELM_SHARED) != 0;
  const bool rExcl = (request & QMELM_INT_EXCLUSIVE) != 0;
  if ((nodeType & QMELM_INT_EXCLUSIVE) && nShared && !rShared) return true;
  if ((nodeType & QMELM_INT_NONEXCLUSIVE) && nShared && rExcl && !rShared) return true;
  if (!nShared) {
    if ((nodeType & QMELM_INT_EXCLUSIVE) && rShared) return true;
    if ((nodeType & QMELM_INT_NONEXCLUSIVE) && rExcl && rShared) return true;
  }
  return false;
}

// A change of a holder's internal lock from type `from` to type `to`, made on
// copies of the counters: 0 with the copies recounted, or the conflict with
// the copies as they may stand (the caller commits only on 0). A holder
// without an internal lock, or a change that keeps the internal part, only
// counts as it did.
[[nodiscard]] inline QMStatus recountInternal(QMMemSize from, QMMemSize to, InternalCounts &c) {
  if ((from & QMELM_NOINTERNAL_LOCK) || (from & kInternalLockBits) == (to & kInternalLockBits))
    return 0;
  const bool fromExcl = from & QMELM_INT_EXCLUSIVE, fromShared = from & QMELM_SHARED;
  const bool toExcl = to & QMELM_INT_EXCLUSIVE, toShared = to & QMELM_SHARED;
  QMMemSize &exclusive = c.exclusive, &nonexclusive = c.nonexclusive;
  uint32_t &nonshared = c.nonshared;
  if (fromExcl && !fromShared) {
    if (!toExcl) {  // to non-exclusive
      --exclusive, ++nonexclusive;
      if (!toShared) ++nonshared;
    }
  } else if (fromExcl && fromShared) {
    if (!toExcl && toShared) {
      --exclusive, ++nonexclusive;
    } else if (!toExcl) {
      --exclusive, ++nonexclusive, ++nonshared;
    } else if (!toShared && !(to & QMELM_INT_NONEXCLUSIVE) && nonexclusive != 0) {
      return QMELM_E_INT_SHARE_CONFLICT;
    }
  } else if (fromShared) {  // non-exclusive shared
    if (toShared && toExcl) {
      if (exclusive != 0) return QMELM_E_INT_LOCKED_EXCLUSIVE;
      if (nonshared != 0) return QMELM_E_INT_SHARE_CONFLICT;
      ++exclusive, --nonexclusive;
    } else if (!toShared) {
      if (exclusive != 0) return QMELM_E_INT_SHARE_CONFLICT;
      if (!toExcl) {
        ++nonshared;
      } else {
        if (nonexclusive - nonshared >= 2) return QMELM_E_INT_SHARE_CONFLICT;
        if (nonshared != 0) return QMELM_E_INT_LOCKED_SHARED;
        ++exclusive, --nonexclusive;
      }
    }
  } else {  // non-exclusive non-shared
    if (toShared && !toExcl) {
      --nonshared;
    } else if (toShared) {
      // A second exclusive holder is refused here as at acquisition: the
      // change would otherwise grant what no request can get.
      if (exclusive != 0) return QMELM_E_INT_LOCKED_EXCLUSIVE;
      if (nonshared >= 2) return QMELM_E_INT_SHARE_CONFLICT;
      --nonshared, --nonexclusive, ++exclusive;
    } else if (toExcl) {
      if (exclusive != 0) return QMELM_E_INT_LOCKED_EXCLUSIVE;
      if (nonexclusive != nonshared || nonexclusive >= 2)
        return nonexclusive == nonshared ? QMELM_E_INT_LOCKED_SHARED : QMELM_E_INT_SHARE_CONFLICT;
      ++exclusive, --nonshared, --nonexclusive;
    }
  }
  return 0;
}

// Counts a holder of internal type R in, or returns the refusal decided on
// the counters alone (a holder without an internal lock is only counted).
[[nodiscard]] inline QMStatus countInternal(QMELMResLock &n, QMMemSize R) {
  if (R & QMELM_NOINTERNAL_LOCK) {
    ++n.nointernal_lock;
    return 0;
  }
  const bool shared = (R & QMELM_SHARED) != 0;
  if (R & QMELM_INT_EXCLUSIVE) {
    if (n.int_exclusive != 0) return QMELM_E_INT_LOCKED_EXCLUSIVE;
    if (n.int_nonexclusive > 0 && !shared) return QMELM_E_INT_LOCKED_SHARED;
    ++n.int_exclusive;
    return 0;
  }
  if (n.int_exclusive == 0) {
    ++n.int_nonexclusive;
    if (!shared) ++n.int_nonshared_nonexclusive;
    return 0;
  }
  if (shared) {
    ++n.int_nonexclusive;
    return 0;
  }
  return QMELM_E_INT_LOCKED_EXCLUSIVE;
}

// What un-counting an internal holder does to the node's type: a release
// that leaves only shared non-exclusive holders says so again in the type
// (0x040); the undo of a failed acquisition leaves the type alone.
enum class NodeTypeAfter { Unchanged, SharedWhenOnlySharedRemain };

inline void uncountInternal(QMELMResLock &n, QMMemSize R, NodeTypeAfter after) {
  if (R & QMELM_NOINTERNAL_LOCK) {
    --n.nointernal_lock;
  } else if (R & QMELM_INT_EXCLUSIVE) {
    --n.int_exclusive;
  } else {
    --n.int_nonexclusive;
    if (!(R & QMELM_SHARED)) --n.int_nonshared_nonexclusive;
    if (after == NodeTypeAfter::SharedWhenOnlySharedRemain && n.int_nonshared_nonexclusive == 0 &&
        n.int_nonexclusive != 0)
      n.LockType |= QMELM_SHARED;
  }
}

// What counting an external holder in asks of the record lock.
enum class AcquireStep {
  NoRecordLock,  // no external lock, or the process holds the record lock already
  FirstHolder,   // the node's first external holder: it takes the record lock
};

// Counts a holder of type R in the external counters. Later holders only
// count (the process holds the record lock already; arbitration between
// threads is the internal lock's business); the node takes the first
// holder's type, and loses 0x040 when a non-shared non-exclusive one joins.
inline AcquireStep countExternal(QMELMResLock &n, QMMemSize R) {
  if (R & kNoExternalAtAcquisition) {
    ++n.noexternal_lock;
    if (n.LockType == 0) n.LockType = R;
    return AcquireStep::NoRecordLock;
  }
  if (R & QMELM_EXT_EXCLUSIVE) {
    if (++n.ext_exclusive > 1) {
      if (n.LockType == 0) n.LockType = R;
      return AcquireStep::NoRecordLock;
    }
    return AcquireStep::FirstHolder;
  }
  ++n.ext_nonexclusive;
  if (n.ext_exclusive != 0 || n.ext_nonexclusive > 1) {
    if (n.LockType == 0)
      n.LockType = R;
    else if ((n.LockType & QMELM_SHARED) && !(R & QMELM_SHARED))
      n.LockType &= ~QMMemSize{QMELM_SHARED};
    return AcquireStep::NoRecordLock;
  }
  return AcquireStep::FirstHolder;
}

// Which bits decide that a holder took no external lock.
enum class ExternalRule {
  Acquisition,  // 0x020 or 0x080
  Release,      // 0x020 alone (see above)
};

// Takes a holder of type R out of the external counters; true when an
// exclusive external holder left.
inline bool uncountExternal(QMELMResLock &n, QMMemSize R, ExternalRule rule) {
  const QMMemSize none =
      rule == ExternalRule::Release ? QMMemSize{QMELM_NOEXTERNAL_LOCK} : kNoExternalAtAcquisition;
  if (R & none) {
    --n.noexternal_lock;
    return false;
  }
  if (R & QMELM_EXT_EXCLUSIVE) {
    --n.ext_exclusive;
    return true;
  }
  --n.ext_nonexclusive;
  return false;
}

// What a release does about the record lock once the holder is out.
enum class ReleaseStep {
  CloseFile,  // the node's last holder: close its descriptors, the node dies
  Nothing,    // no exclusive external holder left
  Downgrade,  // the last exclusive one left non-exclusive ones: read lock
  Keep,       // other exclusive holders remain
};

inline ReleaseStep releaseStep(const QMELMResLock &n, bool exclusiveLeft) {
  if (n.ext_nonexclusive + n.ext_exclusive + n.noexternal_lock == 0) return ReleaseStep::CloseFile;
  if (!exclusiveLeft) return ReleaseStep::Nothing;
  if (n.ext_nonexclusive != 0 && n.ext_exclusive == 0) return ReleaseStep::Downgrade;
  return ReleaseStep::Keep;
}

// What the node's external holders need of the process's record lock.
inline Need needOf(QMMemSize extExclusive, QMMemSize extNonexclusive) {
  if (extExclusive != 0) return Need::Write;
  return extNonexclusive != 0 ? Need::Read : Need::None;
}

}  // namespace xvelm::detail

#endif  // XVELM_HOLDERS_H
