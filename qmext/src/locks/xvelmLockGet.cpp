/*
 * xvelmLockGet - a lock request to a handle: finds or makes the file's node
 * (through the name index, xvelmNodeList.cpp), has the locks granted,
 * destroys the dead nodes its look-up collected. The look-up holds ListMutex
 * shared when it only finds a live node, and exclusively when it must take
 * dead nodes off the list or list a new node (whose blocks and mutexes are
 * made before, so the exclusive hold stays short); then a node's
 * NodeDeleteMutex (shared) and NodeMutex. Allocates the handle (the caller's
 * until LockRelease) and new nodes (LockList's). Returns null with *qmrc:
 * bad resource or lock type, no memory, no pipeline (QMELM_E_LOCKGET_SETUP),
 * a host status, or the acquisition's refusal.
 */
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "frame/xvelm.h"
#include "frame/xvelmHandles.h"
#include "frame/xvelmState.h"
#include "host/xvelmHostObject.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "host/xvelmSys.h"
#include "locks/xvelmIdentity.h"
#include "locks/xvelmLock.h"
#include "locks/xvelmNodeList.h"
#include "options/xvelmOptions.h"

namespace {

using namespace xvelm::detail;

constexpr QMMemSize kSkipsOptionMatch =
    QMELM_NOEXTERNAL_LOCK | QMELM_OPT_NONE | QMELM_OPT_FAIL | QMELM_OPT_CONTINUE;
constexpr char kHandleName[] = "QM Resource Lock Handle";
constexpr QMMemSize kMaxNameChars = SIZE_MAX / (4 * sizeof(QMChar));
static_assert(sizeof(kHandleName) - 1 == sizeof(QMELMLPrivate{}.HandleName),
              "the handle's name fills its field exactly, without a terminator");

// The request's name in the target encoding, and what stat said about it.
struct NarrowName {
  QMMemSize len = 0;     // bytes without the padding
  QMMemSize padLen = 1;  // the width of the terminating NUL
  unsigned long inode = 0, device = 0;
  QMIOSize size = 0;
};

// Internal, then external acquisition on the node (NodeMutex held).
[[nodiscard]] QMStatus acquireOn(QMELMLHndlp lock, XVELMFileLockParms *parms, QMJnlh jnl) {
  QMStatus st = xvelmLockGetInternal(lock, parms, jnl);
  if (st == 0) st = xvelmLockGetExternal(lock, parms, jnl);
  if (st == 0) parms->AcquiredLockType = lock->Private.LockType;
  return st;
}

// A host constructor returned null. Its own status is not part of the host
// table every host offers, so the failure is reported as a lack of memory.
QMStatus hostStatus(QMHndlp) {
  return QMELM_E_NO_MEMORY;
}

// A new node's blocks and mutexes, made before the name's look-up holds
// ListMutex exclusively; what the list does not take is freed (the mutexes
// destroyed) with it. status is the first failure, 0 when all was made.
struct FreshNode {
  FreshNode(QMELMExtension *ext, QMMemSize nameLen, const char *narrowName, QMJnlh jnl) noexcept
      : node(ext->Pool, jnl), name(ext->Pool, jnl) {
    QMHndlp hndl = ext->Common.hndl;
    if (!node.allocate() || !name.allocate((nameLen + 1) * sizeof(QMChar))) {
      status = QMELM_E_NO_MEMORY;
      return;
    }
    // The mutex is named after the file for the host's diagnostics; the
    // host takes narrow names, so it gets the narrow one.
    const QMLockCreateParms lcp{};
    nodeMutex.adopt(hndl->lockCreate(hndl, &lcp, nullptr, narrowName));
    if (nodeMutex) deleteMutex.adopt(hndl->lockCreate(hndl, &lcp, nullptr, nullptr));
    if (!nodeMutex || !deleteMutex) status = hostStatus(hndl);
  }
  QMStatus status = 0;
  PoolPtr<NodeState> node;
  PoolPtr<QMChar> name;
  HostObject<QMLockh> nodeMutex;
  HostObject<QMLockh> deleteMutex;
};

class Acquisition {
 public:
  Acquisition(QMELMExtension *ext, XVELMFileLockParms *parms, QMJnlh jnl)
      : ext_(ext),
        parms_(parms),
        jnl_(jnl),
        hndl_(ext->Common.hndl),
        nls_(hndl_->qmnls),
        block_(ext->Pool, jnl),
        fileHandle_(ext->Pool, jnl),
        narrow_(ext->Pool, jnl) {}

