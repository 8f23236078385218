/*
 * xvelmRecordLock - the record-lock and descriptor step of file locking (see
 * xvelmRecordLock.h). Expects the node's NodeMutex held; takes the file
 * table's stripe for table changes only. Allocates descriptor records (the
 * node's lists own them) and frees them when they are closed.
 */
#include "locks/xvelmRecordLock.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "frame/xvelm.h"
#include "frame/xvelmHandles.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "host/xvelmSys.h"
#include "locks/xvelmRemoteHolder.h"

namespace xvelm::detail {

QMStatus openFailureStatus(int err, OpenCaller caller) noexcept {
  switch (err) {
    case ENOENT:
      return QMELM_E_FILE_NOT_FOUND;
    case ENOMEM:
      return QMELM_E_OS_NO_MEMORY;
    case EACCES:
    case EROFS:
      return QMELM_E_ACCESS_DENIED;
    case EEXIST:
      return caller == OpenCaller::Acquisition ? QMELM_E_FILE_EXISTS : QMELM_E_OPEN_FAILED;
    case ENOTDIR:
    case ESTALE:
      return QMELM_E_PATH_NOT_FOUND;
    case ENFILE:
    case EMFILE:
      return QMELM_E_TOO_MANY_FILES;
    case ETXTBSY:
      return QMELM_E_EXT_LOCK_FAILED;
    default:
      return QMELM_E_OPEN_FAILED;
  }
}

namespace {

// The descriptor is opened with close-on-exec set by open itself: set
// afterwards, another thread's fork and exec in between would hand the file
// (and a way to drop our record lock) to another program. It is opened
// without blocking too: no request may wait for another party, and open(2)
// of a FIFO waits for its other end (a FIFO opened for writing without a
// reader fails at once with ENXIO instead).
int openRetrying(const char *path, uint32_t flags, uint32_t mode) noexcept {
  const int how = static_cast<int>(flags) | O_CLOEXEC | O_NONBLOCK;
  int stale = 0;
  for (;;) {
    const int fd = sys().open(path, how, static_cast<mode_t>(mode));
    if (fd >= 0) return fd;
    if (errno == EINTR) continue;                  // interrupted: as often as it takes
    if (errno == ESTALE && ++stale < 2) continue;  // a stale handle once: the server may recover
    return -1;
  }
}

// fstat of a descriptor just opened, tried again when a signal interrupts
// it. False: the file cannot be described.
bool describe(int fd, struct stat *st) noexcept {
  for (int tries = 0; tries < 3; ++tries) {
    if (sys().fstat(fd, st) == 0) return true;
    if (errno != EINTR) return false;
  }
  return false;
}

// After a successful open: descriptors 0 to 2 lose close-on-exec again, and
// a file other than a regular one gets back the blocking mode its opener
// asked for.
void settleOpened(int fd, uint32_t flags, const struct stat *st) noexcept {
  // Descriptors 0 to 2 are deliberately left without close-on-exec: a host
  // that runs with a standard stream closed gets its file there, and must
  // still see it in a child it execs.
  if (fd <= 2) (void)sys().fcntl(fd, F_SETFD, nullptr);
  // O_NONBLOCK changes nothing for a regular file; any other file gets the
  // blocking behaviour its opener asked for back.
  if (st != nullptr && !S_ISREG(st->st_mode) && !(flags & O_NONBLOCK))
    (void)sys().fcntl(
        fd, F_SETFL,
        reinterpret_cast<void *>(static_cast<intptr_t>(flags & ~uint32_t{O_NONBLOCK})));
}

// A descriptor of the node's file among the records (unusable ones, whose
// file is not known, left out); -1 when there is none.
int firstOpenFd(XVELMFileDescriptorp d) {
  for (; d != nullptr; d = d->next)
    if (d->fd >= 0 && d->openflags != kUnusableFlags) return d->fd;
  return -1;
}

// A descriptor of the node's file open for writing, on which a write lock
// can be set; -1 when there is none.
int firstWritableFd(XVELMFileDescriptorp d) {
  for (; d != nullptr; d = d->next)
    if (d->fd >= 0 && d->openflags != kUnusableFlags && (d->openflags & O_ACCMODE) != O_RDONLY)
      return d->fd;
  return -1;
}

}  // namespace

XVELMFileDescriptorp takeParked(NodeState *node, uint32_t flags, bool *rewindFailed) noexcept {
  XVELMFileLock &f = node->pub;
  XVELMFileDescriptorp d = f.ClosedFileDescriptorList;
  while (d != nullptr && (d->openflags != flags || d->openflags == kUnusableFlags)) d = d->next;
  if (d == nullptr) return nullptr;
  const off_t pos = sys().lseek(d->fd, 0, SEEK_SET);
  *rewindFailed = static_cast<uint32_t>(pos) == 0xffffffffu;
  unlinkDescriptor(f.ClosedFileDescriptorList, d);
  pushDescriptor(f.OpenFileDescriptorList, d);
  return d;
}

void park(NodeState *node, XVELMFileDescriptorp d) noexcept {
  unlinkDescriptor(node->pub.OpenFileDescriptorList, d);
  pushDescriptor(node->pub.ClosedFileDescriptorList, d);
}

Opening openDescriptor(QMELMExtension *ext, NodeState *node, uint32_t flags,
                       uint32_t mode) noexcept {
  lockOrderRequire(Rank::Node);
  Opening o{Opening::Outcome::Failed};
  auto *rec = static_cast<XVELMFileDescriptorp>(
      ext->Pool->memAlloc(ext->Pool, sizeof(XVELMFileDescriptor), QM_POOL_ZERO_FILL));
  if (rec == nullptr) {
    o.outcome = Opening::Outcome::NoRecord;
    return o;
  }
  rec->fd = -1;
  rec->openflags = flags;
  rec->permissionsmask = mode;
  o.rec = rec;

  const int fd = openRetrying(node->pub.ID.NarrowFilename, flags & ~uint32_t{O_TRUNC}, mode);
  if (fd < 0) {
    o.err = errno;  // the record is the caller's to free or keep
    return o;
  }
  o.openTime = qmzdttmeOf(ext->Common.hndl);

  struct stat st {};
  if (!describe(fd, &st)) {
    // Which file this is cannot be told, so it may be one the process holds
    // a lock on: closing it could drop that lock. It stays open, parked and
    // never handed out, and is closed with the node's other descriptors.
    settleOpened(fd, flags, nullptr);
    rec->fd = fd;
    rec->openflags = kUnusableFlags;
    pushDescriptor(node->pub.ClosedFileDescriptorList, rec);
    o.rec = nullptr;
    o.outcome = Opening::Outcome::Replaced;
    o.err = kBusyErrno;
    return o;
  }
  settleOpened(fd, flags, &st);

  // The descriptor must be the node's file: a file renamed over the name, or
  // made anew under it after an unlink, is not the file the node's holders
  // (and the process's record lock) are on.
  {
    FileTurn t(st);
    if (recordFile(t, node->link, st) == Identity::Other) {
      closeStray(t, fd, st);
      (void)ext->Pool->memFree(ext->Pool, rec);
      o.rec = nullptr;
      o.outcome = Opening::Outcome::Replaced;
      o.err = kBusyErrno;
      return o;
    }
  }
  rec->fd = fd;
  pushDescriptor(node->pub.OpenFileDescriptorList, rec);
  o.outcome = Opening::Outcome::Opened;
  o.truncate = (flags & O_TRUNC) != 0;
  return o;
}

int truncateGranted(int fd) noexcept {
  for (;;) {
    if (sys().ftruncate(fd, 0) == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

bool nameLeadsToNode(const NodeState *node, const NameLookup &earlier) noexcept {
  const FileLink &l = node->link;
  if (!l.known) return true;
  if (earlier.found && l.dev == earlier.dev && l.ino == earlier.ino) return true;
  struct stat now {};
  return sys().stat(node->pub.ID.NarrowFilename, &now) == 0 && isNodeFile(l, now);
}

RecordLockResult setRecordLock(NodeState *node, Need want, int fd) noexcept {
  lockOrderRequire(Rank::Node);
  RecordLockResult r{RecordLockResult::Outcome::Granted};
  FileLink &l = node->link;
  // One turn for the call and its check: no other node of the file changes
  // the process's lock in between.
  FileTurn t(l);
  const Need before = l.need;
  if (setNeed(t, l, want, fd, r.req) != 0) {
    r.err = errno;
    r.outcome = noRecordLocksHere(r.err) ? RecordLockResult::Outcome::NoLocksHere
                                         : RecordLockResult::Outcome::Refused;
    return r;
  }
  if (want <= before) return r;
  // A raise: the lock is on the node's file; make sure the name still leads
  // to it, or a file renamed over ours between open and lock goes unlocked.
  struct stat byName {};
  if (sys().stat(node->pub.ID.NarrowFilename, &byName) == 0 && isNodeFile(l, byName)) return r;
  // The raise is undone: a refused grant leaves the lock as it was.
  struct flock back {};
  (void)setNeed(t, l, before, fd, back);
  r.outcome = RecordLockResult::Outcome::NameLost;
  r.err = kBusyErrno;
  return r;
}

Refusal analyseRefusal(int fd, struct flock &req, int err, QMMemSize type, RefusalRules rules,
                       XVELMFileLockParms *parms) noexcept {
  Refusal out{rules == RefusalRules::Acquisition ? QMStatus{QMELM_E_EXT_LOCK_FAILED} : 0, 0};
  req.l_type = F_WRLCK;
  req.l_whence = SEEK_SET;
  req.l_start = 0;
  req.l_len = 0;
  errno = 0;
  const bool asked = sys().fcntl(fd, F_GETLK, &req) != -1;
  const int getlkErr = errno;
  parms->LockerPID = req.l_pid;  // a failed question leaves the request as it stood
  parms->SystemID = 0;           // struct flock has no system id here
  out.remoteHolder = asked && req.l_type != F_UNLCK && holderIsRemote(fd, req.l_pid);
  if (rules == RefusalRules::Acquisition) {
    // The errno reported is the refused request's; a failed question reports
    // its own errno and no holder.
    parms->Errno = asked ? err : getlkErr;
    out.reported = asked ? err : 0;
    if (asked && req.l_type == F_RDLCK && (type & QMELM_EXT_EXCLUSIVE))
      out.status = QMELM_E_EXT_LOCKED_SHARED;
    else if (asked && req.l_type == F_WRLCK &&
             (type & (QMELM_EXT_EXCLUSIVE | QMELM_EXT_NONEXCLUSIVE)))
      out.status = QMELM_E_EXT_LOCKED_EXCLUSIVE;
    return out;
  }
  parms->Errno = asked ? err : getlkErr;
  out.reported = parms->Errno;
  if (asked && req.l_type == F_WRLCK &&
      (type & (QMELM_EXT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_EXT_NONEXCLUSIVE)))
    out.status = QMELM_E_EXT_LOCKED_EXCLUSIVE;
  else if (asked && req.l_type == F_RDLCK && (type & QMELM_EXT_EXCLUSIVE))
    out.status = QMELM_E_EXT_LOCKED_SHARED;
  return out;
}

bool deleteWhileHeld(NodeState *node) noexcept {
  XVELMFileLock &f = node->pub;
  const int fd = firstOpenFd(f.ClosedFileDescriptorList);
  if (fd < 0) return false;  // nothing to hold the file with
  const int writable = firstWritableFd(f.ClosedFileDescriptorList);
  if (writable >= 0) {
    // The write lock keeps every other process out from here to the close.
    const RecordLockResult r = setRecordLock(node, Need::Write, writable);
    if (r.outcome == RecordLockResult::Outcome::Refused ||
        r.outcome == RecordLockResult::Outcome::NameLost)
      return false;
  } else {
    // Only read-only descriptors, on which no write lock can be set: ask
    // whether another process holds the file. (One that takes a read lock
    // between this question and the unlink is not seen.)
    struct flock q {};
    q.l_type = F_WRLCK;
    q.l_whence = SEEK_SET;
    if (sys().fcntl(fd, F_GETLK, &q) == 0 && q.l_type != F_UNLCK) return false;
  }
  struct stat st {};
  if (sys().stat(f.ID.NarrowFilename, &st) != 0 || !isNodeFile(node->link, st)) return false;
  return sys().unlink(f.ID.NarrowFilename) == 0;
}

QMStatus closeParked(QMELMExtension *ext, NodeState *node, QMJnlh jnl, FailureText t) noexcept {
  XVELMFileLock &f = node->pub;
  QMStatus result = 0;
  FileTurn table(node->link);
  if (!releaseNeed(table, node->link, firstOpenFd(f.ClosedFileDescriptorList))) {
    // Another node of the process still needs a lock on the file: closing
    // would drop it. The table closes these when the file's last need goes.
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
  return result;
}

}  // namespace xvelm::detail
