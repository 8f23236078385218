/*
 * xvelmIdentity - the process-wide file table (see xvelmIdentity.h). Its
 * buckets are static and its links live in the nodes, so recording a file
 * allocates nothing and cannot fail. A file's turn (after NodeMutex in the
 * lock order) serialises what is done to one file; the stripes' mutexes are
 * held only for table reads and writes, never across a system call. The
 * fork unit takes every stripe around fork().
 */
#include "locks/xvelmIdentity.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "host/xvelmMutex.h"
#include "host/xvelmSys.h"
#include "locks/xvelmLock.h"

namespace xvelm::detail {
namespace {

constexpr std::size_t kBuckets = 16384;
// Threads on two files meet on one stripe with a chance of 1/kStripes.
// ThreadSanitizer builds use fewer, so that the suite's threads meet on
// stripes more often there.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t kStripes = 16;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr std::size_t kStripes = 16;
#else
constexpr std::size_t kStripes = 256;
#endif
#else
constexpr std::size_t kStripes = 256;
#endif

// The mutex of a stripe, held for a few reads and writes: one
// compare-and-swap to take, one exchange to give back. A taker that finds it
// held spins briefly, then sleeps on the word (2: held, and a taker may be
// asleep), which the holder's release wakes.
class StripeLock {
 public:
  void lock() noexcept {
    uint32_t free = 0;
    if (!word_.compare_exchange_strong(free, 1, std::memory_order_acquire,
                                       std::memory_order_relaxed))
      lockContended();
  }
  void unlock() noexcept {
    if (word_.exchange(0, std::memory_order_release) == 2) word_.notify_one();
  }
  // In the child of a fork: the forking thread, the child's only thread,
  // held it; nobody else can be waiting.
  void reset() noexcept { word_.store(0, std::memory_order_relaxed); }

 private:
  [[gnu::noinline]] void lockContended() noexcept {
    for (int i = 0; i < 64; ++i) {
      uint32_t free = 0;
      if (word_.load(std::memory_order_relaxed) == 0 &&
          word_.compare_exchange_weak(free, 1, std::memory_order_acquire,
                                      std::memory_order_relaxed))
        return;
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    }
    while (word_.exchange(2, std::memory_order_acquire) != 0)
      word_.wait(2, std::memory_order_relaxed);
  }
  std::atomic<uint32_t> word_{0};  // 0 free, 1 held, 2 held with a possible sleeper
};

// A stripe: its mutex guards its buckets' chains and every field of the
// links in them, and the turns under way on files of its buckets. Nothing
// but reads and writes of these is done while the mutex is held. A thread
// waiting for a file's turn sleeps on turnsEnded, which a turn's end bumps
// (under the mutex) when someone waits.
constexpr std::size_t kTurnSlots = 8;
struct alignas(64) Stripe {
  StripeLock mutex;
  std::atomic<uint32_t> turnsEnded{0};
  uint32_t turnWaiters = 0;  // threads asleep on turnsEnded, or about to be
  struct Turn {
    dev_t dev;
    ino_t ino;
    bool used;
  } turns[kTurnSlots];
};

Stripe stripes[kStripes];
FileLink *table[kBuckets];
uint32_t generation = 1;  // bumped in the child of a fork

std::size_t bucketOf(dev_t dev, ino_t ino) {
  uint64_t v = static_cast<uint64_t>(ino) * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(dev);
  v ^= v >> 29;
  return static_cast<std::size_t>(v % kBuckets);
}

Stripe &stripeOf(std::size_t bucket) {
  return stripes[bucket % kStripes];
}
Stripe &stripeOf(dev_t dev, ino_t ino) {
  return stripeOf(bucketOf(dev, ino));
}

// Holds a stripe's mutex for a few reads and writes of the table.
class StripeHold {
 public:
  explicit StripeHold(Stripe &s) noexcept : s_(s) {
    lockOrderTake(Rank::TableStripe);
    s_.mutex.lock();
    lockOrderTaken(Rank::TableStripe);
  }
  explicit StripeHold(const FileLink &l) noexcept : StripeHold(stripeOf(l.dev, l.ino)) {}
  ~StripeHold() {
    lockOrderGive(Rank::TableStripe);
    s_.mutex.unlock();
  }
  StripeHold(const StripeHold &) = delete;
  StripeHold &operator=(const StripeHold &) = delete;

