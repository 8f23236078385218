/*
 * xvelmLockGet - a lock request to a handle: finds or makes the file's node,
 * has the locks granted, destroys the dead nodes its walk collected. Takes
 * ListMutex, then a node's NodeDeleteMutex (shared) and NodeMutex. Allocates
 * the handle (the caller's until LockRelease) and new nodes (LockList's).
 * Returns null with *qmrc: bad resource or lock type, no memory, no pipeline
 * (QMELM_E_LOCKGET_SETUP), a host status, or the acquisition's refusal.
 */
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "xvelm.h"
#include "xvelmLock.h"

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
  bool present = false;  // the file exists (or stat failed for another reason than ENOENT)
};

// Dead nodes a walk unlinked, chained through their own next links (nothing
// else reads them once they are off LockList), destroyed in chain order when
// the acquisition is over.
class DeadNodes {
 public:
  void add(QMELMResLockp n) {
    n->next = nullptr;
    if (tail_ != nullptr)
      tail_->next = n;
    else
      head_ = n;
    tail_ = n;
  }
  void destroyAll(QMELMExtension *ext, QMJnlh jnl) noexcept;

 private:
  QMELMResLockp head_ = nullptr;
  QMELMResLockp tail_ = nullptr;
};

// A dead node has no holder left (its last release made it dead), but an
// acquirer may still be between finding it and seeing it dead: taking
// NodeDeleteMutex exclusively waits for every such acquirer.
void destroyNode(QMELMExtension *ext, NodeState *node, QMJnlh jnl) noexcept {
  const QMLockh delMutex = node->pub.CommonLock.NodeDeleteMutex;
  const QMLockh nodeMutex = node->pub.CommonLock.NodeMutex;
  MutexGuard del(delMutex);
  MutexGuard nm(nodeMutex);
  detachIORecords(ext, node, jnl);
  (void)freeBlock(ext->Pool, node->pub.ID.Filename, jnl);
  (void)freeBlock(ext->Pool, node->pub.ID.NarrowFilename, jnl);
  (void)freeBlock(ext->Pool, node, jnl);
  nm.unlock();
  destroyObject(nodeMutex);
  del.unlock();
  destroyObject(delMutex);
}

void DeadNodes::destroyAll(QMELMExtension *ext, QMJnlh jnl) noexcept {
  while (head_ != nullptr) {
    QMELMResLockp next = head_->next;
    destroyNode(ext, nodeOf(head_), jnl);
    head_ = next;
  }
  tail_ = nullptr;
}

// Names match by their QMChar length and their narrow bytes alone: inode and
// device deliberately take no part, so two names of one file make two nodes.
// The node's bytes are read no further than its terminating padding.
bool sameName(const XVELMFileLockID &id, const char *narrow, const NarrowName &nn,
              QMMemSize qmLen) {
  if (id.FilenameLen != qmLen) return false;
  if (nn.len > id.NFilenameLen + id.NFilenameNullPadLen) return false;
  return std::memcmp(id.NarrowFilename, narrow, nn.len) == 0;
}

// Walks LockList (ListMutex held): unlinks dead nodes into `dead` and returns
// the live file node of the name, or null.
NodeState *findNode(QMELMExtension *ext, const char *narrow, const NarrowName &nn, QMMemSize qmLen,
                    DeadNodes &dead) {
  QMELMResLockp n = ext->LockList;
  while (n != nullptr) {
    QMELMResLockp next = n->next;
    if (isDead(n)) {
      if (n->prev != nullptr)
        n->prev->next = n->next;
      else
        ext->LockList = n->next;
      if (n->next != nullptr) n->next->prev = n->prev;
      dead.add(n);
    } else if (n->ResourceType == QMELM_RESOURCE_FILE &&
               sameName(nodeOf(n)->pub.ID, narrow, nn, qmLen)) {
      return nodeOf(n);
    }
    n = next;
  }
  return nullptr;
}

// Internal, then external acquisition on the node (NodeMutex held).
[[nodiscard]] QMStatus acquireOn(QMELMLHndlp lock, XVELMFileLockParms *parms, QMJnlh jnl) {
  QMStatus st = xvelmLockGetInternal(lock, parms, jnl);
  if (st == 0) st = xvelmLockGetExternal(lock, parms, jnl);
  if (st == 0) parms->AcquiredLockType = lock->Private.LockType;
  return st;
}