  // Steps up to the grant; the dead nodes are the caller's to destroy.
  [[nodiscard]] QMStatus run(QMMemSize resType, QMMemSize lockType, DeadNodes &dead) noexcept;
  // The granted handle, now the caller's and live.
  QMELMLHndlp handOut() noexcept {
    (void)fileHandle_.release();
    HandleBlock *b = block_.release();
    registerHandle(b);
    return &b->pub.Common;
  }

 private:
  [[nodiscard]] QMStatus fail(QMStatus st) const { return journaled(jnl_, st); }
  [[nodiscard]] QMStatus allocateHandle(QMMemSize resType, QMMemSize lockType) noexcept;
  void matchOption(QMMemSize lockType, NLScei target) noexcept;
  [[nodiscard]] QMStatus makeNarrowName(QMNLSPipelineh pipe, HostObject<QMNLSPipelineh> &own,
                                        NLScei target) noexcept;
  void statName() noexcept;
  [[nodiscard]] std::optional<QMStatus> enter(NodeState *node, MutexGuard &list) noexcept;
  [[nodiscard]] QMStatus acquireOnExisting(NodeState *node) noexcept;
  [[nodiscard]] QMStatus acquireOnNew(MutexGuard &list) noexcept;
  void makeFreshNode() noexcept { fresh_.emplace(ext_, parms_->FilenameLen, narrow_.get(), jnl_); }
  QMELMLHndlp lock() { return &block_->pub.Common; }

