/*
 * xvelmIORecords - the I/O records of lock acquisitions. Records are made per external
 * acquisition (Create: NodeMutex held, takes IOInfoMutex), stamped closed
 * (Close: NodeMutex held; the record's mutex, and IOInfoMutex first when the
 * node's last holder goes) and added to (Update) under the record's mutex
 * only, emptied by Reset (IOInfoMutex, then each record's). Records and name
 * copies come from the pool; a reset or their node's destruction frees them.
 * Create returns 0 or QMELM_E_NO_MEMORY; each entry lists its own statuses.
 * The queries are xvelmIOQuery.cpp, the report xvelmIOReport.cpp.
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
 * How readers without a mutex stay clear of freed records: xvelmIOReaders.h.
 */
#include <fcntl.h>

#include <cstdint>
#include <utility>

#include "frame/xvelm.h"
#include "frame/xvelmHandles.h"
#include "host/xvelmHostObject.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "iostats/xvelmIOReaders.h"
#include "locks/xvelmLock.h"

namespace {

using namespace xvelm::detail;

void zeroCounters(QMELMIOInfo &r) {
  poke(r.numBytesWritten, 0);
  poke(r.numBytesRead, 0);
  poke(r.numReads, 0);
  poke(r.numWrites, 0);
  poke(r.numSeeks, 0);
}

// Puts a record at the head of the extension's list (IOInfoMutex held).
void pushRecord(QMELMExtension *ext, IORecord *rec) {
  rec->pub.prev = nullptr;
  setLink(rec->pub.next, ext->IOInfo);
  if (ext->IOInfo != nullptr) ext->IOInfo->prev = &rec->pub;
  setLink(ext->IOInfo, &rec->pub);
  poke(ext->numIOInfo, ext->numIOInfo + 1);
}

// Takes a record off the extension's list (IOInfoMutex held). A reader
// standing on it ends its walk there.
void unlinkRecord(QMELMExtension *ext, IORecord *rec) {
  QMELMIOInfo &r = rec->pub;
  if (r.prev != nullptr)
    setLink(r.prev->next, r.next);
  else
    setLink(ext->IOInfo, r.next);
  if (r.next != nullptr) r.next->prev = r.prev;
  setLink(r.next, nullptr);
  r.prev = nullptr;
  poke(ext->numIOInfo, ext->numIOInfo - 1);
}

void openRecord(QMELMIOInfo &r, const QMELMCreateIOInfoParms *parms) {
  zeroCounters(r);
  poke(r.closeTime, -1.0);
  poke(r.openTime, parms->openTime);
  poke(r.OpenFlags, parms->OpenFlags);
  r.ResourceType = parms->ResourceType;
}

// Gives a record that nothing reaches any more back to the pool, with its
// name copy and its mutex.
void freeRecord(QMELMExtension *ext, IORecord *rec, QMJnlh jnl) {
  const QMLockh m = rec->pub.mutex;
  (void)freeBlock(ext->Pool, rec->pub.Name, jnl);
  (void)freeBlock(ext->Pool, rec, jnl);
  destroyObject(m);
}

// Records a reset took off the list, chained through a link that no reader
// follows (nodeNext for records of destroyed nodes, pub.prev for those of
// live nodes; both are free once a record is off the list and, for
// nodeNext, off its node's chain).
class Collected {
 public:
  void addOrphan(IORecord *rec) { rec->nodeNext = std::exchange(orphans_, rec); }
  void addRetiring(IORecord *rec) {
    rec->pub.prev = retiring_ != nullptr ? &retiring_->pub : nullptr;
    retiring_ = rec;
  }
  bool empty() const { return orphans_ == nullptr && retiring_ == nullptr; }
  IORecord *takeOrphans() { return std::exchange(orphans_, nullptr); }
  IORecord *takeRetiring() { return std::exchange(retiring_, nullptr); }
  static IORecord *nextRetiring(IORecord *rec) {
    QMELMIOInfop p = std::exchange(rec->pub.prev, nullptr);
    return p != nullptr ? recordOf(p) : nullptr;
  }

