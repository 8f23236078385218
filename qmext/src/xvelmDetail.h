/*
 * xvelmDetail.h - the lock manager's internal toolkit: QMChar literals, RAII
 * guards over host mutexes and pool blocks, the message composer, the
 * journal choice, the system-call table and the private extension state.
 * Everything here is internal: nothing is exported from libqmelm.so.
 */
#ifndef XVELM_DETAIL_H
#define XVELM_DETAIL_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <utility>

#include "qmelm.h"
#include "qmp.h"

// Clang's thread-safety analysis sees the guards as scoped capabilities; the
// macros are empty for other compilers.
#if defined(__clang__)
#define XVELM_TSA(x) __attribute__((x))
#else
#define XVELM_TSA(x)
#endif

// (The namespace is xvelm: the name qmelm belongs to the factory function.)
namespace xvelm::detail {

// ---- QMChar literals ------------------------------------------------------

// A QMChar copy of a narrow literal, usable as a constexpr format or path.
template <std::size_t N>
struct QMLiteral {
  QMChar text[N] = {};
  constexpr explicit QMLiteral(const char (&s)[N]) {
    for (std::size_t i = 0; i < N; ++i) text[i] = static_cast<unsigned char>(s[i]);
  }
  constexpr const QMChar *data() const { return text; }
  static constexpr QMStrSize size() { return static_cast<QMStrSize>(N - 1); }
};

inline constexpr QMLiteral kFmtCountedString("%.*s");  // a counted QMChar string
inline constexpr QMLiteral kRootPath("/");

// ---- lock types -------------------------------------------------------------

// Every bit a lock type defines (0x001 to 0x200); a type with any other bit
// is refused by acquisition and change alike.
inline constexpr QMMemSize kDefinedLockTypeBits =
    QMELM_INT_EXCLUSIVE | QMELM_INT_NONEXCLUSIVE | QMELM_EXT_EXCLUSIVE | QMELM_EXT_NONEXCLUSIVE |
    QMELM_NOINTERNAL_LOCK | QMELM_NOEXTERNAL_LOCK | QMELM_SHARED | QMELM_OPT_NONE | QMELM_OPT_FAIL |
    QMELM_OPT_CONTINUE;
static_assert(kDefinedLockTypeBits == 0x3ff);

// ---- the lock order -----------------------------------------------------

// Every mutex of the lock manager, outermost first. A thread takes them only
// in increasing rank (never one of a rank it already holds, nor a lower
// one), and OptionMutex only while it holds none of the others. Taking them
// in this order everywhere is what keeps two threads from waiting for each
// other. In debug and sanitizer builds (QMELM_CHECK_LOCK_ORDER) every guard
// records its rank on a per-thread list and the process aborts, naming both
// mutexes, on an inversion, on a release of a mutex the thread does not
// hold, and where a function that requires a mutex is entered without it.
// The fork handlers take every mutex of every rank at once; they bypass the
// guards and keep the same order (see xvelmFork.cpp).
enum class Rank : uint8_t {
  Registry = 1,     // the process's registry of lock manager objects
  List = 2,         // an object's ListMutex: LockList and the name index
  NodeDelete = 3,   // a node's NodeDeleteMutex: its acquirers against its destruction
  Node = 4,         // a node's NodeMutex: its counters, descriptors and type
  FileTable = 5,    // a file's turn in the process's file table
  TableStripe = 6,  // a stripe of the file table (table reads and writes only)
  IOInfo = 7,       // an object's IOInfoMutex: the I/O list and the records' chains
  Record = 8,       // an I/O record's own mutex: its counters and close time
  Option = 9,       // an object's OptionMutex: the option table (taken alone)
  HandleSet = 10,   // a bucket lock of the live-handle set (a leaf)
};

#if QMELM_CHECK_LOCK_ORDER
void lockOrderTake(Rank r) noexcept;     // before a mutex of rank r is taken
void lockOrderTaken(Rank r) noexcept;    // once it is held
void lockOrderGive(Rank r) noexcept;     // when it is given back
void lockOrderRequire(Rank r) noexcept;  // a function that needs it held
#else
inline void lockOrderTake(Rank) noexcept {}
inline void lockOrderTaken(Rank) noexcept {}
inline void lockOrderGive(Rank) noexcept {}
inline void lockOrderRequire(Rank) noexcept {}
#endif

// ---- mutexes -------------------------------------------------------------

enum class LockMode : int { Shared = 0, Exclusive = 1 };

// Holds a host mutex for its scope: get(mode, 1) on construction, release on
// destruction or unlock(). A get the host refuses (re-entry by a thread that
// holds the mutex, no memory, a failure) leaves the guard not held: the
// caller must test it and return status() instead of running its critical
// section unlocked.
class XVELM_TSA(scoped_lockable) MutexGuard {
 public:
  MutexGuard(QMLockh m, Rank rank, LockMode mode = LockMode::Exclusive)
      XVELM_TSA(no_thread_safety_analysis)
      : m_(m), rank_(rank) {
    lockOrderTake(rank);
    status_ = m == nullptr ? QMELM_E_NO_MEMORY : m->get(m, static_cast<int>(mode), 1);
    held_ = status_ == 0;
    if (held_) lockOrderTaken(rank);
  }
  ~MutexGuard() XVELM_TSA(no_thread_safety_analysis) { unlock(); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;
  void unlock() XVELM_TSA(no_thread_safety_analysis) {
    if (held_) {
      held_ = false;
      lockOrderGive(rank_);
      (void)m_->release(m_);
    }
  }
  bool held() const { return held_; }
  explicit operator bool() const { return held_; }
  // The host's status for a refused get; 0 while held.
  QMStatus status() const { return held_ ? 0 : status_; }

 private:
  QMLockh m_ = nullptr;
  Rank rank_;
  QMStatus status_ = 0;
  bool held_ = false;
};

// Destroys a host object (mutex, pipeline, extension, journal) through its
// generic header when it is not null.
inline void destroyObject(void *object) {
  if (object != nullptr) (void)static_cast<QMGeneric *>(object)->destroy(object);
}

// Owns a host object made by a constructor until release(): failure paths
// destroy it, success hands it on.
template <class H>
class HostObject {
 public:
  HostObject() = default;
  explicit HostObject(H h) : h_(h) {}
  ~HostObject() { destroyObject(h_); }
  HostObject(const HostObject &) = delete;
  HostObject &operator=(const HostObject &) = delete;
  H get() const { return h_; }
  explicit operator bool() const { return h_ != nullptr; }
  [[nodiscard]] H release() { return std::exchange(h_, nullptr); }

