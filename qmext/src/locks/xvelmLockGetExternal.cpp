/*
 * xvelmLockGetExternal - gives a new handle a descriptor (a parked one with
 * the same flags, or a fresh open) and, for the node's first external
 * holder, the non-blocking record lock on the whole file. Expects NodeMutex
 * held. Allocates descriptor records (the node's lists own them). Returns 0,
 * an open status, a refusal (QMELM_E_EXT_*) or QMELM_E_NO_MEMORY. What
 * touches the file (open, the identity checks, the record lock, the refusal
 * analysis, truncation) is the record-lock step's; this file keeps the
 * acquisition's decisions and messages.
 */
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "locks/xvelmHolders.h"
#include "locks/xvelmRecordLock.h"

namespace {

using namespace xvelm::detail;

// One acquisition in progress: the handle, its node and the caller's request.
struct External {
  QMELMLHndlp lock;
  XVELMLHndl *h;
  NodeState *node;
  XVELMFileLockParms *parms;
  QMELMExtension *ext;
  QMJnlh jnl;
  QMMemSize R;

  XVELMFileLock &file() const { return node->pub; }
  QMELMResLock &res() const { return node->pub.CommonLock; }
  FailureText text(QMStatus head, MessageTail tail, int err) const {
    return FailureText{head, parms->Filename, static_cast<QMStrSize>(parms->FilenameLen), tail,
                       err};
  }
  // The message of a grant refused because the name no longer leads to the
  // node's file, or of a failed rewind: the file is named busy.
  void journalBusy() const {
    (void)journalFileLockFailure(ext, jnl,
                                 text(QMELM_E_LOCKGET_SETUP, MessageTail::Errno, kBusyErrno),
                                 Rendering::Unchecked);
  }

  // The common failure exit: park the handle's descriptor (a refusal leaves
  // it open for the next holder), close the node's file when no holder has a
  // descriptor left, and undo the internal count. The node's type is not
  // restored: it is only ever read together with the counters.
  [[nodiscard]] QMStatus fail(QMStatus st, XVELMFileDescriptorp parked) const {
    if (parked != nullptr) park(node, parked);
    if (file().OpenFileDescriptorList == nullptr) (void)xvelmCloseFile(lock, parms, jnl);
    uncountInternal(res(), R, NodeTypeAfter::Unchanged);
    return st;
  }

