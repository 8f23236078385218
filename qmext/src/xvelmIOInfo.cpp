/*
 * xvelmIOInfo - I/O records: made per external acquisition (Create: NodeMutex
 * held, takes IOInfoMutex), stamped closed (Close) and added to (Update) under
 * the record's mutex only, emptied by Reset (IOInfoMutex, then each record's).
 * Records and name copies come from the pool; a reset or their node's
 * destruction frees them. Create returns 0 or QMELM_E_NO_MEMORY, the rest 0.
 */
/*
 * Why an update never touches a freed record. A node's Info names its newest
 * record and is followed without any list mutex, by update and close. So the
 * records a node can reach must live at least as long as the node:
 *  - every record is made for one node and stays on that node's chain
 *    (NodeState::records) as long as the node lives;
 *  - a reset forgets a closed record of a live node instead of freeing it: it
 *    leaves the extension's list (queries no longer see it), its counters are
 *    zeroed, and it is marked retired. The node's next acquisition reuses it
 *    (re-initialised under its mutex and put back at the head of the list);
 *  - only a record whose node is gone (owner null) is freed by a reset, and
 *    the node's destruction frees its retired records itself;
 *  - every change of a chain, an owner or the retired mark is made under
 *    IOInfoMutex; counters and closeTime under the record's own mutex.
 * A live handle keeps its node alive (a node dies only with its last holder,
 * and is destroyed only after that), so update needs nothing but the record's
 * mutex. An update racing with a reuse lands in the node's newest record,
 * which is exactly where updates through any handle of the node go.
 */
#include "xvelm.h"
#include "xvelmLock.h"

namespace {

using namespace xvelm::detail;

void zeroCounters(QMELMIOInfo &r) {
  r.numBytesWritten = 0;
  r.numBytesRead = 0;
  r.numReads = 0;
  r.numWrites = 0;
  r.numSeeks = 0;
}

// Puts a record at the head of the extension's list (IOInfoMutex held).
void pushRecord(QMELMExtension *ext, IORecord *rec) {
  rec->pub.prev = nullptr;
  rec->pub.next = ext->IOInfo;
  if (ext->IOInfo != nullptr) ext->IOInfo->prev = &rec->pub;
  ext->IOInfo = &rec->pub;
  ++ext->numIOInfo;
}

// Takes a record off the extension's list (IOInfoMutex held).
void unlinkRecord(QMELMExtension *ext, IORecord *rec) {
  QMELMIOInfo &r = rec->pub;
  if (r.prev != nullptr)
    r.prev->next = r.next;
  else
    ext->IOInfo = r.next;
  if (r.next != nullptr) r.next->prev = r.prev;
  r.next = r.prev = nullptr;
  --ext->numIOInfo;
}

void openRecord(QMELMIOInfo &r, const QMELMCreateIOInfoParms *parms) {
  zeroCounters(r);
  r.closeTime = -1.0;
  r.openTime = parms->openTime;
  r.OpenFlags = parms->OpenFlags;
  r.ResourceType = parms->ResourceType;
}

// Frees a record nobody can reach any more (IOInfoMutex held).
void freeRecord(QMELMExtension *ext, IORecord *rec, QMJnlh jnl) {
  const QMLockh m = rec->pub.mutex;
  (void)freeBlock(ext->Pool, rec->pub.Name, jnl);
  (void)freeBlock(ext->Pool, rec, jnl);
  destroyObject(m);
}

// A retired record of the node, to be used again; null when there is none.
IORecord *retiredRecordOf(NodeState *node) {
  for (IORecord *r = node->records; r != nullptr; r = r->nodeNext)
    if (r->retired) return r;
  return nullptr;
}

}  // namespace

namespace xvelm::detail {

void detachIORecords(QMELMExtension *ext, NodeState *node, QMJnlh jnl) noexcept {
  MutexGuard io(ext->IOInfoMutex);
  for (IORecord *r = node->records; r != nullptr;) {
    IORecord *next = r->nodeNext;
    if (r->retired) {
      freeRecord(ext, r, jnl);
    } else {
      // Still on the list, where queries see it until a reset forgets it.
      r->owner = nullptr;
      r->nodeNext = nullptr;
    }
    r = next;
  }
  node->records = nullptr;
  storeInfo(&node->pub.CommonLock, nullptr);
}

}  // namespace xvelm::detail