 private:
  IORecord *orphans_ = nullptr;
  IORecord *retiring_ = nullptr;
};

// A retired record of the node, to be used again; null when there is none.
IORecord *retiredRecordOf(NodeState *node) {
  for (IORecord *r = node->records; r != nullptr; r = r->nodeNext)
    if (r->retired) return r;
  return nullptr;
}

// The extensions whose record mutexes ioPrepareFork could not take (the
// host refused a get): the forking thread holds none of them. Only the
// forking thread touches the table, from the prepare handler to the
// parent's or the child's, with the process's registry of lock managers
// held throughout. A get is refused only to a thread that holds the mutex
// itself, which the forking thread never does for a record (the lock
// manager calls nothing that could fork while it holds one), so the table
// only guards against a failing host.
constexpr std::size_t kForkRefusals = 16;
const QMELMExtension *forkRefused[kForkRefusals];
std::size_t forkRefusedCount = 0;

// Whether the forking thread holds ext's record mutexes (forgetting a
// refusal of ext).
bool forkTookRecords(const QMELMExtension *ext) {
  for (std::size_t i = 0; i < forkRefusedCount; ++i) {
    if (forkRefused[i] != ext) continue;
    forkRefused[i] = forkRefused[--forkRefusedCount];
    return false;
  }
  return true;
}

// Gives back the record mutexes of ext's list before `end`, except pinned.
void releaseRecords(QMELMExtension *ext, QMELMIOInfop end, QMELMIOInfop pinned) {
  for (QMELMIOInfop r = ext->IOInfo; r != end; r = r->next)
    if (r != pinned) (void)r->mutex->release(r->mutex);
}

}  // namespace

namespace xvelm::detail {

void detachIORecords(QMELMExtension *ext, NodeState *node, QMJnlh jnl) noexcept {
  IORecord *retired = nullptr;
  {
    MutexGuard io(ext->IOInfoMutex, Rank::IOInfo);
    // Without the mutex the records stay as they are, in the pool until it
    // goes: a reset only compares an owner with null, never follows it.
    if (!io) return;
    for (IORecord *r = node->records; r != nullptr;) {
      IORecord *next = r->nodeNext;
      if (r->retired) {
        r->nodeNext = std::exchange(retired, r);
      } else {
        // Still on the list (or about to be retired by a reset under way),
        // where queries see it until a reset forgets and frees it.
        r->owner = nullptr;
        r->nodeNext = nullptr;
      }
      r = next;
    }
    node->records = nullptr;
    storeInfo(&node->pub.CommonLock, nullptr);
  }
  // Retired: out of every reader's reach already (see above), and out of
  // every handle's now that the node goes. No wait.
  while (retired != nullptr) freeRecord(ext, std::exchange(retired, retired->nodeNext), jnl);
}

// Records have no order among themselves (a reused one moves to the head
// of the list), so the forking thread never waits for one while it holds
// another: it tries each in turn without waiting. A record that another
// thread holds (an update or a close, both short and waiting for nothing
// while they hold it) makes it give back those it has, wait for that one
// alone, and sweep again, keeping it.
void ioPrepareFork(QMELMExtension *ext) noexcept {
  QMELMIOInfop pinned = nullptr;  // taken with a wait, while holding no other
  for (;;) {
    QMELMIOInfop busy = ext->IOInfo;
    for (; busy != nullptr; busy = busy->next)
      if (busy != pinned && busy->mutex->get(busy->mutex, 1, 0) != 0) break;
    if (busy == nullptr) return;
    releaseRecords(ext, busy, pinned);
    if (pinned != nullptr) (void)pinned->mutex->release(pinned->mutex);
    pinned = nullptr;
    if (busy->mutex->get(busy->mutex, 1, 1) != 0) {
      if (forkRefusedCount < kForkRefusals) forkRefused[forkRefusedCount++] = ext;
      return;
    }
    pinned = busy;
  }
}

void ioParentAfterFork(QMELMExtension *ext) noexcept {
  if (forkTookRecords(ext)) releaseRecords(ext, nullptr, nullptr);
}

// The child's only thread holds the records' mutexes (taken before the fork),
// but a reader-writer lock may still count waiters of the parent that do not
// exist here: each record gets a new mutex and the old one is left to the
// host. When the host cannot make one, the old one stays, held by this
// thread: the host then refuses it (a thread cannot take a mutex it holds),
// and that record is skipped by a reset and refused by a locked query,
// instead of being used unlocked. Records off the list belong to nodes made
// before the fork, which the child never uses.
void ioChildAfterFork(QMELMExtension *ext) noexcept {
  (void)forkTookRecords(ext);
  static constexpr QMLockCreateParms kParms{};
  QMHndlp h = ext->Common.hndl;
  for (QMELMIOInfop r = ext->IOInfo; r != nullptr; r = r->next)
    if (QMLockh fresh = h->lockCreate(h, &kParms, nullptr, nullptr)) r->mutex = fresh;
}

}  // namespace xvelm::detail