  [[nodiscard]] QMStatus nameLost() const;
  [[nodiscard]] QMStatus openFresh(XVELMFileDescriptorp *out, double *openTime,
                                   bool *truncate) const;
  [[nodiscard]] QMStatus openFailed(XVELMFileDescriptorp rec, int err) const;
  [[nodiscard]] QMStatus takeRecordLock(XVELMFileDescriptorp d) const;
  [[nodiscard]] QMStatus refused(XVELMFileDescriptorp d, struct flock &req, int err) const;
  [[nodiscard]] QMStatus truncateFailed(XVELMFileDescriptorp d, bool firstHolder, int err) const;
};

// The name leads to another file than the node's, or to none: refused as a
// record lock lost to a rename is (EAGAIN), with the holder of the node's
// file named when a descriptor of it can ask.
QMStatus External::nameLost() const {
  journalBusy();
  XVELMFileDescriptorp any = file().OpenFileDescriptorList;
  QMStatus st = QMELM_E_EXT_LOCK_FAILED;
  if (any != nullptr) {
    struct flock req {};
    st = analyseRefusal(any->fd, req, kBusyErrno, R, RefusalRules::Acquisition, parms).status;
  } else {
    parms->Errno = kBusyErrno;
  }
  return fail(st, nullptr);
}

QMStatus External::openFresh(XVELMFileDescriptorp *out, double *openTime, bool *truncate) const {
  const Opening o = openDescriptor(ext, node, parms->OpenFlags, parms->PermissionsMask);
  switch (o.outcome) {
    case Opening::Outcome::NoRecord:
      // The internal count is deliberately left as it is: a caller that runs
      // out of memory here leaves the node to its other holders' releases.
      journalStatus(jnl, QMELM_E_NO_MEMORY);
      (void)journalFileLockFailure(ext, jnl, text(QMELM_E_NO_MEMORY, MessageTail::End, 0),
                                   Rendering::Unchecked);
      return QMELM_E_NO_MEMORY;
    case Opening::Outcome::Failed:
      return openFailed(o.rec, o.err);
    case Opening::Outcome::Replaced:
      // The descriptor was another file's (or could not be described): the
      // step gave it up without dropping any lock of the process.
      return nameLost();
    case Opening::Outcome::Opened:
      break;
  }
  *out = o.rec;
  *openTime = o.openTime;
  *truncate = o.truncate;
  if (parms->OpenFlags & O_CREAT) {
    // Every create resets the size, also when the file existed and is not
    // truncated: the holder is told to treat it as new.
    file().ID.InodeNum = node->link.ino;
    file().ID.DeviceNum = node->link.dev;
    file().FileSize = 0;
  }
  return 0;
}

// An open failed with err: report it, give the record back and leave.
QMStatus External::openFailed(XVELMFileDescriptorp rec, int err) const {
  parms->Errno = err;
  const QMStatus st = openFailureStatus(err);
  PoolPtr<XVELMFileDescriptor> owned(ext->Pool, jnl, rec);
  if (!journalFileLockFailure(ext, jnl, text(st, MessageTail::Errno, err),
                              Rendering::CheckedFitName) &&
      st != QMELM_E_OPEN_FAILED) {
    // Deliberately different for a recognised cause whose message could not
    // be composed: a short message without the errno, and the status at
    // once; the record is neither freed nor parked (it goes with the pool)
    // and the internal count is not undone.
    (void)owned.release();
    (void)journalFileLockFailure(ext, jnl, text(st, MessageTail::End, 0), Rendering::Unchecked);
    return st;
  }
  (void)owned.reset();
  return fail(st, nullptr);
}

QMStatus External::takeRecordLock(XVELMFileDescriptorp d) const {
  // The process's lock on the file is the strongest its nodes need: the
  // table sends F_WRLCK or F_RDLCK only when that changes (never waiting).
  RecordLockResult r =
      setRecordLock(node, (R & QMELM_EXT_EXCLUSIVE) ? Need::Write : Need::Read, d->fd);
  switch (r.outcome) {
    case RecordLockResult::Outcome::Granted:
    case RecordLockResult::Outcome::NoLocksHere:
      grantRecordLock(node, R);
      return 0;
    case RecordLockResult::Outcome::NameLost:
      journalBusy();
      return refused(d, r.req, kBusyErrno);
    case RecordLockResult::Outcome::Refused:
      break;
  }
  return refused(d, r.req, r.err);
}

// The record lock was refused (or lost to a rename, err EAGAIN): find out who
// holds the file, report it, take back the external count and leave.
QMStatus External::refused(XVELMFileDescriptorp d, struct flock &req, int err) const {
  const Refusal why = analyseRefusal(d->fd, req, err, R, RefusalRules::Acquisition, parms);
  (void)uncountExternal(res(), R, ExternalRule::Acquisition);
  FailureText t = text(why.status, MessageTail::Errno, why.reported);
  t.remoteHolder = why.remoteHolder;
  t.holderPid = parms->LockerPID;
  t.serviceErr = err;
  (void)journalFileLockFailure(ext, jnl, t, Rendering::Unchecked);
  return fail(why.status, d);
}

// The truncation asked for with O_TRUNC failed once the lock was granted:
// the grant is undone (the record lock given back to what the node needed
// before) and the failure reported as the open's would have been.
QMStatus External::truncateFailed(XVELMFileDescriptorp d, bool firstHolder, int err) const {
  (void)uncountExternal(res(), R, ExternalRule::Acquisition);
  if (firstHolder) (void)setRecordLock(node, Need::None, d->fd);
  parms->Errno = err;
  const QMStatus st = openFailureStatus(err);
  (void)journalFileLockFailure(ext, jnl, text(st, MessageTail::Errno, err), Rendering::Checked);
  return fail(st, d);
}

}  // namespace

int xvelmLockGetExternal(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
  lockOrderRequire(Rank::Node);
  XVELMLHndl *h = fileHandleOf(lock);
  const External x{lock,
                   h,
                   nodeOf(lock),
                   static_cast<XVELMFileLockParms *>(lockParms),
                   h->ExtensionHndl,
                   jnl,
                   lock->Private.LockType};

  // Every grant passes one identity check, whatever descriptor it uses.
  if (!nameLeadsToNode(x.node, handleBlockOf(lock)->name)) return x.nameLost();

  // A parked descriptor opened with exactly the same flags is reused: no
  // open happened, so the open time stays 0.0. A failed rewind is reported
  // and the descriptor reused all the same.
  double openTime = 0.0;
  bool truncate = false;
  bool rewindFailed = false;
  XVELMFileDescriptorp d = takeParked(x.node, x.parms->OpenFlags, &rewindFailed);
  if (d != nullptr && rewindFailed) x.journalBusy();
  if (d == nullptr) {
    if (const QMStatus st = x.openFresh(&d, &openTime, &truncate); st != 0) return st;
  }

  h->FDP = d;
  auto *fh = static_cast<XVELMFileHandle *>(lock->Public.ResourceHandle);
  fh->FileDescriptor = d->fd;
  fh->FileSize = x.file().FileSize;

  const bool firstHolder = countExternal(x.res(), x.R) == AcquireStep::FirstHolder;
  if (firstHolder) {
    if (const QMStatus st = x.takeRecordLock(d); st != 0) return st;
  }
  // Only now, with the lock granted and the file's identity checked, may
  // O_TRUNC empty it: a refused request never truncates a file another
  // process holds.
  if (truncate) {
    if (const int err = truncateGranted(d->fd); err != 0)
      return x.truncateFailed(d, firstHolder, err);
  }

  if (x.ext->Common.hndl->iobytecount > QMIO_ByteCount_None) {
    QMELMCreateIOInfoParms cp{};
    cp.openTime = openTime;
    cp.ResourceType = lock->Private.ResourceType;
    cp.OpenFlags = x.parms->OpenFlags;
    (void)xvelmCreateIOInfo(lock, &cp, jnl);  // an acquisition never fails for want of a record
  }
  return 0;
}