  QMELMExtension *ext_;
  XVELMFileLockParms *parms_;
  QMJnlh jnl_;
  QMHndlp hndl_;
  QMNLSh nls_;
  // Freed in reverse order on failure: narrow name, file handle, handle.
  PoolPtr<HandleBlock> block_;
  PoolPtr<XVELMFileHandle> fileHandle_;
  PoolPtr<char> narrow_;
  NarrowName nn_;
  uint64_t hash_ = 0;  // of the narrow name, for the index
  std::optional<FreshNode> fresh_;
};

QMStatus Acquisition::allocateHandle(QMMemSize resType, QMMemSize lockType) noexcept {
  if (!block_.allocate()) return fail(QMELM_E_NO_MEMORY);
  XVELMLHndl &h = block_->pub;
  std::memcpy(&h.Common.generic.oven, "nevo", sizeof(h.Common.generic.oven));
  std::memcpy(h.Common.Private.HandleName, kHandleName, sizeof(h.Common.Private.HandleName));
  h.Common.generic.name = h.Common.Private.HandleName;
  h.Common.Private.LockType = lockType;
  h.Common.Private.ResourceType = resType;
  h.Common.Private.ExtHndl = ext_;
  h.Common.Private.Pool = ext_->Pool;
  h.ExtensionHndl = ext_;
  h.Flags = parms_->Flags;
  if (!fileHandle_.allocate()) return fail(QMELM_E_NO_MEMORY);
  h.Common.Public.ResourceHandle = fileHandle_.get();
  return 0;
}

// Requests that name neither an option nor "no external lock" take the
// option the table holds for the path. A match that fails (no memory, a path
// qmioe cannot resolve) leaves the handle without an option bit: the
// acquisition does not depend on the option table.
void Acquisition::matchOption(QMMemSize lockType, NLScei target) noexcept {
  if (lockType & kSkipsOptionMatch) return;
  QMELMLockOption option = QMELM_Unknown;
  const auto len = static_cast<QMStrSize>(parms_->FilenameLen);
  if (ext_->Functions.MatchOption == &qmelmmatchoption &&
      ext_->Functions.ReleaseMatch == &qmelmreleasematch) {
    // The extension's own matcher in its slots: the same answer, without
    // the copies MatchOption makes for its callers and ReleaseMatch frees.
    (void)matchedOption(ext_, parms_->Filename, len, target, jnl_, &option);
  } else {
    QMELMMatchOptionParms mp{};
    mp.path = parms_->Filename;
    mp.pathlen = len;
    mp.enc_pathname = target;
    if (ext_->Functions.MatchOption(ext_, &mp, jnl_) == 0) option = mp.option;
    (void)ext_->Functions.ReleaseMatch(ext_, &mp, jnl_);
  }
  switch (option) {
    case QMELM_None:
      lock()->Private.LockType |= QMELM_OPT_NONE;
      break;
    case QMELM_Continue:
      lock()->Private.LockType |= QMELM_OPT_CONTINUE;
      break;
    case QMELM_Fail:
      lock()->Private.LockType |= QMELM_OPT_FAIL;
      break;
    default:
      break;
  }
}

// The name in the target encoding, terminated by a NUL as wide as the
// encoding's characters need (1, or 2 and 4 for the wide methods). The
// request's own pipeline (not toOS) is destroyed here, whatever happens.
QMStatus Acquisition::makeNarrowName(QMNLSPipelineh pipe, HostObject<QMNLSPipelineh> &own,
                                     NLScei target) noexcept {
  const QMMemSize inBytes = parms_->FilenameLen * sizeof(QMChar);
  QMMemSize size = 0;
  QMNLS_ENCODING_ATTRIB attr{};
  QMStatus st = nls_->convertedSize(nls_, U_L_UCS4_CE, target, parms_->Filename, inBytes, &size);
  if (st == 0) st = nls_->encodingAttributes(nls_, target, &attr);
  if (st != 0) return fail(st);

  nn_.padLen = attr.method == QM_WCS_2byte ? 2 : attr.method == QM_WCS_4byte ? 4 : 1;
  const QMMemSize room = size + (attr.maxCharWidth > nn_.padLen ? attr.maxCharWidth : nn_.padLen);
  if (!narrow_.allocate(room, 0)) return fail(QMELM_E_NO_MEMORY);
  QMMemSize written = 0;
  st = pipe->Transcode(pipe, parms_->Filename, inBytes, narrow_.get(), room - nn_.padLen, &written);
  destroyObject(own.release());
  if (st != 0) return fail(st);
  std::memset(narrow_.get() + written, 0, nn_.padLen);
  nn_.len = written;
  // The system takes the name up to its first zero byte: a name whose
  // target encoding has one inside (any wide encoding does) would open,
  // create and delete another file. It is refused before anything is done.
  if (std::memchr(narrow_.get(), 0, written) != nullptr)
    return nameHasNul(ext_, parms_->Filename, parms_->FilenameLen, jnl_);
  return 0;
}

// Identity and size of the file as it is now, kept in the handle for the
// identity check every grant passes. A failed stat leaves them 0.
void Acquisition::statName() noexcept {
  struct stat st {};
  errno = 0;
  if (sys().stat(narrow_.get(), &st) == 0) {
    nn_.inode = st.st_ino;
    nn_.device = st.st_dev;
    nn_.size = st.st_size;
    block_->name = NameLookup{true, st.st_dev, st.st_ino};
  }
}

// Enters a live node found under list (held in either mode): its
// NodeDeleteMutex is taken (shared) before list is given back, so the node
// cannot be destroyed meanwhile, then its NodeMutex. Empty when the node's
// last holder left while we waited: the caller looks again.
std::optional<QMStatus> Acquisition::enter(NodeState *node, MutexGuard &list) noexcept {
  MutexGuard del(node->pub.CommonLock.NodeDeleteMutex, Rank::NodeDelete, LockMode::Shared);
  if (!del) return fail(del.status());
  list.unlock();
  MutexGuard nm(node->pub.CommonLock.NodeMutex, Rank::Node);
  if (!nm) return fail(nm.status());
  if (isDead(&node->pub.CommonLock)) return std::nullopt;
  return acquireOnExisting(node);
}

// NodeDeleteMutex and NodeMutex of the node are held.
QMStatus Acquisition::acquireOnExisting(NodeState *node) noexcept {
  node->pub.FileSize = nn_.size;
  (void)narrow_.reset();  // the node keeps its own
  (void)fresh_.reset();   // made in case the name had no node: not needed
  lock()->Private.ResLock = &node->pub.CommonLock;
  return acquireOn(lock(), parms_, jnl_);
}

// No node has the name: the fresh node goes to the head of LockList
// (ListMutex held exclusively on entry). It is made here when the look-up
// before saw the name's node live (it died since). The node's NodeMutex is
// taken before ListMutex is given back, so no second caller can enter the
// node (and so create the same absent file) before its first holder has the
// file open; requests for other files do not wait for that open.
QMStatus Acquisition::acquireOnNew(MutexGuard &list) noexcept {
  if (!fresh_) makeFreshNode();
  if (fresh_->status != 0) return fail(fresh_->status);
  if (parms_->FilenameLen != 0)
    std::memcpy(fresh_->name.get(), parms_->Filename, parms_->FilenameLen * sizeof(QMChar));

  NodeState *n = fresh_->node.release();
  XVELMFileLock &f = n->pub;
  f.CommonLock.ID = &f.ID;
  f.CommonLock.ResourceType = QMELM_RESOURCE_FILE;
  f.CommonLock.NodeMutex = fresh_->nodeMutex.release();
  f.CommonLock.NodeDeleteMutex = fresh_->deleteMutex.release();
  f.ID.Filename = fresh_->name.release();
  f.ID.NarrowFilename = narrow_.release();
  f.ID.FilenameLen = parms_->FilenameLen;
  f.ID.NFilenameLen = nn_.len;
  f.ID.NFilenameNullPadLen = nn_.padLen;
  f.ID.InodeNum = nn_.inode;
  f.ID.DeviceNum = nn_.device;
  f.FileSize = nn_.size;

  n->owner = ext_;
  n->generation = forkGeneration();
  n->hash = hash_;
  listNode(ext_, n, jnl_);

  MutexGuard nm(f.CommonLock.NodeMutex, Rank::Node);
  if (!nm) {
    // Nobody can have entered a node whose mutex we could not take.
    markDead(&f.CommonLock);
    queueDeadNode(n);
    return fail(nm.status());
  }
  list.unlock();
  lock()->Private.ResLock = &f.CommonLock;
  const QMStatus st = acquireOn(lock(), parms_, jnl_);
  // A node whose first acquisition failed stays on the list, dead, for the
  // next acquisition to remove: freeing it here could pull it from under an
  // acquirer that found it meanwhile.
  if (st != 0) {
    markDead(&f.CommonLock);
    queueDeadNode(n);
  }
  return st;
}

QMStatus Acquisition::run(QMMemSize resType, QMMemSize lockType, DeadNodes &dead) noexcept {
  if (const QMStatus st = allocateHandle(resType, lockType); st != 0) return st;

  // The target encoding, and the pipeline into it.
  NLScei target = parms_->enc_pathname;
  HostObject<QMNLSPipelineh> own(target != 0 ? nls_->pipelineFromQMChar(nls_, target, 0, jnl_)
                                             : nullptr);
  QMNLSPipelineh pipe = own.get();
  if (target == 0) {
    target = nls_->osEncoding(nls_);
    pipe = ext_->toOS;
  } else if (!own) {
    return fail(QMELM_E_LOCKGET_SETUP);
  }

  matchOption(lockType, target);
  if (const QMStatus st = makeNarrowName(pipe, own, target); st != 0) return st;
  statName();

  // The usual join: the name's node is live and no dead node waits to be
  // taken off the list, so a shared hold of ListMutex is all the look-up
  // needs, and joiners of different files do not wait for each other.
  // With dead nodes waiting, the look-up must hold it exclusively anyway:
  // the shared look-up is skipped (a last holder left just now, so this is
  // most likely a first holder too).
  hash_ = nameHash(narrow_.get(), nn_.len, parms_->FilenameLen);
  NodeState *seen = nullptr;
  if (!deadQueued(ext_)) {
    MutexGuard shared(ext_->ListMutex, Rank::List, LockMode::Shared);
    if (!shared) return fail(shared.status());
    seen = peekNode(ext_, narrow_.get(), nn_.len, parms_->FilenameLen, hash_);
    if (seen != nullptr) {
      if (const std::optional<QMStatus> st = enter(seen, shared)) return *st;
    }
  }
  // A name without a node is about to get one: it is made before the
  // exclusive hold. A failure to make it only counts if the name still has
  // no node then.
  if (seen == nullptr) makeFreshNode();
  for (;;) {
    MutexGuard list(ext_->ListMutex, Rank::List);
    if (!list) return fail(list.status());
    collectDead(ext_, dead);
    NodeState *node = findNode(ext_, narrow_.get(), nn_.len, parms_->FilenameLen, hash_);
    if (node == nullptr) return acquireOnNew(list);
    if (const std::optional<QMStatus> st = enter(node, list)) return *st;
    // Its last holder left while we waited: look again.
  }
}

}  // namespace

