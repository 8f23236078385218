/*
 * xvelmIOInfo - I/O records and their readers. Records are made per external
 * acquisition (Create: NodeMutex held, takes IOInfoMutex), stamped closed
 * (Close: NodeMutex held; the record's mutex, and IOInfoMutex first when the
 * node's last holder goes) and added to (Update) under the record's mutex
 * only, emptied by Reset (IOInfoMutex, then each record's). Get and List
 * select records by file, by directory or all (IOInfoMutex and the records'
 * mutexes when asked for, none otherwise); the report reads them with no
 * mutex. Records and name copies come from the pool; a reset or their node's
 * destruction frees them, List's array is the caller's until ListIOInfoFree.
 * Create returns 0 or QMELM_E_NO_MEMORY; each entry lists its own statuses.
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
 *
 * Why a reader without a mutex never touches a freed record either. The
 * report, and the queries whose caller did not ask for locking, walk the list
 * and read records holding no mutex at all, so that they run even while other
 * threads hold IOInfoMutex or a record's mutex. Such a reader announces itself
 * in a reading section (two process-wide counters, never a wait), and a
 * record is given back to the pool only after a grace period: once it is off
 * the list, every reading section that might still hold a pointer to it must
 * have ended. Readers never wait. The only thread that waits for them is a
 * reset, holding no mutex of the lock manager: a reader may be a report
 * writing to a journal that blocks, and nothing else may wait behind it. So
 * a reset marks a record retired only after the grace period that follows
 * its leaving the list, and a retired record is out of every reader's reach:
 * a node's destruction, which runs inside a lock acquisition, frees its
 * retired records at once and never waits. The fields such readers see
 * change only through atomic accesses, so a reader gets each value whole, if
 * not a consistent record.
 */
#include <fcntl.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "qmhostcm.h"
#include "xvelm.h"
#include "xvelmHandles.h"
#include "xvelmHostObject.h"
#include "xvelmJournal.h"
#include "xvelmLock.h"
#include "xvelmMutex.h"
#include "xvelmOptions.h"
#include "xvelmPool.h"
#include "xvelmQMChar.h"