 private:
  H h_ = nullptr;
};

// ---- pool blocks ----------------------------------------------------------

QMStatus freeBlock(QMPoolh pool, void *block, QMJnlh jnl) noexcept;

// Owns a block of a host pool until release(); frees it otherwise. Made with
// a journal, a free that the pool refuses (only a damaged pool does) is
// journaled, as every free of lock acquisition and release is.
template <class T>
class PoolPtr {
 public:
  PoolPtr() = default;
  PoolPtr(QMPoolh pool, T *p) : pool_(pool), p_(p) {}
  PoolPtr(QMPoolh pool, QMJnlh jnl, T *p = nullptr) : pool_(pool), jnl_(jnl), p_(p) {}
  // Allocates bytes (at least sizeof(T) when bytes is 0) with the pool flags.
  static PoolPtr alloc(QMPoolh pool, std::size_t bytes = 0, uint32_t flags = QM_POOL_ZERO_FILL) {
    PoolPtr out(pool, static_cast<T *>(nullptr));
    (void)out.allocate(bytes, flags);
    return out;
  }
  ~PoolPtr() { (void)reset(); }
  PoolPtr(PoolPtr &&o) noexcept : pool_(o.pool_), jnl_(o.jnl_), p_(std::exchange(o.p_, nullptr)) {}
  PoolPtr &operator=(PoolPtr &&o) noexcept {
    if (this != &o) {
      (void)reset();
      pool_ = o.pool_;
      jnl_ = o.jnl_;
      p_ = std::exchange(o.p_, nullptr);
    }
    return *this;
  }
  PoolPtr(const PoolPtr &) = delete;
  PoolPtr &operator=(const PoolPtr &) = delete;

  // Frees what it holds, then allocates bytes (sizeof(T) when 0); false when
  // the pool refused.
  [[nodiscard]] bool allocate(std::size_t bytes = 0, uint32_t flags = QM_POOL_ZERO_FILL) {
    (void)reset();
    p_ = static_cast<T *>(pool_->memAlloc(pool_, bytes != 0 ? bytes : sizeof(T), flags));
    return p_ != nullptr;
  }
  T *get() const { return p_; }
  T *operator->() const { return p_; }
  T &operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  [[nodiscard]] T *release() { return std::exchange(p_, nullptr); }
  // Frees the block now and returns the pool's status (0 when there was none).
  [[nodiscard]] QMStatus reset() {
    if (p_ == nullptr) return 0;
    return freeBlock(pool_, std::exchange(p_, nullptr), jnl_);
  }