int xvelmCreateIOInfo(QMELMLHndlp lock, QMELMCreateIOInfoParms *parms, QMJnlh jnl) noexcept {
  QMELMExtension *ext = lock->Private.ExtHndl;
  NodeState *node = nodeOf(lock);
  QMPoolh pool = ext->Pool;
  MutexGuard io(ext->IOInfoMutex);

  if (IORecord *rec = retiredRecordOf(node); rec != nullptr) {
    // Same node, same name: only the record's state is new.
    {
      MutexGuard rm(rec->pub.mutex);
      openRecord(rec->pub, parms);
    }
    rec->retired = false;
    pushRecord(ext, rec);
    storeInfo(&node->pub.CommonLock, &rec->pub);
    return 0;
  }

  // Every acquisition gets a record of its own, deliberately: there is no
  // search for one of the same name.
  PoolPtr<IORecord> rec(pool, jnl);
  PoolPtr<QMChar> name(pool, jnl);
  const QMMemSize len = node->pub.ID.FilenameLen;
  const QMLockCreateParms lcp{};
  QMLockh m = nullptr;
  if (!rec.allocate() || !name.allocate((len + 1) * sizeof(QMChar), 0) ||
      (m = ext->Common.hndl->lockCreate(ext->Common.hndl, &lcp, nullptr, nullptr)) == nullptr) {
    (void)name.reset();
    (void)rec.reset();
    io.unlock();
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    return QMELM_E_NO_MEMORY;
  }
  for (QMMemSize i = 0; i < len; ++i) name.get()[i] = node->pub.ID.Filename[i];
  name.get()[len] = 0;

  IORecord *r = rec.release();
  r->pub.mutex = m;
  r->pub.Name = name.release();
  r->pub.NameLen = static_cast<QMStrSize>(len);
  openRecord(r->pub, parms);
  r->owner = node;
  r->nodeNext = node->records;
  node->records = r;
  pushRecord(ext, r);
  storeInfo(&node->pub.CommonLock, &r->pub);
  return 0;
}

// Stamps the node's newest record, whichever handle made it: with two
// handles on one file, the first release closes the second's record and the
// older one stays open. That is how the records have always read.
int xvelmCloseIOInfo(QMELMLHndlp lock, QMELMCloseIOInfoParms *parms, QMJnlh) noexcept {
  QMELMResLockp node = lock->Private.ResLock;
  if (node == nullptr) return 0;
  QMELMIOInfop r = loadInfo(node);
  if (r == nullptr) return 0;
  MutexGuard rm(r->mutex);
  r->closeTime = parms->closeTime;
  return 0;
}

int xvelmUpdateIOInfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh) noexcept {
  QMELMIOInfop r = loadInfo(lock->Private.ResLock);
  if (r == nullptr) return 0;
  MutexGuard rm(r->mutex);
  r->numBytesRead += parms->bytesRead;
  r->numBytesWritten += parms->bytesWritten;
  r->numReads += parms->reads;
  r->numWrites += parms->writes;
  r->numSeeks += parms->seeks;
  return 0;
}

// Zeroes the records of open files and forgets closed ones: freed when their
// node is gone, retired (kept for the node's handles) while it lives.
int xvelmResetIOInfo(QMELMExtensionp ext, QMELMResetIOInfoParms *, QMJnlh) noexcept {
  MutexGuard io(ext->IOInfoMutex);
  for (QMELMIOInfop r = ext->IOInfo; r != nullptr;) {
    IORecord *rec = recordOf(r);
    MutexGuard rm(r->mutex);
    QMELMIOInfop next = r->next;
    if (r->closeTime >= 0.0) {
      unlinkRecord(ext, rec);
      if (rec->owner != nullptr) {
        zeroCounters(*r);
        rec->retired = true;
      } else {
        rm.unlock();
        freeRecord(ext, rec, nullptr);  // a reset reports nothing
      }
    } else {
      zeroCounters(*r);
    }
    r = next;
  }
  return 0;
}
