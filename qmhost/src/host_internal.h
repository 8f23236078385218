/*
 * host_internal.h - the private objects of the substitute host.
 *
 * Every public table (QMHndl, QMPool, QMLock, QMJnl, QMNLSPipeline) is the
 * first member of a larger C++ object, so a handle converts back to its object
 * with a cast. The host owns every object it made through one registry per
 * kind; a registry's mutex guards only its map and is never held while an
 * object is destroyed or a caller's code runs. Nothing here is exported.
 */
#ifndef QMHOST_HOST_INTERNAL_H
#define QMHOST_HOST_INTERNAL_H

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "address_map.h"
#include "qmhost/qmhost.h"
#include "qmhost/qmhost_testing.h"

namespace qmhost {

struct Host;

// The eye-catcher of a host object: four readable bytes.
inline int32_t oven(const char (&tag)[5]) {
  int32_t v;
  std::memcpy(&v, tag, sizeof v);
  return v;
}

// Records status as the calling thread's last failure in host (lastStatus).
void setLastStatus(Host *host, QMStatus status) noexcept;

// ---- test instruments ---------------------------------------------------

// Call counts and failure injection per kind, for tests. Disarmed (as every
// host starts), hit() is one relaxed load of a flag that only arming writes:
// the hot paths (memAlloc above all) share no written cache line across
// threads. Armed, each call is counted and the armed call number fails.
class FailPoints {
 public:
  // Counts a call of kind when armed; true when this call must fail (once
  // per failNth).
  bool hit(QMHostFailKind kind) noexcept {
    if (!armed_.load(std::memory_order_relaxed)) [[likely]]
      return false;
    return hitArmed(kind);
  }
  // Arms (counting and failing from now on) or disarms; disarming cancels
  // the pending failures. Counts are kept either way.
  void arm(bool on) noexcept {
    if (!on)
      for (std::atomic<long> &at : failAt_) at.store(0);
    armed_.store(on);
  }
  bool armed() const noexcept { return armed_.load(); }
  // Arms, and makes the nth call from now fail (n >= 1); n <= 0 cancels.
  void failNth(QMHostFailKind kind, long n) noexcept {
    failAt_[kind].store(n > 0 ? calls_[kind].n.load() + n : 0);
    armed_.store(true);
  }
  long calls(QMHostFailKind kind) const noexcept { return calls_[kind].n.load(); }

 private:
  bool hitArmed(QMHostFailKind kind) noexcept {
    const long n = calls_[kind].n.fetch_add(1, std::memory_order_relaxed) + 1;
    long at = failAt_[kind].load(std::memory_order_relaxed);
    return at != 0 && n == at && failAt_[kind].compare_exchange_strong(at, 0);
  }
  // The flag on a cache line of its own, which no counter shares: reading it
  // never waits for a line another core writes.
  alignas(64) std::atomic<bool> armed_{false};
  // Each kind's counter on a cache line of its own: allocations on one core
  // do not slow mutex creation on another.
  struct alignas(64) Counter {
    std::atomic<long> n{0};
  };
  Counter calls_[QMHOST_FAIL_KINDS];
  std::atomic<long> failAt_[QMHOST_FAIL_KINDS] = {};
};

// ---- shards ------------------------------------------------------------------

// Registries and pools spread their objects over shards, each with its own
// mutex, so that threads rarely meet on one. Before a fork every one of them
// is held at once; ThreadSanitizer follows at most 64 mutexes held by one
// thread, so its builds use a single shard (same behaviour, less spread).
#if defined(__SANITIZE_THREAD__)
#define QMHOST_ONE_SHARD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QMHOST_ONE_SHARD 1
#endif
#endif
#ifdef QMHOST_ONE_SHARD
inline constexpr size_t kRegistryShards = 1;
inline constexpr size_t kPoolShards = 1;
inline constexpr size_t kPoolLanes = 1;
#else
inline constexpr size_t kRegistryShards = 64;
inline constexpr size_t kPoolShards = 64;
inline constexpr size_t kPoolLanes = 4;
#endif

// The calling thread's lane (of kPoolLanes), given out in turn to threads
// as they first allocate or create an object.
size_t poolLane() noexcept;

// ---- registries ----------------------------------------------------------

// The live objects of one kind, owned by the host. take() hands an object
// back to the caller that destroys it; a pointer that is not live (destroyed
// already, or never made here) is refused without being read.
template <class T>
class Registry {
 public:
  // Takes ownership; null (and the object destroyed) when the map cannot grow.
  T *add(std::unique_ptr<T> obj) noexcept {
    T *raw = obj.get();
    Shard &sh = shardOf(raw, poolLane());
    std::lock_guard<ShardLock> g(sh.m);
    return sh.live.insert(raw, std::move(obj)) ? raw : nullptr;
  }
  std::unique_ptr<T> take(const void *obj) noexcept {
    std::unique_ptr<T> owned;
    const size_t mine = poolLane();
    for (size_t i = 0; i < kLanes && !owned; ++i) {
      Shard &sh = shardOf(obj, (mine + i) % kLanes);
      std::lock_guard<ShardLock> g(sh.m);
      (void)sh.live.take(obj, &owned);
    }
    return owned;
  }
  size_t size() const noexcept {
    size_t n = 0;
    for (const Shard &sh : shards_) {
      std::lock_guard<ShardLock> g(sh.m);
      n += sh.live.size();
    }
    return n;
  }
  // Calls f on every live object, each under its shard's mutex.
  template <class F>
  void forEach(F &&f) const {
    for (const Shard &sh : shards_) {
      std::lock_guard<ShardLock> g(sh.m);
      sh.live.forEach([&f](const void *, const std::unique_ptr<T> &obj) { f(*obj); });
    }
  }
  // fork() support: every shard's mutex taken (in order) and given back, and
  // a walk of the objects while they are taken.
  void lockAll() const noexcept {
    for (const Shard &sh : shards_) sh.m.lock();
  }
  void unlockAll() const noexcept {
    for (auto it = shards_.rbegin(); it != shards_.rend(); ++it) it->m.unlock();
  }
  template <class F>
  void forEachLocked(F &&f) const {
    for (const Shard &sh : shards_)
      sh.live.forEach([&f](const void *, const std::unique_ptr<T> &obj) { f(*obj); });
  }
  // Destroys every object still live (outside the registry's mutexes).
  void clear() noexcept {
    for (Shard &sh : shards_) {
      AddressMap<std::unique_ptr<T>> doomed;
      {
        std::lock_guard<ShardLock> g(sh.m);
        doomed.swap(sh.live);
      }
    }
  }