 private:
  Stripe &s_;
};

bool sameFile(const FileLink &l, dev_t dev, ino_t ino) {
  return l.dev == dev && l.ino == ino;
}

// The strongest need of the file's nodes, the given link left out (stripe
// held).
Need othersNeed(const FileLink &self) {
  Need n = Need::None;
  for (const FileLink *l = table[bucketOf(self.dev, self.ino)]; l != nullptr; l = l->next)
    if (l != &self && sameFile(*l, self.dev, self.ino) && l->need > n) n = l->need;
  return n;
}

// The strongest need of the file's nodes (stripe held).
Need fileNeed(dev_t dev, ino_t ino) {
  Need n = Need::None;
  for (const FileLink *l = table[bucketOf(dev, ino)]; l != nullptr; l = l->next)
    if (sameFile(*l, dev, ino) && l->need > n) n = l->need;
  return n;
}

short lockTypeOf(Need n) {
  switch (n) {
    case Need::Write:
      return F_WRLCK;
    case Need::Read:
      return F_RDLCK;
    case Need::None:
      break;
  }
  return F_UNLCK;
}

NodeState *nodeOfLink(FileLink *l) {
  return reinterpret_cast<NodeState *>(reinterpret_cast<char *>(l) - offsetof(NodeState, link));
}

// Stripe held.
void attach(FileLink &l) {
  FileLink *&head = table[bucketOf(l.dev, l.ino)];
  l.next = head;
  head = &l;
  l.attached = true;
}

// Stripe held.
void detach(FileLink &l) {
  for (FileLink **p = &table[bucketOf(l.dev, l.ino)]; *p != nullptr; p = &(*p)->next) {
    if (*p == &l) {
      *p = l.next;
      break;
    }
  }
  l.next = nullptr;
  l.attached = false;
}

// Stripe held.
bool hasOpenDeferred(const FileLink &l) {
  for (XVELMFileDescriptorp d = l.deferred; d != nullptr; d = d->next)
    if (d->fd >= 0) return true;
  return false;
}

// No node needs a lock on the file any more (the file's turn held): the
// closes that waited for this are made, with no mutex held, in batches
// taken under the stripe; then nodes left waiting for them go back to their
// extensions to be destroyed.
void drain(dev_t dev, ino_t ino) {
  Stripe &s = stripeOf(dev, ino);
  for (;;) {
    constexpr int kBatch = 32;
    int fds[kBatch];
    int n = 0;
    {
      StripeHold h(s);
      for (FileLink *l = table[bucketOf(dev, ino)]; l != nullptr && n < kBatch; l = l->next) {
        if (!sameFile(*l, dev, ino)) continue;
        for (XVELMFileDescriptorp d = l->deferred; d != nullptr && n < kBatch; d = d->next)
          if (d->fd >= 0) fds[n++] = std::exchange(d->fd, -1);
      }
    }
    if (n == 0) break;
    for (int i = 0; i < n; ++i) (void)sys().close(fds[i]);
  }
  StripeHold h(s);
  for (FileLink *l = table[bucketOf(dev, ino)]; l != nullptr; l = l->next) {
    if (sameFile(*l, dev, ino) && l->waiting) {
      l->waiting = false;
      queueDeadNode(nodeOfLink(l));  // destroyed only after this turn: forgetNode takes it
    }
  }
}

// Sends the process's lock on the file down (or up) to `to` through fd.
int sendLock(int fd, Need to, struct flock &req) {
  req.l_type = lockTypeOf(to);
  req.l_whence = SEEK_SET;
  req.l_start = 0;
  req.l_len = 0;
  return sys().fcntl(fd, F_SETLK, &req);
}

}  // namespace

bool noRecordLocksHere(int err) noexcept {
  return err == EOPNOTSUPP || err == EROFS || err == EINVAL;
}

bool shareStripe(const struct stat &a, const struct stat &b) noexcept {
  return &stripeOf(a.st_dev, a.st_ino) == &stripeOf(b.st_dev, b.st_ino);
}

uint32_t forkGeneration() noexcept {
  return __atomic_load_n(&generation, __ATOMIC_ACQUIRE);
}

FileTurn::FileTurn(dev_t dev, ino_t ino) noexcept : dev_(dev), ino_(ino) {
  lockOrderTake(Rank::FileTable);
  Stripe &s = stripeOf(dev, ino);
  s.mutex.lock();
  for (;;) {
    bool busy = false;
    std::size_t free = kTurnSlots;
    for (std::size_t i = 0; i < kTurnSlots; ++i) {
      const Stripe::Turn &t = s.turns[i];
      if (t.used && t.dev == dev && t.ino == ino) busy = true;
      if (!t.used && free == kTurnSlots) free = i;
    }
    if (!busy && free != kTurnSlots) {
      s.turns[free] = {dev, ino, true};
      slot_ = free;
      break;
    }
    // The turn ending now bumps turnsEnded under the mutex, so a bump
    // between the release and the wait ends the wait at once.
    const uint32_t seen = s.turnsEnded.load(std::memory_order_relaxed);
    ++s.turnWaiters;
    s.mutex.unlock();
    s.turnsEnded.wait(seen, std::memory_order_relaxed);
    s.mutex.lock();
    --s.turnWaiters;
  }
  s.mutex.unlock();
  lockOrderTaken(Rank::FileTable);
}

FileTurn::~FileTurn() {
  lockOrderGive(Rank::FileTable);
  Stripe &s = stripeOf(dev_, ino_);
  s.mutex.lock();
  s.turns[slot_].used = false;
  const bool waited = s.turnWaiters != 0;
  if (waited) s.turnsEnded.fetch_add(1, std::memory_order_relaxed);
  s.mutex.unlock();
  if (waited) s.turnsEnded.notify_all();  // the stripes are static: never freed
}

Identity recordFile(FileTurn &, FileLink &l, const struct stat &st) noexcept {
  StripeHold h(stripeOf(st.st_dev, st.st_ino));
  if (l.attached) return sameFile(l, st.st_dev, st.st_ino) ? Identity::Same : Identity::Other;
  l.dev = st.st_dev;
  l.ino = st.st_ino;
  l.known = true;
  attach(l);
  return Identity::Recorded;
}

bool isNodeFile(const FileLink &l, const struct stat &st) noexcept {
  return l.known && sameFile(l, st.st_dev, st.st_ino);
}

int setNeed(FileTurn &, FileLink &l, Need want, int fd, struct flock &req) noexcept {
  Need others = Need::None;
  {
    StripeHold h(l);
    others = othersNeed(l);
  }
  // The turn keeps every other node of the file from changing its need
  // until it ends: the decision stays true while F_SETLK goes out with no
  // mutex held.
  const Need before = l.need > others ? l.need : others;
  const Need after = want > others ? want : others;
  req.l_type = lockTypeOf(after);
  if (after != before && sendLock(fd, after, req) != 0) {
    const int err = errno;
    if (noRecordLocksHere(err)) {
      StripeHold h(l);
      l.need = want;
    }
    errno = err;
    return -1;
  }
  {
    StripeHold h(l);
    l.need = want;
  }
  if (after == Need::None) drain(l.dev, l.ino);
  return 0;
}

bool releaseNeed(FileTurn &, FileLink &l, int fd) noexcept {
  if (!l.attached) {
    l.need = Need::None;
    return true;
  }
  Need others = Need::None, before = Need::None;
  {
    StripeHold h(l);
    others = othersNeed(l);
    before = l.need > others ? l.need : others;
    l.need = Need::None;
  }
  if (others == Need::None) return true;
  if (before != others && fd >= 0) {
    // Down to what the others need. No other process can conflict with less
    // than the process holds, but the system may still refuse (ENOLCK,
    // EINTR, a network file system's error): the failure is ignored, and the
    // process keeps the stronger lock, which keeps others out longer than
    // needed but never lets one in.
    struct flock req {};
    (void)sendLock(fd, others, req);
  }
  return false;
}

void deferRecords(FileTurn &, FileLink &l, XVELMFileDescriptorp list) noexcept {
  StripeHold h(l);
  while (list != nullptr) {
    XVELMFileDescriptorp next = list->next;
    pushDescriptor(l.deferred, list);
    list = next;
  }
}

void closedAll(FileTurn &, FileLink &l) noexcept {
  if (!l.attached) return;
  bool none = false;
  {
    StripeHold h(l);
    none = fileNeed(l.dev, l.ino) == Need::None;
  }
  if (none) drain(l.dev, l.ino);
  StripeHold h(l);
  if (!hasOpenDeferred(l)) detach(l);
}

void closeStray(FileTurn &, int fd, const struct stat &st) noexcept {
  bool none = false;
  {
    StripeHold h(stripeOf(st.st_dev, st.st_ino));
    none = fileNeed(st.st_dev, st.st_ino) == Need::None;
  }
  if (none) (void)sys().close(fd);
}

bool forgetNode(NodeState *node) noexcept {
  FileLink &l = node->link;
  if (node->generation != forkGeneration()) return true;  // never in this process's table
  {
    // A dead node's link never joins the table again: once it has left
    // (its closes all made, the usual case), there is nothing to do, and
    // the file's turn, which a thread making a new node of the file may be
    // using, is not waited for.
    StripeHold h(l);
    if (!l.attached) return true;
  }
  FileTurn t(l);
  StripeHold h(l);
  if (!l.attached) return true;
  if (hasOpenDeferred(l)) {
    l.waiting = true;
    return false;
  }
  detach(l);
  return true;
}

namespace {

// Destroy of ext: one of its links leaves the table (the file's turn held).
// Every node of ext gives up its need on the file; the process's lock is
// sent down to what the other objects' nodes need, and the descriptors are
// closed where nothing needs a lock any more.
void forgetLink(const QMELMExtension *ext, FileLink &l) {
  auto ours = [ext](const FileLink *o) {
    return nodeOfLink(const_cast<FileLink *>(o))->owner == ext;
  };
  XVELMFileLock &f = nodeOfLink(&l)->pub;
  Need held = Need::None, others = Need::None;
  int anyFd = -1;
  {
    StripeHold h(l);
    for (FileLink *o = table[bucketOf(l.dev, l.ino)]; o != nullptr; o = o->next) {
      if (!sameFile(*o, l.dev, l.ino)) continue;
      if (o->need > held) held = o->need;
      if (!ours(o) && o->need > others) others = o->need;
      if (ours(o)) o->need = Need::None;
    }
    for (XVELMFileDescriptorp lists[] = {f.OpenFileDescriptorList, f.ClosedFileDescriptorList,
                                         l.deferred};
         XVELMFileDescriptorp d : lists)
      for (; d != nullptr && anyFd < 0; d = d->next) anyFd = d->fd;
  }
  if (held != others && anyFd >= 0) {
    struct flock req {};
    (void)sendLock(anyFd, others, req);
  }
  if (others == Need::None) {
    // The node's own lists are its alone (destroy runs with no other call
    // on ext); its deferred records are the table's.
    for (XVELMFileDescriptorp lists[] = {f.OpenFileDescriptorList, f.ClosedFileDescriptorList};
         XVELMFileDescriptorp d : lists)
      for (; d != nullptr; d = d->next)
        if (d->fd >= 0) (void)sys().close(std::exchange(d->fd, -1));
    drain(l.dev, l.ino);
  }
  StripeHold h(l);
  detach(l);
}

}  // namespace

void forgetExtension(const QMELMExtension *ext) noexcept {
  for (std::size_t b = 0; b < kBuckets; ++b) {
    for (;;) {
      FileLink *l = nullptr;
      {
        StripeHold h(stripeOf(b));
        for (FileLink *o = table[b]; o != nullptr && l == nullptr; o = o->next)
          if (nodeOfLink(o)->owner == ext) l = o;
      }
      if (l == nullptr) break;
      // The link stays where it is meanwhile: only ext's own calls move it,
      // and destroy runs alone.
      FileTurn t(*l);
      forgetLink(ext, *l);
    }
  }
}

// ---- fork ------------------------------------------------------------------------

void tablePrepareFork() noexcept {
  for (Stripe &s : stripes) s.mutex.lock();
}

void tableParentAfterFork() noexcept {
  for (std::size_t i = kStripes; i-- > 0;) stripes[i].mutex.unlock();
}

// The child holds no record lock (they are not inherited): its table starts
// empty, and nodes made before the fork belong to another generation. Turns
// that threads of the parent had under way are forgotten with their waiters.
// The stripes' mutexes were taken by the forking thread, the child's only
// thread: they start free.
void tableChildAfterFork() noexcept {
  for (FileLink *&b : table) b = nullptr;
  __atomic_store_n(&generation, generation + 1, __ATOMIC_RELEASE);
  for (std::size_t i = kStripes; i-- > 0;) {
    Stripe &s = stripes[i];
    for (Stripe::Turn &t : s.turns) t.used = false;
    s.turnWaiters = 0;
    s.mutex.reset();
  }
}

}  // namespace xvelm::detail