namespace {

using namespace xvelm::detail;

// ---- fields that readers without a mutex read --------------------------------

// Counters, times and flags: relaxed (a reader accepts a record half updated).
template <class T>
T peek(const T &field) {
  static_assert(std::atomic_ref<T>::is_always_lock_free);
  return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}
template <class T>
void poke(T &field, std::type_identity_t<T> value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}
// The list's links: a reader that reaches a record through one sees it whole.
QMELMIOInfop follow(const QMELMIOInfop &link) {
  return std::atomic_ref<QMELMIOInfop>(const_cast<QMELMIOInfop &>(link))
      .load(std::memory_order_acquire);
}
void setLink(QMELMIOInfop &link, QMELMIOInfop to) {
  std::atomic_ref<QMELMIOInfop>(link).store(to, std::memory_order_release);
}

// Counters are added modulo 2^64: a total never overflows into undefined
// behaviour, however large the increments a host reports.
QMIOSize addWrapping(QMIOSize a, QMIOSize b) {
  return static_cast<QMIOSize>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// ---- reading sections and the grace period -----------------------------------

// A section belongs to the phase that was current when it began; phases
// alternate between the two counters. Process-wide, as the handle set is: a
// grace period waits for the readers of every lock manager in the process,
// which only costs the waiting reset a little more time.
std::atomic<uint64_t> readPhase{0};
std::atomic<int64_t> phaseReaders[2];
std::atomic_flag graceRunning;  // one grace period at a time

// A reader's section. It counts itself in the current phase's counter, and
// tries again when the phase moved meanwhile: a section never stays counted
// in a phase that a grace period has already closed.
class ReadingSection {
 public:
  ReadingSection() noexcept {
    for (;;) {
      const uint64_t phase = readPhase.load(std::memory_order_seq_cst);
      slot_ = phase & 1;
      phaseReaders[slot_].fetch_add(1, std::memory_order_seq_cst);
      if (readPhase.load(std::memory_order_seq_cst) == phase) return;
      phaseReaders[slot_].fetch_sub(1, std::memory_order_release);
    }
  }
  ~ReadingSection() { phaseReaders[slot_].fetch_sub(1, std::memory_order_release); }
  ReadingSection(const ReadingSection &) = delete;
  ReadingSection &operator=(const ReadingSection &) = delete;

 private:
  uint64_t slot_ = 0;
};

// Returns once every reading section that began before the call has ended.
// Records taken off the list before the call are then out of every reader's
// reach: sections that begin later start from the list as it is now. The
// current phase is closed (new sections count in the other counter) and its
// readers drain; nothing makes them wait, so the drain ends once each of them
// has. Called only by a reset, with no mutex held.
void waitForReaders() noexcept {
  while (graceRunning.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  const uint64_t closed = readPhase.fetch_add(1, std::memory_order_seq_cst) & 1;
  while (phaseReaders[closed].load(std::memory_order_seq_cst) != 0) std::this_thread::yield();
  graceRunning.clear(std::memory_order_release);
}

// In the child of a fork only the forking thread goes on, and it is never
// inside a section (the lock manager does not fork): sections and a grace
// period that other threads of the parent had under way are forgotten, or
// the child's first grace period would wait for them for ever.
void forgetReadersAfterFork() {
  phaseReaders[0].store(0, std::memory_order_relaxed);
  phaseReaders[1].store(0, std::memory_order_relaxed);
  graceRunning.clear(std::memory_order_relaxed);
}
[[maybe_unused]] const int forkHandlerInstalled =
    pthread_atfork(nullptr, nullptr, forgetReadersAfterFork);

// ---- records ---------------------------------------------------------------------

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

// ---- queries -------------------------------------------------------------------
namespace {

// A file or directory path counts as given when it has characters.
bool given(const QMChar *path, QMStrSize len) {
  return path != nullptr && len > 0;
}

// Which records a query selects, with the full path qmioe resolved for a
// file or a directory. Names are compared as the records hold them.
struct Selection {
  enum class Mode { All, File, Directory } mode = Mode::All;
  const QMChar *path = nullptr;
  QMStrSize len = 0;

  bool matches(const QMELMIOInfo &r) const {
    switch (mode) {
      case Mode::File:
        return qmzsCompare(r.Name, r.NameLen, path, len) != 0;
      case Mode::Directory:
        // A plain prefix, deliberately: no separator is required after it,
        // so the directory /a/b also selects /a/bc/f.
        return len <= r.NameLen && qmzsCompare(r.Name, len, path, len) != 0;
      case Mode::All:
        break;
    }
    return true;
  }
};

void addCounters(QMELMIOStats &to, const QMELMIOInfo &r) {
  to.bytesRead = addWrapping(to.bytesRead, peek(r.numBytesRead));
  to.bytesWritten = addWrapping(to.bytesWritten, peek(r.numBytesWritten));
  to.reads = addWrapping(to.reads, peek(r.numReads));
  to.writes = addWrapping(to.writes, peek(r.numWrites));
  to.seeks = addWrapping(to.seeks, peek(r.numSeeks));
}

// The selection both queries run. An empty list answers 0 at once. A file
// alone or a directory alone is resolved through qmioe (its failure is
// journaled and returned); both or neither select every record. The walk
// holds IOInfoMutex when the caller asked for locking, a reading section
// otherwise; prepare(bound) runs first, with bound the number of records it
// will visit at most, and visit(record) for each match, under the record's
// mutex when locking. Returns prepare's failure (IOInfoMutex and the
// resolved path given back all the same), the status of a mutex the host
// refused (journaled; the walk stops there), or that of giving the resolved
// path back (0 when there was none).
template <class Prepare, class Visit>
QMStatus selectRecords(QMELMExtension *ext, const QMELMQueryIOInfoParms &q, QMJnlh jnl,
                       Prepare prepare, Visit visit) noexcept {
  if (follow(ext->IOInfo) == nullptr) return 0;

  Selection sel;
  const bool file = given(q.matchFile, q.matchFileLen);
  const bool dir = given(q.matchDir, q.matchDirLen);
  std::optional<FullPath> resolved;
  if (file != dir) {
    sel.mode = file ? Selection::Mode::File : Selection::Mode::Directory;
    FullPath &full = resolved.emplace(ext, jnl, q.enc_pathname);
    const QMStatus rc =
        file ? full.resolve(q.matchFile, q.matchFileLen) : full.resolve(q.matchDir, q.matchDirLen);
    if (rc != 0) return journaled(jnl, rc);
    sel.path = full.data();
    sel.len = full.size();
  }

  const bool locking = q.lockRequest != 0;
  std::optional<MutexGuard> listLock;
  std::optional<ReadingSection> reading;
  if (locking) {
    if (const MutexGuard &io = listLock.emplace(ext->IOInfoMutex, Rank::IOInfo); !io)
      return journaled(jnl, io.status());
  } else {
    reading.emplace();
  }
  const QMMemSize bound = peek(ext->numIOInfo);
  // A failed allocation returns its own status; the guards give back
  // IOInfoMutex and the resolved path.
  if (const QMStatus rc = prepare(bound); rc != 0) return rc;
  QMStatus refused = 0;
  QMMemSize visited = 0;
  for (QMELMIOInfop r = follow(ext->IOInfo); r != nullptr && visited < bound;
       r = follow(r->next), ++visited) {
    if (!sel.matches(*r)) continue;
    if (!locking) {
      visit(*r);
      continue;
    }
    MutexGuard rm(r->mutex, Rank::Record);
    if (!rm) {
      refused = rm.status();
      break;
    }
    visit(*r);
  }
  listLock.reset();
  reading.reset();
  const QMStatus rc = resolved ? resolved->giveBack() : 0;
  return refused != 0 ? journaled(jnl, refused) : rc;
}

}  // namespace

int xvelmGetIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMGetIOInfoParms *result,
                   QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (query == nullptr || result == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  return selectRecords(
      ext, *query, jnl, [](QMMemSize) -> QMStatus { return 0; },
      [result](const QMELMIOInfo &r) {
        addCounters(result->totals, r);
        ++result->numEntries;
      });
}

int xvelmListIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMListIOInfoParms *result,
                    QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (query == nullptr || result == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  QMMemSize filled = 0;
  auto allocate = [ext, result](QMMemSize bound) -> QMStatus {
    // One entry per record on the list (at least one block, so that an
    // empty answer is still an array to give back); zero-filled, so the
    // entries past the matches read as empty.
    const QMMemSize entries = std::max<QMMemSize>(bound, 1);
    auto array =
        PoolPtr<QMELMByFileIOStats>::alloc(ext->Pool, entries * sizeof(QMELMByFileIOStats));
    if (!array) return QMELM_E_NO_MEMORY;  // deliberately without a message
    result->list = array.release();
    return 0;
  };
  return selectRecords(ext, *query, jnl, allocate, [result, &filled](const QMELMIOInfo &r) {
    QMELMByFileIOStats &e = result->list[filled++];
    e.filename = r.Name;
    e.filenameLen = r.NameLen;
    e.openTime = peek(r.openTime);
    e.closeTime = peek(r.closeTime);
    e.openFlags = peek(r.OpenFlags);
    addCounters(e.totals, r);
    ++result->numEntries;
  });
}

int xvelmListIOInfoFree(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed, QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (toBeFreed == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  // A list that was never handed out (the query found no records) is nothing
  // to give back. list and numEntries keep their values either way.
  if (toBeFreed->list == nullptr) return 0;
  return freeBlock(ext->Pool, toBeFreed->list, nullptr);
}

// ---- the report -------------------------------------------------------------------
namespace {

constexpr QMStrSize kFlagsChars = 1024;
constexpr QMStrSize kTimeChars = 256;
constexpr QMLiteral kRemainsOpen("File remains open");

// The open flags the report names, in the order it names them.
constexpr struct {
  uint32_t bit;
  const char *text;
} kFlagNames[] = {{O_WRONLY, " O_WRONLY | "}, {O_RDWR, " O_RDWR | "},   {O_CREAT, " O_CREAT | "},
                  {O_EXCL, " O_EXCL | "},     {O_TRUNC, " O_TRUNC | "}, {O_APPEND, " O_APPEND | "}};

// Appends an ASCII piece without its NUL to the zero-filled text (its room
// holds every piece together several times over).
void appendPiece(QMChar *text, QMStrSize &len, const char *piece) {
  for (; *piece != '\0'; ++piece) text[len++] = static_cast<unsigned char>(*piece);
}

// The flags as text: " O_RDONLY | " for the word 0 alone, then a piece per
// named flag that is set. The trailing " | " stays, as it always has, and a
// read-only word with other flags (O_CREAT, say) shows no " O_RDONLY | ".
void flagsText(uint32_t flags, QMChar (&text)[kFlagsChars]) {
  QMStrSize len = 0;
  if (flags == 0) appendPiece(text, len, " O_RDONLY | ");
  for (const auto &f : kFlagNames)
    if ((flags & f.bit) != 0) appendPiece(text, len, f.text);
}

// The locale the times are written in: the caller's, or the host's default,
// which is then left in the caller's parameters for later reports.
QMLocaleh reportLocale(const QMELMExtension *ext, QMELMJnlIOInfoParms *parms) {
  if (parms->locale == nullptr) {
    QMNLSh nls = ext->Common.hndl->qmnls;
    if (nls != nullptr) (void)nls->defaultLocale(nls, &parms->locale);
  }
  return parms->locale;
}

// A host datetime as the locale writes it; empty when it cannot.
void timeText(QMLocaleh locale, double t, QMChar (&text)[kTimeChars]) {
  QMStrSize len = 0;
  if (locale == nullptr ||
      locale->datetimeFormat(locale, t, QM_DATETIME_ISO8601, text, kTimeChars, &len) != 0)
    text[0] = 0;
}

// The six messages of one record; returns the status of the last.
QMStatus reportRecord(const QMELMExtension *ext, QMELMJnlIOInfoParms *parms, const QMELMIOInfo &r,
                      QMJnlh jnl) {
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_FILE, r.Name);

  const uint32_t flags = peek(r.OpenFlags);
  QMChar flagText[kFlagsChars] = {};
  flagsText(flags, flagText);
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_FLAGS, static_cast<unsigned>(flags),
                       flagText);

  const QMLocaleh locale = reportLocale(ext, parms);
  QMChar opened[kTimeChars] = {};
  QMChar closed[kTimeChars] = {};
  timeText(locale, peek(r.openTime), opened);
  if (const double closeTime = peek(r.closeTime); closeTime == -1.0)
    std::copy_n(kRemainsOpen.data(), kRemainsOpen.size(), closed);
  else
    timeText(locale, closeTime, closed);
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_TIMES, opened, closed);

  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_READS,
                       static_cast<long long>(peek(r.numReads)),
                       static_cast<long long>(peek(r.numBytesRead)));
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_WRITES,
                       static_cast<long long>(peek(r.numWrites)),
                       static_cast<long long>(peek(r.numBytesWritten)));
  return qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_SEEKS,
                        static_cast<long long>(peek(r.numSeeks)));
}

}  // namespace

// Reads the list and the records with no mutex, so that it runs even while
// other threads hold them; its reading section only keeps records from
// being freed under it.
int xvelmJnlIOInfo(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms, QMJnlh jnl) noexcept {
  if (jnl == nullptr) return QMELM_E_NO_JOURNAL;
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  ReadingSection reading;
  const QMMemSize count = peek(ext->numIOInfo);
  QMStatus rc = qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_HEADER,
                               static_cast<unsigned long long>(count));
  QMMemSize visited = 0;
  for (QMELMIOInfop r = count != 0 ? follow(ext->IOInfo) : nullptr; r != nullptr && visited < count;
       r = follow(r->next), ++visited)
    rc = reportRecord(ext, parms, *r, jnl);
  return rc;
}