int xvelmCreateIOInfo(QMELMLHndlp lock, QMELMCreateIOInfoParms *parms, QMJnlh jnl) noexcept {
  QMELMExtension *ext = lock->Private.ExtHndl;
  NodeState *node = nodeOf(lock);
  QMPoolh pool = ext->Pool;
  MutexGuard io(ext->IOInfoMutex, Rank::IOInfo);
  if (!io) return journaled(jnl, io.status());

  if (IORecord *rec = retiredRecordOf(node); rec != nullptr) {
    // Same node, same name: only the record's state is new.
    {
      MutexGuard rm(rec->pub.mutex, Rank::Record);
      if (!rm) return journaled(jnl, rm.status());
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
// older one stays open, as the records have always read. When the node's
// last holder goes (the caller has already taken it out of the counters,
// under NodeMutex), the file is closed for every record of the node: each
// one still open gets the close time, so that a reset forgets them all.
int xvelmCloseIOInfo(QMELMLHndlp lock, QMELMCloseIOInfoParms *parms, QMJnlh) noexcept {
  QMELMResLockp n = lock->Private.ResLock;
  if (n == nullptr) return 0;
  if (n->ext_exclusive + n->ext_nonexclusive + n->noexternal_lock == 0) {
    QMELMExtension *ext = lock->Private.ExtHndl;
    MutexGuard io(ext->IOInfoMutex, Rank::IOInfo);
    if (io) {
      for (IORecord *rec = nodeOf(n)->records; rec != nullptr; rec = rec->nodeNext) {
        MutexGuard rm(rec->pub.mutex, Rank::Record);
        if (rm && rec->pub.closeTime < 0.0) poke(rec->pub.closeTime, parms->closeTime);
      }
      return 0;
    }
    // Without the list's mutex the node's chain cannot be walked: the newest
    // record is stamped alone.
  }
  QMELMIOInfop r = loadInfo(n);
  if (r == nullptr) return 0;
  MutexGuard rm(r->mutex, Rank::Record);
  if (rm) poke(r->closeTime, parms->closeTime);
  return 0;
}

// A handle is read only once it is known to be live: a released one (or a
// pointer never handed out) is answered without touching its memory, and
// one made before this process was forked leaves its node's records alone.
int xvelmUpdateIOInfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh jnl) noexcept {
  if (lock == nullptr) return journaled(jnl, QMELM_E_NULL_HANDLE);
  if (!handleIsLive(lock)) return journaled(jnl, QMELM_E_DEAD_NODE);
  if (nodeOf(lock)->generation != forkGeneration()) return journaled(jnl, QMELM_E_FORKED_HANDLE);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  QMELMIOInfop r = loadInfo(lock->Private.ResLock);
  if (r == nullptr) return 0;
  MutexGuard rm(r->mutex, Rank::Record);
  if (!rm) return 0;  // a mutex the host refuses: the increment is lost, never torn
  poke(r->numBytesRead, addWrapping(r->numBytesRead, parms->bytesRead));
  poke(r->numBytesWritten, addWrapping(r->numBytesWritten, parms->bytesWritten));
  poke(r->numReads, addWrapping(r->numReads, parms->reads));
  poke(r->numWrites, addWrapping(r->numWrites, parms->writes));
  poke(r->numSeeks, addWrapping(r->numSeeks, parms->seeks));
  return 0;
}

// Zeroes the records of open files and forgets closed ones: freed when their
// node is gone, retired (kept for the node's handles) while it lives. Both
// happen only after a grace period, waited for with no mutex held: under
// IOInfoMutex the closed records leave the list; then the wait; then the
// records of destroyed nodes are freed and, under IOInfoMutex again, the
// others are retired (or freed, when their node was destroyed meanwhile).
int xvelmResetIOInfo(QMELMExtensionp ext, QMELMResetIOInfoParms *, QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  Collected off;
  {
    MutexGuard io(ext->IOInfoMutex, Rank::IOInfo);
    if (!io) return io.status();
    for (QMELMIOInfop r = ext->IOInfo; r != nullptr;) {
      IORecord *rec = recordOf(r);
      MutexGuard rm(r->mutex, Rank::Record);
      QMELMIOInfop next = r->next;
      if (!rm) {  // left as it is
        r = next;
        continue;
      }
      zeroCounters(*r);
      if (r->closeTime >= 0.0) {
        unlinkRecord(ext, rec);
        if (rec->owner != nullptr)
          off.addRetiring(rec);
        else
          off.addOrphan(rec);
      }
      r = next;
    }
  }
  if (off.empty()) return 0;
  waitForReaders();
  for (IORecord *rec = off.takeOrphans(); rec != nullptr;)
    freeRecord(ext, std::exchange(rec, rec->nodeNext), nullptr);
  IORecord *retiring = off.takeRetiring();
  if (retiring == nullptr) return 0;
  MutexGuard io(ext->IOInfoMutex, Rank::IOInfo);
  // Without the mutex the records stay off the list, unretired: never used
  // again, freed with the pool.
  if (!io) return io.status();
  for (IORecord *rec = retiring; rec != nullptr;) {
    IORecord *next = Collected::nextRetiring(rec);
    if (rec->owner != nullptr)
      rec->retired = true;
    else
      freeRecord(ext, rec, nullptr);  // its node was destroyed during the wait
    rec = next;
  }
  return 0;
}