QMELMLHndlp xvelmLockGet(QMELMExtensionp extHndl, QMMemPtr lockParms, QMMemSize resType,
                         QMMemSize lockType, QMJnlh jnl, int *qmrc) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  jnl = chooseJournal(extHndl, jnl);
  // Without a place for the status the request cannot be answered: it is
  // refused (and journaled) before anything is done.
  if (qmrc == nullptr) {
    journalStatus(jnl, QMELM_E_NULL_PARMS);
    return nullptr;
  }
  *qmrc = 0;
  if (extHndl == nullptr) {
    *qmrc = journaled(jnl, QMELM_E_NULL_EXTENSION);
    return nullptr;
  }
  // The resource type is checked before the caller's out fields are touched:
  // for another resource type they need not even be a file's parameters.
  if (resType != QMELM_RESOURCE_FILE) {
    journalStatus(jnl, QMELM_E_BAD_RESOURCE_TYPE);
    *qmrc = QMELM_E_BAD_RESOURCE_TYPE;
    return nullptr;
  }
  auto *parms = static_cast<XVELMFileLockParms *>(lockParms);
  if (parms == nullptr) {
    *qmrc = journaled(jnl, QMELM_E_NULL_PARMS);
    return nullptr;
  }
  parms->Errno = 0;
  parms->LockerPID = 0;
  parms->SystemID = 0;
  parms->AcquiredLockType = 0;
  if (const int rc = xvelmValidateLockType(extHndl, lockType, jnl); rc != 0) {
    *qmrc = rc;
    return nullptr;
  }

  // A name whose byte sizes would overflow is one no pool could hold.
  if (parms->FilenameLen > kMaxNameChars) {
    *qmrc = journaled(jnl, QMELM_E_NO_MEMORY);
    return nullptr;
  }
  // The system cuts a name short at its first NUL: "dir/victim<NUL>/../x"
  // would open, create or delete dir/victim. Such a name is refused before
  // anything is done with it.
  if (const QMStatus st = refuseNul(extHndl, parms->Filename, parms->FilenameLen, jnl); st != 0) {
    *qmrc = st;
    return nullptr;
  }

  DeadNodes dead;
  QMELMLHndlp handle = nullptr;
  {
    Acquisition acq(extHndl, parms, jnl);
    *qmrc = acq.run(resType, lockType, dead);
    if (*qmrc == 0) handle = acq.handOut();
  }
  dead.destroyAll(extHndl, jnl);
  return handle;
}
