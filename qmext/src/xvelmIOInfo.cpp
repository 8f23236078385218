/*
 * xvelmIOInfo - I/O records and their readers. Records are made per external
 * acquisition (Create: NodeMutex held, takes IOInfoMutex), stamped closed
 * (Close) and added to (Update) under the record's mutex only, emptied by
 * Reset (IOInfoMutex, then each record's). Get and List select records by
 * file, by directory or all (IOInfoMutex and the records' mutexes when asked
 * for, none otherwise); the report reads them with no mutex. Records and name
 * copies come from the pool; a reset or their node's destruction frees them,
 * List's array is the caller's until ListIOInfoFree. Create returns 0 or
 * QMELM_E_NO_MEMORY; each query and the report list their own statuses.
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
 * have ended. Readers never wait; the thread that frees does, holding no mutex
 * of the I/O list. The fields such readers see change only through atomic
 * accesses, so a reader gets each value whole, if not a consistent record.
 */
#include <fcntl.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "qmhostcm.h"
#include "xvelm.h"
#include "xvelmLock.h"
#include "xvelmOptions.h"

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
// which only costs the freeing thread a little more waiting.
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
// readers drain; nothing makes them wait, so the drain always ends.
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

// Records that neither the list nor a node reaches any more, chained through
// nodeNext (which nothing else reads once they are unreachable). They are
// freed when the collection goes, after a grace period: declare it before
// the guard of IOInfoMutex, so that the wait happens with the mutex released.
class Unreachable {
 public:
  Unreachable(QMELMExtension *ext, QMJnlh jnl) : ext_(ext), jnl_(jnl) {}
  ~Unreachable() {
    if (head_ == nullptr) return;
    waitForReaders();
    while (head_ != nullptr) {
      IORecord *rec = std::exchange(head_, head_->nodeNext);
      const QMLockh m = rec->pub.mutex;
      (void)freeBlock(ext_->Pool, rec->pub.Name, jnl_);
      (void)freeBlock(ext_->Pool, rec, jnl_);
      destroyObject(m);
    }
  }
  Unreachable(const Unreachable &) = delete;
  Unreachable &operator=(const Unreachable &) = delete;
  void add(IORecord *rec) { rec->nodeNext = std::exchange(head_, rec); }

 private:
  QMELMExtension *ext_;
  QMJnlh jnl_;
  IORecord *head_ = nullptr;
};

// A retired record of the node, to be used again; null when there is none.
IORecord *retiredRecordOf(NodeState *node) {
  for (IORecord *r = node->records; r != nullptr; r = r->nodeNext)
    if (r->retired) return r;
  return nullptr;
}

}  // namespace

