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

#include "xvelm.h"
#include "xvelmHolders.h"
#include "xvelmLock.h"

namespace {

using namespace xvelm::detail;

// The last exclusive external holder left non-exclusive ones behind: turn
// the process's write lock into a read lock (l_type 0 is F_RDLCK here; the
// request is sent all zero on purpose, whole file, without waiting).
[[nodiscard]] QMStatus downgrade(XVELMLHndl *h, NodeState *node, XVELMFileLockParms *parms,
                                 QMJnlh jnl) {
  static_assert(F_RDLCK == 0, "the all-zero record-lock request asks for a read lock");
  const QMMemSize R = h->Common.Private.LockType;
  struct flock req {};
  const int fd = h->FDP != nullptr ? h->FDP->fd : -1;
  int rc = 0;
  {
    // Another node of the file may still need the write lock: the table
    // then sends nothing.
    TableLock t(node->link);
    rc = setNeed(t, node->link, Need::Read, fd, req);
  }
  if (rc == 0 || errno == EOPNOTSUPP || errno == EROFS || errno == EINVAL) {
    // The node takes the leaving holder's type, as it always has.
    grantRecordLock(node, R);
    return 0;
  }
  const int err = errno;
  if (parms != nullptr) {
    parms->Errno = err;
    parms->LockerPID = req.l_pid;
    parms->SystemID = 0;  // struct flock has no system id here
  }
  FailureText t{QMELM_E_EXT_LOCK_FAILED, nullptr, 0, MessageTail::Errno, err};
  messageName(parms, node, &t.name, &t.nameLen);
  (void)journalFileLockFailure(h->ExtensionHndl, jnl, t, Rendering::Checked);
  // With option Continue the holder has asked to go on whatever the record
  // lock does; the counts stay taken out either way.
  return (R & QMELM_OPT_CONTINUE) ? 0 : QMELM_E_EXT_LOCK_FAILED;
}

// Deletes the node's name when it still names the node's file; false when
// it names another file, nothing, or unlink fails. (A node that never had a
// descriptor goes by the identity its name had when the node was made.)
bool unlinkIfNodeFile(const NodeState *node) {
  const XVELMFileLock &f = node->pub;
  struct stat st {};
  if (sys().stat(f.ID.NarrowFilename, &st) != 0) return false;
  const bool ours = node->link.known ? isNodeFile(node->link, st)
                                     : st.st_ino == f.ID.InodeNum && st.st_dev == f.ID.DeviceNum;
  return ours && sys().unlink(f.ID.NarrowFilename) == 0;
}

}  // namespace

int xvelmLockRelease(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
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
    MutexGuard nm(n.NodeMutex);
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
    if (h->FDP != nullptr) {
      unlinkDescriptor(node->pub.OpenFileDescriptorList, h->FDP);
      pushDescriptor(node->pub.ClosedFileDescriptorList, h->FDP);
    }

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
  QMELMExtension *ext = fileHandleOf(lock)->ExtensionHndl;
  NodeState *node = nodeOf(lock);
  XVELMFileLock &f = node->pub;
  const auto *parms = static_cast<const XVELMFileLockParms *>(lockParms);
  FailureText t{0, nullptr, 0, MessageTail::Errno, 0};
  messageName(parms, node, &t.name, &t.nameLen);

  // Closing the first descriptor drops the process's record lock on the
  // file; only parked descriptors are closed (no holder uses them), and only
  // when no other node of the process needs a lock on the file: otherwise
  // the file table keeps them open until the file's last need goes.
  QMStatus result = 0;
  {
    TableLock table(node->link);
    const int anyFd = f.ClosedFileDescriptorList != nullptr ? f.ClosedFileDescriptorList->fd : -1;
    if (!releaseNeed(table, node->link, anyFd)) {
      deferRecords(table, node->link, f.ClosedFileDescriptorList);
      f.ClosedFileDescriptorList = nullptr;
    }
    for (XVELMFileDescriptorp d = f.ClosedFileDescriptorList; d != nullptr;) {
      XVELMFileDescriptorp next = d->next;
      const bool closed = sys().close(d->fd) == 0;
      const int err = errno;
      // The result is that of the last record closed, deliberately: an
      // earlier failure has been journaled and is not carried along.
      result = freeBlock(ext->Pool, d, jnl);
      if (!closed) {
        result = QMELM_E_CLOSE_FAILED;
        t.head = QMELM_E_CLOSE_FAILED;
        t.tail = MessageTail::Errno;
        t.err = err;
        (void)journalFileLockFailure(ext, jnl, t, Rendering::Checked);
      }
      d = next;
    }
    f.ClosedFileDescriptorList = nullptr;
    closedAll(table, node->link);
  }

  // Only while the name still names the node's file: a file that replaced
  // it under the name (and that another process may hold) is not deleted.
  if (f.DeleteOnClose && !unlinkIfNodeFile(node)) {
    result = QMELM_E_UNLINK_FAILED;
    // The end piece twice and no errno: the message as users know it.
    t.head = QMELM_E_UNLINK_FAILED;
    t.tail = MessageTail::DoubledEnd;
    (void)journalFileLockFailure(ext, jnl, t, Rendering::Checked);
  }
  return result;
}