 private:
  // Objects are spread over shards by address and by the creating thread's
  // lane, as a pool's blocks are (see PoolShard), so threads that create and
  // destroy different objects rarely meet on one mutex.
  struct alignas(64) Shard {
    mutable ShardLock m;
    AddressMap<std::unique_ptr<T>> live;  // guarded by m
  };
  static constexpr size_t kShards = kRegistryShards;
  static constexpr size_t kLanes = kPoolLanes;
  Shard &shardOf(const void *obj, size_t lane) {
    return shards_[addressShard(obj, kShards) * kLanes + lane];
  }
  std::array<Shard, kShards * kLanes> shards_;
};

// ---- pools -------------------------------------------------------------------

// Mutex rules: m guards blocks and bytes; host counters are atomics updated
// after m is released. host and name never change.
// One slice of a pool's live blocks. A block lives in one of the kLanes
// shards of the region its address lies in (see addressShard): the lane of
// the thread that allocated it. Threads whose blocks lie in different
// regions (malloc's arenas) rarely meet on one mutex; threads that malloc
// serves from one arena still use different lanes. A free looks in the
// caller's lane first, where the blocks a thread allocated itself are.
struct alignas(64) PoolShard {
  mutable ShardLock m;        // guards blocks and bytes
  AddressMap<size_t> blocks;  // live block -> requested size
  size_t bytes = 0;           // sum of the live sizes
};

struct Pool {
  static constexpr size_t kShards = kPoolShards;
  static constexpr size_t kLanes = kPoolLanes;
  QMPool pub;        // the table callers see
  Host *host;        // the host that made it
  std::string name;  // pub.generic.name points here
  std::array<PoolShard, kShards * kLanes> shards;

  Pool(Host *h, const char *poolName);
  ~Pool();  // frees every live block
  // The shard of the block's region in the given lane.
  PoolShard &shardOf(const void *block, size_t lane) {
    return shards[addressShard(block, kShards) * kLanes + lane];
  }
};

QMPoolh poolCreate(QMHndlp h, const QMPoolCreateParms *parms, QMJnlh jnl,
                   const char *name) noexcept;

// ---- mutexes --------------------------------------------------------------

// The holder bookkeeping is written by holders only, before they unlock:
// owner by the exclusive holder, shared by each shared holder. The mutex
// and its bookkeeping come after the read-only table and name, and a pad
// follows them, so that threads taking two mutexes made one after the other
// do not write one cache line.
struct Lock {
  QMLock pub;  // the table callers see
  Host *host;  // the host that made it
  // The mutex is one word: kLockExclusive while a thread holds it
  // exclusively, the number of shared holders in the low bits, and
  // kLockSleepers while a thread sleeps (futex) waiting for it. It shares a
  // cache line with pub, which every caller reads just before changing it;
  // the names after it keep the next block of memory off that line. (No
  // alignas: an over-aligned object leaves malloc's per-thread cache for its
  // slowest path.)
  std::atomic<uint32_t> state{0};
  std::atomic<uintptr_t> owner{0};  // thread id of the exclusive holder, 0 if none
  char shortName[48] = {};          // the name, when it fits (most do)
  std::string longName;             // otherwise; pub.generic.name points at one of them