namespace xvelm::detail {

void detachIORecords(QMELMExtension *ext, NodeState *node, QMJnlh jnl) noexcept {
  Unreachable gone(ext, jnl);
  MutexGuard io(ext->IOInfoMutex);
  // Without the mutex the records stay as they are, in the pool until it
  // goes: nothing follows a record's owner, and the node's chain goes with it.
  if (!io) return;
  for (IORecord *r = node->records; r != nullptr;) {
    IORecord *next = r->nodeNext;
    if (r->retired) {
      gone.add(r);
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
  if (!io) return journaled(jnl, io.status());

  if (IORecord *rec = retiredRecordOf(node); rec != nullptr) {
    // Same node, same name: only the record's state is new.
    {
      MutexGuard rm(rec->pub.mutex);
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
// older one stays open. That is how the records have always read.
int xvelmCloseIOInfo(QMELMLHndlp lock, QMELMCloseIOInfoParms *parms, QMJnlh) noexcept {
  QMELMResLockp node = lock->Private.ResLock;
  if (node == nullptr) return 0;
  QMELMIOInfop r = loadInfo(node);
  if (r == nullptr) return 0;
  MutexGuard rm(r->mutex);
  if (rm) poke(r->closeTime, parms->closeTime);
  return 0;
}

int xvelmUpdateIOInfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh) noexcept {
  QMELMIOInfop r = loadInfo(lock->Private.ResLock);
  if (r == nullptr) return 0;
  MutexGuard rm(r->mutex);
  if (!rm) return 0;  // a mutex the host refuses: the increment is lost, never torn
  poke(r->numBytesRead, addWrapping(r->numBytesRead, parms->bytesRead));
  poke(r->numBytesWritten, addWrapping(r->numBytesWritten, parms->bytesWritten));
  poke(r->numReads, addWrapping(r->numReads, parms->reads));
  poke(r->numWrites, addWrapping(r->numWrites, parms->writes));
  poke(r->numSeeks, addWrapping(r->numSeeks, parms->seeks));
  return 0;
}

// Zeroes the records of open files and forgets closed ones: freed when their
// node is gone, retired (kept for the node's handles) while it lives.
int xvelmResetIOInfo(QMELMExtensionp ext, QMELMResetIOInfoParms *, QMJnlh) noexcept {
  Unreachable gone(ext, nullptr);  // a reset reports nothing
  MutexGuard io(ext->IOInfoMutex);
  if (!io) return io.status();
  for (QMELMIOInfop r = ext->IOInfo; r != nullptr;) {
    IORecord *rec = recordOf(r);
    MutexGuard rm(r->mutex);
    QMELMIOInfop next = r->next;
    if (!rm) {  // left as it is
      r = next;
      continue;
    }
    zeroCounters(*r);
    if (r->closeTime >= 0.0) {
      unlinkRecord(ext, rec);
      if (rec->owner != nullptr)
        rec->retired = true;
      else
        gone.add(rec);
    }
    r = next;
  }
  return 0;
}

// ---- queries -------------------------------------------------------------------
namespace {

// Holds a T built in place and destroys it at the end of the scope, unless
// abandon() was called: then its destructor never runs, and whatever it would
// have given back (a mutex, a resolved path) stays taken.
template <class T>
class Abandonable {
 public:
  Abandonable() noexcept {}
  ~Abandonable() { reset(); }
  Abandonable(const Abandonable &) = delete;
  Abandonable &operator=(const Abandonable &) = delete;
  template <class... A>
  T &emplace(A &&...args) {
    reset();
    T *t = std::construct_at(&value_, std::forward<A>(args)...);
    live_ = true;
    return *t;
  }
  void reset() {
    if (std::exchange(live_, false)) std::destroy_at(&value_);
  }
  void abandon() { live_ = false; }
  T *get() { return live_ ? &value_ : nullptr; }

 private:
  union {
    T value_;
  };
  bool live_ = false;
};

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
// mutex when locking. Returns prepare's failure, the status of a mutex the
// host refused (journaled; the walk stops there), or that of giving the
// resolved path back (0 when there was none).
template <class Prepare, class Visit>
QMStatus selectRecords(QMELMExtension *ext, const QMELMQueryIOInfoParms &q, QMJnlh jnl,
                       Prepare prepare, Visit visit) noexcept {
  if (follow(ext->IOInfo) == nullptr) return 0;

  Selection sel;
  const bool file = given(q.matchFile, q.matchFileLen);
  const bool dir = given(q.matchDir, q.matchDirLen);
  Abandonable<FullPath> resolved;
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
    if (const MutexGuard &io = listLock.emplace(ext->IOInfoMutex); !io)
      return journaled(jnl, io.status());
  } else {
    reading.emplace();
  }
  const QMMemSize bound = peek(ext->numIOInfo);
  if (const QMStatus rc = prepare(bound); rc != 0) {
    // The long-standing early exit of a failed allocation undoes nothing:
    // IOInfoMutex stays held when it was taken, and the resolved path stays
    // with qmioe. Callers have always seen it so.
    if (listLock) listLock->keepHeld();
    resolved.abandon();
    return rc;
  }
  QMStatus refused = 0;
  QMMemSize visited = 0;
  for (QMELMIOInfop r = follow(ext->IOInfo); r != nullptr && visited < bound;
       r = follow(r->next), ++visited) {
    if (!sel.matches(*r)) continue;
    if (!locking) {
      visit(*r);
      continue;
    }
    MutexGuard rm(r->mutex);
    if (!rm) {
      refused = rm.status();
      break;
    }
    visit(*r);
  }
  listLock.reset();
  reading.reset();
  FullPath *full = resolved.get();
  const QMStatus rc = full != nullptr ? full->giveBack() : 0;
  return refused != 0 ? journaled(jnl, refused) : rc;
}

}  // namespace

int xvelmGetIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMGetIOInfoParms *result,
                   QMJnlh jnl) noexcept {
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