 private:
  QMPoolh pool_ = nullptr;
  QMJnlh jnl_ = nullptr;
  T *p_ = nullptr;
};

// ---- journals --------------------------------------------------------------

// The journal an operation reports to: the caller's, or, when the caller gave
// none and QMELM_DEBUG_VERBOSE_ERRORS is set, the host's default journal.
// Lock get, release and change choose their journal with this alone.
QMJnlh chooseJournal(const QMELMExtension *ext, QMJnlh jnl) noexcept;

// Journal writes that wait: while a JournalDeferral lives on the calling
// thread, composed messages and single statuses are kept (their text is
// composed at once, under whatever mutex the caller holds) and written when
// the outermost deferral ends, in the order they were made. The lock
// workers open one before they take any mutex, so that a journal stuck on a
// full pipe or a slow disk never holds up another request: no journal write
// happens under ListMutex, a NodeMutex or the file table. When more are kept
// than the thread's queue holds, the rest are written at once.
class JournalDeferral {
 public:
  JournalDeferral() noexcept;
  ~JournalDeferral();
  JournalDeferral(const JournalDeferral &) = delete;
  JournalDeferral &operator=(const JournalDeferral &) = delete;
};

// Keeps a status for the running deferral; false when none runs (or its
// queue is full): the caller writes it now.
[[nodiscard]] bool deferStatus(QMJnlh jnl, QMSeverity sev, QMStatus status) noexcept;

// Journals one status (with its parameters) at severity 4 when jnl is not null.
template <class... A>
void journalStatus(QMJnlh jnl, QMStatus status, A... args) noexcept {
  if (jnl == nullptr) return;
  if constexpr (sizeof...(A) == 0) {
    if (deferStatus(jnl, QMSeverityError, status)) return;
  }
  (void)qmlStatusToJnl(jnl, QMSeverityError, status, args...);
}

// Journals status (when jnl is not null) and returns it: the one-line failure
// exit of the workers.
[[nodiscard]] inline QMStatus journaled(QMJnlh jnl, QMStatus status) noexcept {
  journalStatus(jnl, status);
  return status;
}

// QMELM_E_NAME_HAS_NUL, journaled with the name, when the len characters of
// name hold U+0000; else 0. The system cuts a name short at its first NUL:
// "dir/victim<NUL>/../x" would open, create or delete dir/victim.
[[nodiscard]] QMStatus refuseNul(const QMELMExtension *ext, const QMChar *name, QMMemSize len,
                                 QMJnlh jnl) noexcept;
// Journals the refusal of a name that the system would cut short, and
// returns QMELM_E_NAME_HAS_NUL.
[[nodiscard]] QMStatus nameHasNul(const QMELMExtension *ext, const QMChar *name, QMMemSize len,
                                  QMJnlh jnl) noexcept;

// freeBlock (declared above PoolPtr) frees a block to pool, journals a
// failing free when jnl is not null, and returns the pool's status.

// Composes one message of several pieces and journals it once.
//
// The buffer (2048 QMChars by default) comes from the extension's pool and is
// only allocated when there is a journal; without one every call is a no-op.
// Each piece is rendered at the running end of the text. The room a piece is
// offered is 2048 minus the length of the piece written just before it (the
// long-standing rule of these messages, kept so that texts compare equal),
// but never more than the buffer really has left. In Checked mode a failing
// piece abandons the message quietly; in Unchecked mode the piece is skipped
// and the rest is still journaled. The status being reported never changes.
class Message {
 public:
  enum class Mode { Checked, Unchecked };
  static constexpr QMStrSize kRoom = 2048;

  Message(const QMELMExtension *ext, QMJnlh jnl, Mode mode = Mode::Checked,
          QMStrSize capacity = kRoom) noexcept;
  ~Message();
  Message(const Message &) = delete;
  Message &operator=(const Message &) = delete;

  // Renders the catalogue text of status with its parameters.
  template <class... A>
  Message &status(QMStatus st, A... args) noexcept {
    if (!live()) return *this;
    QMStrSize len = 0;
    QMStatus rc = qmlStatusToBuf(jnl_, st, buf_ + used_, room(), &len, args...);
    return advance(rc, len);
  }
  // Renders a counted QMChar string (a path or a file name).
  Message &text(const QMChar *s, QMStrSize len) noexcept;
  // Abandons the message unless len more characters fit after the text so far.
  Message &requireRoom(QMStrSize len) noexcept;
  // Journals the text once (format "%.*s"); nothing when abandoned or without
  // a journal. Returns the journal's status, or 0 when nothing was written.
  QMStatus journal(QMSeverity sev = QMSeverityError) noexcept;

  bool active() const { return buf_ != nullptr; }  // a journal and a buffer
  bool abandoned() const { return failed_; }
  QMStrSize length() const { return used_; }

 private:
  bool live() const { return buf_ != nullptr && !failed_; }
  QMStrSize room() const;
  Message &advance(QMStatus rc, QMStrSize len) noexcept;
  void dropBuffer() noexcept;