// The status of the host's last failed constructor on this thread.
QMStatus hostStatus(QMHndlp hndl) {
  const QMStatus st = hndl->lastStatus != nullptr ? hndl->lastStatus(hndl) : 0;
  return st != 0 ? st : QMELM_E_NO_MEMORY;
}

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
  [[nodiscard]] QMStatus acquireOnExisting(NodeState *node) noexcept;
  [[nodiscard]] QMStatus acquireOnNew(std::optional<MutexGuard> &list) noexcept;
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
  QMELMMatchOptionParms mp{};
  mp.path = parms_->Filename;
  mp.pathlen = static_cast<QMStrSize>(parms_->FilenameLen);
  mp.enc_pathname = target;
  if (ext_->Functions.MatchOption(ext_, &mp, jnl_) == 0) {
    switch (mp.option) {
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
  (void)ext_->Functions.ReleaseMatch(ext_, &mp, jnl_);
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
  return 0;
}

// Identity and size of the file as it is now. A file counts as present
// unless stat says it does not exist.
void Acquisition::statName() noexcept {
  struct stat st {};
  errno = 0;
  if (sys().stat(narrow_.get(), &st) == 0) {
    nn_.inode = st.st_ino;
    nn_.device = st.st_dev;
    nn_.size = st.st_size;
    nn_.present = true;
  } else {
    nn_.present = errno != ENOENT;
  }
}

// NodeDeleteMutex and NodeMutex of the node are held.
QMStatus Acquisition::acquireOnExisting(NodeState *node) noexcept {
  node->pub.FileSize = nn_.size;
  (void)narrow_.reset();  // the node keeps its own
  lock()->Private.ResLock = &node->pub.CommonLock;
  return acquireOn(lock(), parms_, jnl_);
}

// No node has the name: make one and put it at the head of LockList
// (ListMutex held on entry). For a file that does not exist yet ListMutex is
// kept until the acquisition is over, deliberately: no second caller may
// find the node (and so create the same file) before its first holder has
// the file open.
QMStatus Acquisition::acquireOnNew(std::optional<MutexGuard> &list) noexcept {
  QMPoolh pool = ext_->Pool;
  PoolPtr<NodeState> node(pool, jnl_);
  if (!node.allocate()) return fail(QMELM_E_NO_MEMORY);
  PoolPtr<QMChar> name(pool, jnl_);
  if (!name.allocate((parms_->FilenameLen + 1) * sizeof(QMChar))) return fail(QMELM_E_NO_MEMORY);
  if (parms_->FilenameLen != 0)
    std::memcpy(name.get(), parms_->Filename, parms_->FilenameLen * sizeof(QMChar));

  // The mutex is named after the file for the host's diagnostics; the host
  // takes narrow names, so it gets the narrow one.
  const QMLockCreateParms lcp{};
  HostObject<QMLockh> nodeMutex(hndl_->lockCreate(hndl_, &lcp, nullptr, narrow_.get()));
  if (!nodeMutex) return fail(hostStatus(hndl_));
  HostObject<QMLockh> deleteMutex(hndl_->lockCreate(hndl_, &lcp, nullptr, nullptr));
  if (!deleteMutex) return fail(hostStatus(hndl_));

  NodeState *n = node.release();
  XVELMFileLock &f = n->pub;
  f.CommonLock.ID = &f.ID;
  f.CommonLock.ResourceType = QMELM_RESOURCE_FILE;
  f.CommonLock.NodeMutex = nodeMutex.release();
  f.CommonLock.NodeDeleteMutex = deleteMutex.release();
  f.ID.Filename = name.release();
  f.ID.NarrowFilename = narrow_.release();
  f.ID.FilenameLen = parms_->FilenameLen;
  f.ID.NFilenameLen = nn_.len;
  f.ID.NFilenameNullPadLen = nn_.padLen;
  f.ID.InodeNum = nn_.inode;
  f.ID.DeviceNum = nn_.device;
  f.FileSize = nn_.size;

  f.CommonLock.next = ext_->LockList;
  if (ext_->LockList != nullptr) ext_->LockList->prev = &f.CommonLock;
  ext_->LockList = &f.CommonLock;

  MutexGuard nm(f.CommonLock.NodeMutex);
  if (nn_.present) list.reset();
  lock()->Private.ResLock = &f.CommonLock;
  const QMStatus st = acquireOn(lock(), parms_, jnl_);
  // A node whose first acquisition failed stays on the list, dead, for the
  // next walk to remove: freeing it here could pull it from under an
  // acquirer that found it meanwhile.
  if (st != 0) markDead(&f.CommonLock);
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

  std::optional<MutexGuard> list(std::in_place, ext_->ListMutex);
  for (;;) {
    NodeState *node = findNode(ext_, narrow_.get(), nn_, parms_->FilenameLen, dead);
    if (node == nullptr) return acquireOnNew(list);
    MutexGuard del(node->pub.CommonLock.NodeDeleteMutex, LockMode::Shared);
    list.reset();
    MutexGuard nm(node->pub.CommonLock.NodeMutex);
    if (!isDead(&node->pub.CommonLock)) return acquireOnExisting(node);
    // Its last holder left while we waited: start again.
    nm.unlock();
    del.unlock();
    list.emplace(ext_->ListMutex);
  }
}

}  // namespace

QMELMLHndlp xvelmLockGet(QMELMExtensionp extHndl, QMMemPtr lockParms, QMMemSize resType,
                         QMMemSize lockType, QMJnlh jnl, int *qmrc) noexcept {
  jnl = chooseJournal(extHndl, jnl);
  *qmrc = 0;
  // The resource type is checked before the caller's out fields are touched:
  // for another resource type they need not even be a file's parameters.
  if (resType != QMELM_RESOURCE_FILE) {
    journalStatus(jnl, QMELM_E_BAD_RESOURCE_TYPE);
    *qmrc = QMELM_E_BAD_RESOURCE_TYPE;
    return nullptr;
  }
  auto *parms = static_cast<XVELMFileLockParms *>(lockParms);
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
