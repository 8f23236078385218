/*
 * xvelmLockRelease - ends a handle: uncounts it, parks its descriptor, keeps,
 * downgrades or (last holder: xvelmCloseFile) drops the record lock, frees
 * the handle. Takes NodeMutex; xvelmCloseFile expects it held and frees the
 * parked descriptor records. Returns 0, QMELM_E_NULL_HANDLE, _DEAD_NODE,
 * _EXT_LOCK_FAILED, _CLOSE_FAILED, _UNLINK_FAILED or a pool status.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "frame/xvelm.h"
#include "frame/xvelmHandles.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "locks/xvelmHolders.h"
#include "locks/xvelmRecordLock.h"

namespace {

using namespace xvelm::detail;

// The last exclusive external holder left non-exclusive ones behind: turn
// the process's write lock into a read lock (l_type 0 is F_RDLCK here; the
// request is sent all zero on purpose, whole file, without waiting).
[[nodiscard]] QMStatus downgrade(XVELMLHndl *h, NodeState *node, XVELMFileLockParms *parms,
                                 QMJnlh jnl) {
  static_assert(F_RDLCK == 0, "the all-zero record-lock request asks for a read lock");
  const QMMemSize R = h->Common.Private.LockType;
  const int fd = h->FDP != nullptr ? h->FDP->fd : -1;
  // Another node of the file may still need the write lock: the table then
  // sends nothing.
  const RecordLockResult r = setRecordLock(node, Need::Read, fd);
  if (r.outcome != RecordLockResult::Outcome::Refused) {
    // The node takes the leaving holder's type, as it always has.
    grantRecordLock(node, R);
    return 0;
  }
  const int err = r.err;
  if (parms != nullptr) {
    parms->Errno = err;
    parms->LockerPID = r.req.l_pid;
    parms->SystemID = 0;  // struct flock has no system id here
  }
  FailureText t{QMELM_E_EXT_LOCK_FAILED, nullptr, 0, MessageTail::Errno, err};
  messageName(parms, node, &t.name, &t.nameLen);
  (void)journalFileLockFailure(h->ExtensionHndl, jnl, t, Rendering::Checked);
  // With option Continue the holder has asked to go on whatever the record
  // lock does; the counts stay taken out either way.
  return (R & QMELM_OPT_CONTINUE) ? 0 : QMELM_E_EXT_LOCK_FAILED;
}

}  // namespace

int xvelmLockRelease(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  if (lock == nullptr) return journaled(chooseJournal(nullptr, jnl), QMELM_E_NULL_HANDLE);
  // A handle leaves the live set before anything of it is read: a second
  // release (or a pointer never handed out) is told apart without touching
  // memory that may already be freed.
  if (!unregisterHandle(lock)) return journaled(chooseJournal(nullptr, jnl), QMELM_E_DEAD_NODE);
  // A handle made before this process was forked: the child holds no lock
  // through it, and its node (whose mutexes a thread of the parent may have
  // held at the fork) is never touched here. The handle is not freed.
  NodeState *node = nodeOf(lock);
  if (node->generation != forkGeneration())
    return journaled(chooseJournal(fileHandleOf(lock)->ExtensionHndl, jnl), QMELM_E_FORKED_HANDLE);

  XVELMFileLock &f = node->pub;
  XVELMLHndl *h = fileHandleOf(lock);
  QMELMExtension *ext = h->ExtensionHndl;
  jnl = chooseJournal(ext, jnl);
  auto *parms = static_cast<XVELMFileLockParms *>(lockParms);
  QMELMResLock &n = f.CommonLock;
  QMStatus result = 0;
  {
    MutexGuard nm(n.NodeMutex, Rank::Node);
    if (!nm) {
      registerHandle(handleBlockOf(lock));  // still the caller's, untouched
      return journaled(jnl, nm.status());
    }
    // The handle's type is read under the node's mutex, like every change of it.
    const QMMemSize R = lock->Private.LockType;
    if (isDead(&n)) {
      // A live handle keeps its node alive (the node dies with its last
      // holder), so this should not happen; if it does, the handle is not
      // freed and stays live for its owner.
      registerHandle(handleBlockOf(lock));
      nm.unlock();
      return journaled(jnl, QMELM_E_DEAD_NODE);
    }

    uncountInternal(n, R, NodeTypeAfter::SharedWhenOnlySharedRemain);
    const bool exclusiveLeft = uncountExternal(n, R, ExternalRule::Release);
    if (parms != nullptr)
      node->pub.DeleteOnClose = (parms->Flags & QMELM_FLAG_DELETE_ON_CLOSE) ? 1 : 0;

    // The descriptor is parked, never closed here: closing any descriptor of
    // the file would drop the record lock the other holders rely on.
    if (h->FDP != nullptr) park(node, h->FDP);

    switch (releaseStep(n, exclusiveLeft)) {
      case ReleaseStep::CloseFile:
        result = xvelmCloseFile(lock, lockParms, jnl);
        markDead(&n);
        queueDeadNode(node);
        break;
      case ReleaseStep::Nothing:
        break;
      case ReleaseStep::Downgrade:
        result = downgrade(h, node, parms, jnl);
        break;
      case ReleaseStep::Keep:
        // The record lock stays as it is, and the node takes the leaving
        // holder's type, as it always has.
        grantRecordLock(node, R);
        break;
    }

    if (ext->Common.hndl->iobytecount > QMIO_ByteCount_None) {
      QMELMCloseIOInfoParms cp{};
      cp.closeTime = qmzdttmeOf(ext->Common.hndl);
      (void)xvelmCloseIOInfo(lock, &cp, jnl);
    }
    if (lock->Public.ResourceHandle != nullptr)
      (void)freeBlock(ext->Pool, lock->Public.ResourceHandle, jnl);
  }
  (void)freeBlock(lock->Private.Pool, handleBlockOf(lock), jnl);
  return result;
}

int xvelmCloseFile(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
  lockOrderRequire(Rank::Node);
  QMELMExtension *ext = fileHandleOf(lock)->ExtensionHndl;
  NodeState *node = nodeOf(lock);
  XVELMFileLock &f = node->pub;
  const auto *parms = static_cast<const XVELMFileLockParms *>(lockParms);
  FailureText t{0, nullptr, 0, MessageTail::Errno, 0};
  messageName(parms, node, &t.name, &t.nameLen);

  // The name is deleted first, while the process still holds the file and
  // only when it still leads to the node's file and no other process holds
  // it: deleted after the close, another process could be granted the name
  // in between and then lose its file to the unlink. Closing the first
  // descriptor then drops the process's record lock; only parked
  // descriptors are closed (no holder uses them), and only when no other
  // node of the process needs a lock on the file.
  const bool deleteAsked = f.DeleteOnClose != 0;
  const bool deleted = deleteAsked && deleteWhileHeld(node);
  QMStatus result = closeParked(ext, node, jnl, t);
  if (deleteAsked && !deleted) {
    result = QMELM_E_UNLINK_FAILED;
    // The end piece twice and no errno: the message as users know it.
    t.head = QMELM_E_UNLINK_FAILED;
    t.tail = MessageTail::DoubledEnd;
    (void)journalFileLockFailure(ext, jnl, t, Rendering::Checked);
  }
  return result;
}