  QMPoolh pool_ = nullptr;
  QMJnlh jnl_ = nullptr;
  Mode mode_;
  QMStrSize capacity_;
  QMChar *buf_ = nullptr;
  QMStrSize used_ = 0;
  QMStrSize last_ = 0;  // length of the piece written just before
  bool failed_ = false;
};

// ---- system calls ----------------------------------------------------------

// Every system call on a locked file goes through this table, so that tests
// can make any of them fail on demand. The defaults are libc's. fcntl's third
// argument is a struct flock* for the record-lock commands and the flag value
// (cast to a pointer) for F_SETFD.
struct Syscalls {
  int (*open)(const char *path, int flags, mode_t mode);
  int (*close)(int fd);
  int (*fcntl)(int fd, int cmd, void *arg);
  int (*stat)(const char *path, struct stat *st);
  int (*fstat)(int fd, struct stat *st);
  off_t (*lseek)(int fd, off_t offset, int whence);
  int (*unlink)(const char *path);
  int (*ftruncate)(int fd, off_t length);
};

// The table in use. Tests may overwrite entries while no other thread is in
// the extension, and restore them with resetSyscalls().
Syscalls &sys() noexcept;
void resetSyscalls() noexcept;

// ---- live handles ----------------------------------------------------------

// What lock acquisition really allocates for a handle: the public handle and
// the link of the process-wide set of live handles.
// What the request's name led to when the acquisition looked it up (its
// stat before the node was entered).
struct NameLookup {
  bool found = false;  // stat succeeded
  dev_t dev = 0;
  ino_t ino = 0;
};

struct HandleBlock {
  XVELMLHndl pub;
  HandleBlock *nextLive;  // chain of the set's bucket; guarded by the bucket's lock
  NameLookup name;        // the acquisition's look-up of the name, for its identity check
};

// The set of live handles of every lock manager in the process. A handle
// joins it when lock acquisition hands it out and leaves it when a release
// takes it over, before anything reads it: a handle released twice (or never
// handed out) is recognised without touching freed memory. The set allocates
// nothing (its chains run through the handle blocks) and its bucket locks are
// leaves of the lock order, held for a few pointer operations.
void registerHandle(HandleBlock *h) noexcept;
// Takes a handle out of the set; false when it was not live.
[[nodiscard]] bool unregisterHandle(const void *h) noexcept;
// Whether a handle is live (handed out and not yet released).
[[nodiscard]] bool handleIsLive(const void *h) noexcept;
// Takes every handle of an extension out of the set: its destroy frees them
// with its pool, whether or not their holders released them.
void unregisterHandlesOf(const QMELMExtension *ext) noexcept;
// Around fork(): every bucket lock is taken before it, so that no thread is
// half-way through a change of the set, and given back after it (in the
// child by resetHandleSetAfterFork, which frees them all).
void handleSetPrepareFork() noexcept;
void handleSetParentAfterFork() noexcept;
void resetHandleSetAfterFork() noexcept;

// ---- the extension object as it is allocated -------------------------------

struct NodeState;

// The factory allocates this; callers only ever see `pub`.
// Mutex rules: the name index (buckets, bucketCount, nodeCount) is guarded by
// ListMutex; dead is a lock-free stack (queueDeadNode pushes, an acquisition
// takes all); regNext, regPrev and forkTaken by the process's registry
// mutex.
struct ExtensionState {
  QMELMExtension pub;       // first member: the public object
  NodeState **buckets;      // name index: inlineBuckets, or a pool block once grown
  QMMemSize bucketCount;    // a power of two
  QMMemSize nodeCount;      // nodes in the index
  NodeState *dead;          // nodes waiting to be destroyed
  ExtensionState *regNext;  // registry of live extension objects
  ExtensionState *regPrev;
  uint8_t forkTaken;             // which of its host mutexes the fork handler holds
  NodeState *inlineBuckets[64];  // the index's first buckets: no allocation
};

inline ExtensionState *stateOf(QMELMExtension *e) {
  return reinterpret_cast<ExtensionState *>(e);
}

// ---- atomics on shared public fields ---------------------------------------

// DeadNode is written under NodeMutex and read by the list walk under
// ListMutex only; Info is read by update and close without any mutex.
inline bool isDead(const QMELMResLock *n) {
  return __atomic_load_n(&n->DeadNode, __ATOMIC_ACQUIRE) != 0;
}
inline void markDead(QMELMResLock *n) {
  __atomic_store_n(&n->DeadNode, QMBoolean{1}, __ATOMIC_RELEASE);
}
inline QMELMIOInfop loadInfo(const QMELMResLock *n) {
  return __atomic_load_n(&n->Info, __ATOMIC_ACQUIRE);
}
inline void storeInfo(QMELMResLock *n, QMELMIOInfop r) {
  __atomic_store_n(&n->Info, r, __ATOMIC_RELEASE);
}

}  // namespace xvelm::detail

#endif  // XVELM_DETAIL_H
