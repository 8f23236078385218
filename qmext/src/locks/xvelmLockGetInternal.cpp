/*
 * xvelmLockGetInternal - grants or refuses, at once, a new handle's internal
 * lock (between the threads of this process) by the node's holder counters.
 * Expects the node's NodeMutex held by the caller; takes no mutex itself.
 * Allocates only a message buffer (with a journal), freed before returning.
 * Returns 0, QMELM_E_INT_SHARE_CONFLICT, QMELM_E_INT_LOCKED_EXCLUSIVE or
 * QMELM_E_INT_LOCKED_SHARED; a refusal changes no counter.
 */
#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "locks/xvelmHolders.h"
#include "locks/xvelmLock.h"

using namespace xvelm::detail;

int xvelmLockGetInternal(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
  lockOrderRequire(Rank::Node);
  QMELMResLock &node = nodeOf(lock)->pub.CommonLock;
  const QMMemSize R = lock->Private.LockType;
  const QMMemSize N = node.LockType;

  // A holder without an internal lock is only counted, whatever the node
  // holds: the sharing test is not made for it.
  QMStatus st = 0;
  if (!(R & QMELM_NOINTERNAL_LOCK) && N != 0 && !(N & QMELM_NOINTERNAL_LOCK) && mixesSharing(N, R))
    st = QMELM_E_INT_SHARE_CONFLICT;
  else
    st = countInternal(node, R);
  if (st == 0) return 0;

  const auto *parms = static_cast<const XVELMFileLockParms *>(lockParms);
  Message msg(fileHandleOf(lock)->ExtensionHndl, jnl);
  msg.status(st)
      .status(st == QMELM_E_INT_SHARE_CONFLICT ? QMELM_M_PATH : QMELM_M_INT_LOCK_CONFLICT)
      .text(parms->Filename, static_cast<QMStrSize>(parms->FilenameLen))
      .status(QMELM_M_TRAILER);
  (void)msg.journal();
  return st;
}
