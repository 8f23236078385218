/*
 * xvelmLockGetExternal - gives a new handle a descriptor (a parked one with
 * the same flags, or a fresh open) and, for the process's first external
 * holder, the non-blocking record lock on the whole file. Expects NodeMutex
 * held. Allocates descriptor records (the node's lists own them). Returns 0,
 * an open status, a refusal (QMELM_E_EXT_*) or QMELM_E_NO_MEMORY.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "xvelm.h"
#include "xvelmHolders.h"
#include "xvelmLock.h"

// Record locks belong to the process, not to a descriptor: the one F_SETLK
// of the first external holder covers every thread and every descriptor of
// the process on the file, and closing ANY descriptor of the file drops all
// of them. That is why later holders only count, and why a descriptor a
// handle no longer needs is parked on the node, never closed, until the
// node's last holder goes (xvelmCloseFile).

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

void settleOpened(int fd, uint32_t flags, const struct stat &st) noexcept {
  // Descriptors 0 to 2 are deliberately left without close-on-exec: a host
  // that runs with a standard stream closed gets its file there, and must
  // still see it in a child it execs.
  if (fd <= 2) (void)sys().fcntl(fd, F_SETFD, nullptr);
  // O_NONBLOCK changes nothing for a regular file; any other file gets the
  // blocking behaviour its opener asked for back.
  if (!S_ISREG(st.st_mode) && !(flags & O_NONBLOCK))
    (void)sys().fcntl(
        fd, F_SETFL,
        reinterpret_cast<void *>(static_cast<intptr_t>(flags & ~uint32_t{O_NONBLOCK})));
}

Opened recordOpened(NodeState *node, int fd, uint32_t flags) noexcept {
  Opened o{};
  o.described = sys().fstat(fd, &o.st) == 0;
  settleOpened(fd, flags, o.st);
  o.id = Identity::Other;
  if (o.described) {
    TableLock t(o.st);
    o.id = recordFile(t, node->link, o.st);
  }
  return o;
}

void giveUpStray(const Opened &o, int fd) noexcept {
  if (!o.described) {
    (void)sys().close(fd);  // a file nobody can name: no lock of ours can be on it
    return;
  }
  TableLock t(o.st);
  closeStray(t, fd, o.st);
}

bool journalFileLockFailure(const QMELMExtension *ext, QMJnlh jnl, const FailureText &t,
                            Rendering r) noexcept {
  if (jnl == nullptr) return true;
  Message msg(ext, jnl,
              r == Rendering::Unchecked ? Message::Mode::Unchecked : Message::Mode::Checked);
  msg.status(t.head).status(QMELM_M_INT_LOCK_CONFLICT);
  if (r == Rendering::CheckedFitName) msg.requireRoom(t.nameLen);
  msg.text(t.name, t.nameLen).status(QMELM_M_RESOURCE_END);
  switch (t.tail) {
    case MessageTail::Errno:
      msg.status(QMELM_M_ERRNO, t.err);
      break;
    case MessageTail::End:
      break;
    case MessageTail::DoubledEnd:
      msg.status(QMELM_M_RESOURCE_END);
      break;
  }
  (void)msg.journal();
  // A buffer the pool refused is no composition failure: there was nothing
  // to compose in.
  return !(msg.active() && msg.abandoned());
}

}  // namespace xvelm::detail

namespace {

using namespace xvelm::detail;

// The errno a rewind or identity failure reports, whatever the system said:
// the file is to be treated as busy (EAGAIN).
constexpr int kBusyErrno = 11;

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

  // The common failure exit: park the handle's descriptor (a refusal leaves
  // it open for the next holder), close the node's file when no holder has a
  // descriptor left, and undo the internal count. The node's type is not
  // restored: it is only ever read together with the counters.
  [[nodiscard]] QMStatus fail(QMStatus st, XVELMFileDescriptorp parked) const {
    if (parked != nullptr) {
      unlinkDescriptor(file().OpenFileDescriptorList, parked);
      pushDescriptor(file().ClosedFileDescriptorList, parked);
    }
    if (file().OpenFileDescriptorList == nullptr) (void)xvelmCloseFile(lock, parms, jnl);
    uncountInternal(res(), R, NodeTypeAfter::Unchanged);
    return st;
  }

  [[nodiscard]] XVELMFileDescriptorp takeParked(double *openTime) const;
  [[nodiscard]] QMStatus openFresh(XVELMFileDescriptorp *out, double *openTime) const;
  [[nodiscard]] QMStatus openFailed(XVELMFileDescriptorp rec, int err) const;
  [[nodiscard]] QMStatus countExternal(XVELMFileDescriptorp d) const;
  [[nodiscard]] QMStatus takeRecordLock(XVELMFileDescriptorp d) const;
  [[nodiscard]] QMStatus refused(XVELMFileDescriptorp d, struct flock &req, int err) const;
  [[nodiscard]] QMStatus analyseRefusal(int fd, struct flock &req, int err) const;
  [[nodiscard]] QMStatus replacedUnderName(int fd, const Opened &opened) const;

  mutable int reported_ = 0;  // the errno a refusal's message carries
};

// A parked descriptor opened with exactly the same flags (the creation mode
// does not matter: the file exists by now), rewound and moved to the open
// list; null when there is none. No open happened, so the open time stays 0.
XVELMFileDescriptorp External::takeParked(double *openTime) const {
  XVELMFileDescriptorp d = file().ClosedFileDescriptorList;
  while (d != nullptr && d->openflags != parms->OpenFlags) d = d->next;
  if (d == nullptr) return nullptr;
  const off_t pos = sys().lseek(d->fd, 0, SEEK_SET);
  if (static_cast<uint32_t>(pos) == 0xffffffffu) {
    // The descriptor is reused all the same; the message names the file as
    // busy whatever lseek reported.
    (void)journalFileLockFailure(ext, jnl,
                                 text(QMELM_E_LOCKGET_SETUP, MessageTail::Errno, kBusyErrno),
                                 Rendering::Unchecked);
  }
  unlinkDescriptor(file().ClosedFileDescriptorList, d);
  pushDescriptor(file().OpenFileDescriptorList, d);
  *openTime = 0.0;
  return d;
}

QMStatus External::openFresh(XVELMFileDescriptorp *out, double *openTime) const {
  auto *rec = static_cast<XVELMFileDescriptorp>(
      ext->Pool->memAlloc(ext->Pool, sizeof(XVELMFileDescriptor), QM_POOL_ZERO_FILL));
  if (rec == nullptr) {
    // The internal count is deliberately left as it is: a caller that runs
    // out of memory here leaves the node to its other holders' releases.
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    (void)journalFileLockFailure(ext, jnl, text(QMELM_E_NO_MEMORY, MessageTail::End, 0),
                                 Rendering::Unchecked);
    return QMELM_E_NO_MEMORY;
  }
  rec->fd = -1;
  rec->openflags = parms->OpenFlags;
  rec->permissionsmask = parms->PermissionsMask;

  const int fd = openRetrying(file().ID.NarrowFilename, parms->OpenFlags, parms->PermissionsMask);
  if (fd < 0) return openFailed(rec, errno);

  *openTime = qmzdttmeOf(ext->Common.hndl);
  // The descriptor must be the node's file: a file renamed over the name, or
  // made anew under it after an unlink, is not the file the node's holders
  // (and the process's record lock) are on. A descriptor fstat cannot
  // describe is treated the same way.
  const Opened opened = recordOpened(node, fd, parms->OpenFlags);
  const struct stat &st = opened.st;
  if (opened.id == Identity::Other) {
    (void)freeBlock(ext->Pool, rec, jnl);
    return replacedUnderName(fd, opened);
  }
  rec->fd = fd;
  pushDescriptor(file().OpenFileDescriptorList, rec);
  if (parms->OpenFlags & O_CREAT) {
    // Every create resets the size, also when the file existed and is not
    // truncated: the holder is told to treat it as new.
    file().ID.InodeNum = st.st_ino;
    file().ID.DeviceNum = st.st_dev;
    file().FileSize = 0;
  }
  *out = rec;
  return 0;
}

// A new descriptor is not of the node's file: refused as a record lock lost
// to a rename is, and the descriptor is closed unless the process holds a
// lock on the file it did open (closing it would drop that lock).
QMStatus External::replacedUnderName(int fd, const Opened &opened) const {
  (void)journalFileLockFailure(
      ext, jnl, text(QMELM_E_LOCKGET_SETUP, MessageTail::Errno, kBusyErrno), Rendering::Unchecked);
  struct flock req {};
  const QMStatus status = analyseRefusal(fd, req, EAGAIN);
  giveUpStray(opened, fd);
  return fail(status, nullptr);
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

// Counts the external holder; the node's first one takes the record lock.
QMStatus External::countExternal(XVELMFileDescriptorp d) const {
  if (xvelm::detail::countExternal(res(), R) == AcquireStep::FirstHolder) return takeRecordLock(d);
  return 0;
}

QMStatus External::takeRecordLock(XVELMFileDescriptorp d) const {
  struct flock req {};  // whole file: SEEK_SET, start 0, length 0
  int rc = 0, err = 0;
  {
    // The process's lock on the file is the strongest its nodes need: the
    // table sends F_WRLCK or F_RDLCK only when that changes (never waiting).
    TableLock t(node->link);
    rc = setNeed(t, node->link, (R & QMELM_EXT_EXCLUSIVE) ? Need::Write : Need::Read, d->fd, req);
    err = errno;
  }
  if (rc == 0) {
    // The lock is on the node's file; make sure the name still leads to it,
    // or a file renamed over ours between open and lock goes unlocked.
    struct stat byName {};
    if (sys().stat(file().ID.NarrowFilename, &byName) == 0 && isNodeFile(node->link, byName)) {
      grantRecordLock(node, R);
      return 0;
    }
    // The lock taken on the replaced file is left to the close of the node's
    // descriptors.
    (void)journalFileLockFailure(ext, jnl,
                                 text(QMELM_E_LOCKGET_SETUP, MessageTail::Errno, kBusyErrno),
                                 Rendering::Unchecked);
    return refused(d, req, EAGAIN);
  }
  if (err == EOPNOTSUPP || err == EROFS || err == EINVAL) {
    // A file system without record locks: the lock is granted deliberately,
    // since nothing else could ever be.
    grantRecordLock(node, R);
    return 0;
  }
  return refused(d, req, err);
}

// Asks who holds the file that a refused request (errno err, or EAGAIN for a
// file lost to a rename) wanted, fills the caller's Errno and LockerPID, and
// returns the refusal's status.
QMStatus External::analyseRefusal(int fd, struct flock &req, int err) const {
  req.l_type = F_WRLCK;
  QMStatus st = QMELM_E_EXT_LOCK_FAILED;
  reported_ = 0;
  if (sys().fcntl(fd, F_GETLK, &req) != -1) {
    reported_ = err;
    parms->Errno = err;
    if (req.l_type == F_RDLCK && (R & QMELM_EXT_EXCLUSIVE))
      st = QMELM_E_EXT_LOCKED_SHARED;
    else if (req.l_type == F_WRLCK && (R & (QMELM_EXT_EXCLUSIVE | QMELM_EXT_NONEXCLUSIVE)))
      st = QMELM_E_EXT_LOCKED_EXCLUSIVE;
  } else {
    parms->Errno = errno;
  }
  parms->LockerPID = req.l_pid;
  parms->SystemID = 0;  // struct flock has no system id here
  return st;
}

// The record lock was refused (or lost to a rename, err EAGAIN): find out who
// holds the file, report it, take back the external count and leave.
QMStatus External::refused(XVELMFileDescriptorp d, struct flock &req, int err) const {
  const QMStatus st = analyseRefusal(d->fd, req, err);
  (void)uncountExternal(res(), R, ExternalRule::Acquisition);

  (void)journalFileLockFailure(ext, jnl, text(st, MessageTail::Errno, reported_),
                               Rendering::Unchecked);
  return fail(st, d);
}

}  // namespace

int xvelmLockGetExternal(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
  XVELMLHndl *h = fileHandleOf(lock);
  const External x{lock,
                   h,
                   nodeOf(lock),
                   static_cast<XVELMFileLockParms *>(lockParms),
                   h->ExtensionHndl,
                   jnl,
                   lock->Private.LockType};

  double openTime = 0.0;
  XVELMFileDescriptorp d = x.takeParked(&openTime);
  if (d == nullptr) {
    if (const QMStatus st = x.openFresh(&d, &openTime); st != 0) return st;
  }

  h->FDP = d;
  auto *fh = static_cast<XVELMFileHandle *>(lock->Public.ResourceHandle);
  fh->FileDescriptor = d->fd;
  fh->FileSize = x.file().FileSize;

  if (const QMStatus st = x.countExternal(d); st != 0) return st;

  if (x.ext->Common.hndl->iobytecount > QMIO_ByteCount_None) {
    QMELMCreateIOInfoParms cp{};
    cp.openTime = openTime;
    cp.ResourceType = lock->Private.ResourceType;
    cp.OpenFlags = x.parms->OpenFlags;
    (void)xvelmCreateIOInfo(lock, &cp, jnl);  // an acquisition never fails for want of a record
  }
  return 0;
}
