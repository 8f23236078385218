/*
 * xvelmLockChange - changes the lock type of a held handle: internal and
 * external recount on copies, a descriptor of another access mode when
 * asked, the record lock through the file table, and a commit only when
 * every step succeeded. Takes the node's NodeMutex (and, inside it, the file
 * table's mutex). Allocates a message buffer with a journal, a descriptor
 * record and the caller's file handle when needed (parked or kept on
 * failure, never leaked). Returns 0, QMELM_E_NULL_HANDLE, _NULL_PARMS,
 * _DEAD_NODE, _FORKED_HANDLE, _INVALID_LOCKTYPE, _CHANGE_NOT_ALLOWED, an
 * internal conflict, an open status, QMELM_E_NO_MEMORY or a refusal.
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
#include "locks/xvelmLockTypes.h"
#include "locks/xvelmRecordLock.h"

namespace {

using namespace xvelm::detail;

constexpr QMMemSize kForbidden = QMELM_NOINTERNAL_LOCK | QMELM_NOEXTERNAL_LOCK | QMELM_OPT_NONE |
                                 QMELM_OPT_FAIL | QMELM_OPT_CONTINUE;
constexpr QMMemSize kInternalBits = kInternalLockBits;
constexpr QMMemSize kExternalBits = QMELM_EXT_EXCLUSIVE | QMELM_EXT_NONEXCLUSIVE;
constexpr QMMemSize kOptionBits = QMELM_OPT_NONE | QMELM_OPT_FAIL | QMELM_OPT_CONTINUE;
// A held type's external part (with "no external lock") and internal part
// (with "shared" and "no internal lock"): what a change keeps of it when
// the new type does not name that part.
constexpr QMMemSize kHeldExternalPart = kExternalBits | QMELM_NOEXTERNAL_LOCK;
constexpr QMMemSize kHeldInternalPart =
    QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_NOINTERNAL_LOCK | QMELM_SHARED;
constexpr QMStrSize kDescriptionChars = 1024;

// A type no holder could have: bits no lock type defines, or two bits of
// one part that exclude each other.
bool invalidNewType(QMMemSize asked) {
  return (asked & ~kDefinedLockTypeBits) != 0 ||
         ((asked & QMELM_INT_EXCLUSIVE) && (asked & QMELM_INT_NONEXCLUSIVE)) ||
         ((asked & QMELM_EXT_EXCLUSIVE) && (asked & QMELM_EXT_NONEXCLUSIVE)) ||
         ((asked & QMELM_SHARED) &&
          !(asked & (QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_NOINTERNAL_LOCK)));
}

// A change that asks for option or no-lock bits, or for a part of
// the lock the handle does not take at all.
bool changeNotAllowed(QMMemSize held, QMMemSize asked) {
  return (asked & kForbidden) || ((asked & kInternalBits) && (held & QMELM_NOINTERNAL_LOCK)) ||
         ((asked & kExternalBits) && (held & QMELM_NOEXTERNAL_LOCK));
}

// The new type. Options stay; each part is the asked type's when it names
// one (the internal part only when it differs from the held one), else the
// held type's.
QMMemSize composeType(QMMemSize held, QMMemSize asked) {
  QMMemSize newType = held & kOptionBits;
  newType |= (asked & kExternalBits) ? (asked & kExternalBits) : (held & kHeldExternalPart);
  const QMMemSize askedInternal =
      asked & (QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_SHARED);
  const QMMemSize heldInternal = held & kHeldInternalPart;
  const bool askedNames = (asked & (QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE)) != 0;
  newType |= (askedNames && askedInternal != (heldInternal & kInternalBits)) ? askedInternal
                                                                             : heldInternal;
  return newType;
}

class Change {
 public:
  Change(QMELMLHndlp lock, XVELMFileLockParms *parms, QMJnlh jnl)
      : lock_(lock),
        h_(fileHandleOf(lock)),
        node_(nodeOf(lock)),
        ext_(h_->ExtensionHndl),
        parms_(parms),
        jnl_(jnl) {}

  [[nodiscard]] QMStatus run(QMMemSize asked) noexcept;

 private:
  XVELMFileLock &file() const { return node_->pub; }
  QMELMResLock &res() const { return node_->pub.CommonLock; }
  FailureText text(QMStatus head, MessageTail tail, int err) const {
    return FailureText{head, file().ID.Filename, static_cast<QMStrSize>(file().ID.FilenameLen),
                       tail, err};
  }
  [[nodiscard]] QMStatus reportTypes(QMStatus st, QMMemSize held, QMMemSize asked) const;
  [[nodiscard]] QMStatus reportConflict(QMStatus st) const;
  [[nodiscard]] QMStatus switchDescriptor() noexcept;
  [[nodiscard]] QMStatus openSwitched(XVELMFileDescriptorp *out) noexcept;
  [[nodiscard]] QMStatus recordLock(QMMemSize newType, QMMemSize exclusiveBefore,
                                    QMMemSize exclusive, QMMemSize nonexclusive) noexcept;
  void rollBack() noexcept;

  QMELMLHndlp lock_;
  XVELMLHndl *h_;
  NodeState *node_;
  QMELMExtension *ext_;
  XVELMFileLockParms *parms_;
  QMJnlh jnl_;
  // What the descriptor switch changed, for the commit or the roll-back.
  XVELMFileDescriptorp oldFdp_ = nullptr;
  XVELMFileDescriptorp newFdp_ = nullptr;
  XVELMFileHandle oldFileHandle_{};
  bool madeFileHandle_ = false;
  bool truncate_ = false;  // the new descriptor was asked for with O_TRUNC
};

// The failure's text, then two descriptions (old and new) or one (new).
QMStatus Change::reportTypes(QMStatus st, QMMemSize held, QMMemSize asked) const {
  Message msg(ext_, jnl_);
  if (!msg.active()) return st;
  QMChar oldText[kDescriptionChars], newText[kDescriptionChars * 4];
  if (xvelmBuildLockTypeMsg(ext_, asked, newText, kDescriptionChars * 4, jnl_) != 0) return st;
  msg.status(st);
  if (st == QMELM_E_INVALID_LOCKTYPE) {
    msg.status(QMELM_M_LOCKTYPE_IS, newText);
  } else {
    if (xvelmBuildLockTypeMsg(ext_, held, oldText, kDescriptionChars, jnl_) != 0) return st;
    msg.status(QMELM_M_LOCKTYPE_CHANGE, oldText, newText);
  }
  (void)msg.journal();
  return st;
}

// The internal conflict's message. Its buffer is 2048 bytes, deliberately
// (2048 characters are offered, as this message always has): the composer
// never writes past what it has, so a text that would not fit in 512
// characters is abandoned instead.
QMStatus Change::reportConflict(QMStatus st) const {
  Message msg(ext_, jnl_, Message::Mode::Checked, 2048 / sizeof(QMChar));
  const QMStrSize len = static_cast<QMStrSize>(file().ID.FilenameLen);
  msg.status(st).status(QMELM_M_INT_SHARE_CONFLICT).requireRoom(len);
  msg.text(file().ID.Filename, len).status(QMELM_M_RESOURCE_END);
  (void)msg.journal();
  return st;
}

// A new descriptor for the handle, opened with the caller's flags under the
// node's name: it must be the node's file.
QMStatus Change::openSwitched(XVELMFileDescriptorp *out) noexcept {
  const Opening o = openDescriptor(ext_, node_, parms_->OpenFlags, parms_->PermissionsMask);
  switch (o.outcome) {
    case Opening::Outcome::NoRecord:
      return journaled(jnl_, QMELM_E_NO_MEMORY);
    case Opening::Outcome::Failed: {
      (void)freeBlock(ext_->Pool, o.rec, jnl_);
      parms_->Errno = o.err;
      const QMStatus st = openFailureStatus(o.err, OpenCaller::Change);
      (void)journalFileLockFailure(ext_, jnl_, text(st, MessageTail::Errno, o.err),
                                   Rendering::CheckedFitName);
      return st;
    }
    case Opening::Outcome::Replaced: {
      // Another file under the node's name (or one that cannot be told):
      // refused as a lock lost to a rename is; the step gave the descriptor
      // up without dropping any lock of the process.
      (void)journalFileLockFailure(ext_, jnl_,
                                   text(QMELM_E_LOCKGET_SETUP, MessageTail::Errno, kBusyErrno),
                                   Rendering::Unchecked);
      struct flock req {};
      const int fd = h_->FDP != nullptr ? h_->FDP->fd : -1;
      const QMStatus status =
          analyseRefusal(fd, req, kBusyErrno, lock_->Private.LockType, RefusalRules::Change, parms_)
              .status;
      return status != 0 ? status : QMELM_E_EXT_LOCK_FAILED;
    }
    case Opening::Outcome::Opened:
      break;
  }
  truncate_ = o.truncate;
  *out = o.rec;
  return 0;
}

// Keeps the descriptor when the access mode is the same, else takes
// a parked one with exactly the caller's flags, or opens one.
QMStatus Change::switchDescriptor() noexcept {
  XVELMFileDescriptorp cur = h_->FDP;
  if (cur != nullptr && (parms_->OpenFlags & O_ACCMODE) == (cur->openflags & O_ACCMODE)) return 0;
  bool rewindFailed = false;  // not reported here: the descriptor is used all the same
  XVELMFileDescriptorp d = takeParked(node_, parms_->OpenFlags, &rewindFailed);
  if (d == nullptr) {
    if (const QMStatus st = openSwitched(&d); st != 0) return st;
  }
  auto *fh = static_cast<XVELMFileHandle *>(lock_->Public.ResourceHandle);
  if (fh == nullptr) {
    fh = static_cast<XVELMFileHandle *>(
        ext_->Pool->memAlloc(ext_->Pool, sizeof(XVELMFileHandle), QM_POOL_ZERO_FILL));
    if (fh == nullptr) {
      park(node_, d);
      return journaled(jnl_, QMELM_E_NO_MEMORY);
    }
    lock_->Public.ResourceHandle = fh;
    madeFileHandle_ = true;
  } else {
    oldFileHandle_ = *fh;
  }
  oldFdp_ = cur;
  newFdp_ = d;
  h_->FDP = d;
  fh->FileDescriptor = d->fd;
  fh->FileSize = file().FileSize;
  return 0;
}

// Puts the handle back as it was before the descriptor switch: the new
// descriptor is parked, FDP and the caller's file handle restored.
void Change::rollBack() noexcept {
  if (newFdp_ == nullptr) return;
  park(node_, newFdp_);
  h_->FDP = oldFdp_;
  if (madeFileHandle_) {
    (void)freeBlock(ext_->Pool, lock_->Public.ResourceHandle, jnl_);
    lock_->Public.ResourceHandle = nullptr;
  } else {
    *static_cast<XVELMFileHandle *>(lock_->Public.ResourceHandle) = oldFileHandle_;
  }
  newFdp_ = nullptr;
}

// The record lock follows the new external counts, through the file
// table (which sends nothing when another node of the file needs the lock
// as it is). Returns 0 to commit, or the refusal.
QMStatus Change::recordLock(QMMemSize newType, QMMemSize exclusiveBefore, QMMemSize exclusive,
                            QMMemSize nonexclusive) noexcept {
  if ((exclusiveBefore != 0) == (exclusive != 0)) return 0;
  const int fd = h_->FDP != nullptr ? h_->FDP->fd : -1;
  RecordLockResult r = setRecordLock(node_, needOf(exclusive, nonexclusive), fd);
  int err = r.err;
  switch (r.outcome) {
    case RecordLockResult::Outcome::Granted:
    case RecordLockResult::Outcome::NoLocksHere:
      file().FcntlLockSet = 1;
      return 0;
    case RecordLockResult::Outcome::NameLost:
      // The raise was undone: the name leads to another file than ours.
      (void)journalFileLockFailure(ext_, jnl_,
                                   text(QMELM_E_LOCKGET_SETUP, MessageTail::Errno, kBusyErrno),
                                   Rendering::Unchecked);
      err = kBusyErrno;
      break;
    case RecordLockResult::Outcome::Refused:
      break;
  }
  const Refusal why = analyseRefusal(fd, r.req, err, newType, RefusalRules::Change, parms_);
  QMStatus st = why.status;
  if (st == 0) {
    if (newType & QMELM_OPT_CONTINUE) {
      // Asked to go on whatever the record lock does: committed as if the
      // lock had been obtained, without a failure message.
      file().FcntlLockSet = 1;
      return 0;
    }
    st = QMELM_E_EXT_LOCK_FAILED;
  }
  FailureText t = text(st, MessageTail::Errno, parms_->Errno);
  t.remoteHolder = why.remoteHolder;
  t.holderPid = parms_->LockerPID;
  t.serviceErr = err;
  (void)journalFileLockFailure(ext_, jnl_, t, Rendering::Unchecked);
  return st;
}

QMStatus Change::run(QMMemSize asked) noexcept {
  const QMMemSize held = lock_->Private.LockType;
  if (invalidNewType(asked)) return reportTypes(QMELM_E_INVALID_LOCKTYPE, held, asked);
  if (changeNotAllowed(held, asked)) return reportTypes(QMELM_E_CHANGE_NOT_ALLOWED, held, asked);
  const QMMemSize newType = composeType(held, asked);

  MutexGuard nm(res().NodeMutex, Rank::Node);
  if (!nm) return journaled(jnl_, nm.status());
  if (isDead(&res())) return journaled(jnl_, QMELM_E_DEAD_NODE);

  InternalCounts internal = InternalCounts::of(res());
  if (const QMStatus st = recountInternal(held, newType, internal); st != 0)
    return reportConflict(st);

  const QMMemSize exclusiveBefore = res().ext_exclusive;
  QMMemSize exclusive = exclusiveBefore, nonexclusive = res().ext_nonexclusive;
  if (!(held & kNoExternalAtAcquisition) && (newType & kExternalBits)) {
    if ((held & QMELM_EXT_EXCLUSIVE) && (newType & QMELM_EXT_NONEXCLUSIVE))
      --exclusive, ++nonexclusive;
    else if (!(held & QMELM_EXT_EXCLUSIVE) && (newType & QMELM_EXT_EXCLUSIVE))
      ++exclusive, --nonexclusive;
  }

  if (const QMStatus st = switchDescriptor(); st != 0) return st;
  if (const QMStatus st = recordLock(newType, exclusiveBefore, exclusive, nonexclusive); st != 0) {
    rollBack();
    return st;
  }
  // A new descriptor asked for with O_TRUNC empties the file only now, with
  // the lock granted; a failure undoes the change, record lock included.
  if (const int err = truncate_ ? truncateGranted(newFdp_->fd) : 0; err != 0) {
    if ((exclusiveBefore != 0) != (exclusive != 0))
      (void)setRecordLock(node_, needOf(exclusiveBefore, res().ext_nonexclusive), h_->FDP->fd);
    rollBack();
    parms_->Errno = err;
    const QMStatus st = openFailureStatus(err, OpenCaller::Change);
    (void)journalFileLockFailure(ext_, jnl_, text(st, MessageTail::Errno, err), Rendering::Checked);
    return st;
  }

  // Commit.
  res().ext_exclusive = exclusive;
  res().ext_nonexclusive = nonexclusive;
  if (newFdp_ != nullptr && oldFdp_ != nullptr) {
    unlinkDescriptor(file().OpenFileDescriptorList, oldFdp_);
    pushDescriptor(file().ClosedFileDescriptorList, oldFdp_);
  }
  internal.storeIn(res());
  lock_->Private.LockType = newType;
  parms_->AcquiredLockType = newType;
  return 0;
}

}  // namespace

int xvelmLockChange(QMELMLHndlp lock, QMMemPtr lockParms, QMMemSize newLockType,
                    QMJnlh jnl) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  // A handle is only read once it is known to be live: a released one (or a
  // pointer never handed out) is answered without touching its memory.
  // The caller's out field is cleared first, whatever the answer.
  auto *parms = static_cast<XVELMFileLockParms *>(lockParms);
  if (parms != nullptr) parms->AcquiredLockType = 0;
  if (lock == nullptr) return journaled(chooseJournal(nullptr, jnl), QMELM_E_NULL_HANDLE);
  if (!handleIsLive(lock)) return journaled(chooseJournal(nullptr, jnl), QMELM_E_DEAD_NODE);
  QMELMExtension *ext = fileHandleOf(lock)->ExtensionHndl;
  jnl = chooseJournal(ext, jnl);
  if (nodeOf(lock)->generation != forkGeneration()) return journaled(jnl, QMELM_E_FORKED_HANDLE);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  Change change(lock, parms, jnl);
  return change.run(newLockType);
}