  Lock(Host *h, const char *lockName);
};
inline constexpr uint32_t kLockExclusive = 1u << 31;
inline constexpr uint32_t kLockSleepers = 1u << 30;
inline constexpr uint32_t kLockSharers = kLockSleepers - 1;

QMLockh lockCreate(QMHndlp h, const QMLockCreateParms *parms, QMJnlh jnl,
                   const char *name) noexcept;

// ---- journals -------------------------------------------------------------

struct JournalEntry {
  QMSeverity severity;
  std::string text;             // UTF-8
  std::vector<QMStatus> codes;  // statuses rendered into the text, in order
};

// Mutex rules: m guards entries and the writes to fd / stderr, so the lines
// of a journal appear in the order of its entries. keep and serial are
// atomics that rendering reads without the mutex; everything else is fixed
// at creation.
struct Journal {
  QMJnl pub;                         // the table callers see
  Host *host;                        // the host that made it
  std::atomic<uint64_t> serial;      // unique in the process; keys pending codes
  QMJnlKind kind;                    // where entries go besides memory
  int fd = -1;                       // QM_JNL_FILE: the file, opened for append
  std::atomic<size_t> keep;          // how many of the newest entries are kept
  std::mutex m;                      // guards entries and the output
  std::deque<JournalEntry> entries;  // the newest `keep` entries

  Journal(Host *h, QMJnlKind k);
  ~Journal();
  Journal(const Journal &) = delete;
  Journal &operator=(const Journal &) = delete;

  // Whether entries are kept, and with them the codes rendered for this
  // journal. Relaxed: a caller that changes the retention while others
  // render for the journal gets either answer for their entries.
  bool keeps() const noexcept { return keep.load(std::memory_order_relaxed) != 0; }
  // Keeps an entry (when the journal keeps any) and writes its line; QM_E_IO
  // when the line could not be written (the entry is kept all the same). May
  // throw std::bad_alloc.
  QMStatus record(QMSeverity sev, const std::vector<QMChar> &text, std::vector<QMStatus> codes);
};

QMJnlh jnlCreate(QMHndlp h, const QMJnlCreateParms *parms, void *reserved1,
                 void *reserved2) noexcept;
// Makes a journal without counting a JNL_CREATE call (the host's own qmjnl).
// Null with *status set on failure.
QMJnlh makeJournal(Host *host, uint32_t kind, const char *path, QMStatus *status) noexcept;
// Journals status followed by detail (UTF-8) as one entry with codes
// {status}; nothing when jnl is null. For the host's own diagnostics.
void journalDetail(QMJnlh jnl, QMStatus status, const std::string &detail) noexcept;
// Journals the catalogue text of status (no parameters); nothing when jnl is null.
void journalStatus(QMJnlh jnl, QMStatus status) noexcept;

// ---- NLS --------------------------------------------------------------------

struct Pipeline {
  QMNLSPipeline pub;  // the table callers see
  Host *host;         // the host that made it
};

// The NLS services table and the default locale, one of each per host.
struct Nls {
  QMNLS pub;
  Host *host;
};
struct Locale {
  QMLocale pub;
  Host *host;
};

// Fills host->nls and host->locale.
void initNls(Host *host) noexcept;

// ---- extensions -------------------------------------------------------------

struct Builtin {
  std::string name;
  QMExtEntryFn entry;
  QMExtVerFn version;
  QMExtFactoryFn factory;
};

struct ExtRecord {
  QMExtensionh ext;  // the extension object (memory of the extension)
  void *dl;          // dlopen handle; null for a builtin
};

QMExtensionh loadExtension(QMHndlp h, const QMChar *name, QMStrSize namelen, QMJnlh jnl) noexcept;
// Destroys the loaded extensions, oldest load first: an extension that loaded
// others while it was made (or later) destroys them itself.
void destroyAllExtensions(Host *host) noexcept;

// ---- the host -----------------------------------------------------------------

// Destruction order matters: the counters outlive the registries (a pool's
// destructor updates them), and the registries go pipelines, journals,
// mutexes, pools (reverse of declaration).
struct Host {
  QMHndl pub;                       // the table callers see; first member
  uint64_t serial;                  // unique in the process; keys lastStatus
  std::string extensionPath;        // cfg->extension_path, when given
  bool hasExtensionPath = false;    // whether extensionPath came from cfg
  NLScei osEncoding = QM_CEI_UTF8;  // what osEncoding answers
  std::vector<Builtin> builtins;    // copied from cfg

  FailPoints fail;
  std::atomic<size_t> badFrees{0};  // refused memFree calls

  Nls nls;        // pub.qmnls points at nls.pub
  Locale locale;  // the default locale

  Registry<Pool> pools;
  Registry<Lock> locks;
  Registry<Journal> journals;
  Registry<Pipeline> pipelines;

  std::mutex extMutex;                 // guards exts and extSeq
  std::map<uint64_t, ExtRecord> exts;  // load sequence -> extension
  uint64_t extSeq = 0;                 // next load sequence
};

// fork() support: every live host is known, so that a fork never copies one
// of its internal mutexes held by another thread.
void rememberHost(Host *h);
void forgetHost(Host *h) noexcept;

// A public table is the first member of its object.
inline Host *hostOf(QMHndlp h) {
  return reinterpret_cast<Host *>(h);
}

}  // namespace qmhost

#endif  // QMHOST_HOST_INTERNAL_H
