/*
 * xvelmIdentity - the process-wide file table (see xvelmIdentity.h). Its
 * buckets are static and its links live in the nodes, so recording a file
 * allocates nothing and cannot fail. Takes the table's stripes (after
 * NodeMutex in the lock order); the fork unit takes them all around fork().
 */
#include "xvelmIdentity.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

#include "xvelmLock.h"

namespace xvelm::detail {
namespace {

constexpr std::size_t kBuckets = 16384;
// Threads on two files meet on one stripe with a chance of 1/kStripes. The
// fork handlers hold every stripe at once, and ThreadSanitizer follows at
// most 64 mutexes held by one thread: its builds use fewer.
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

pthread_mutex_t stripes[kStripes];
pthread_once_t stripesOnce = PTHREAD_ONCE_INIT;
FileLink *table[kBuckets];
uint32_t generation = 1;  // bumped in the child of a fork


std::size_t bucketOf(dev_t dev, ino_t ino) {
  uint64_t v = static_cast<uint64_t>(ino) * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(dev);
  v ^= v >> 29;
  return static_cast<std::size_t>(v % kBuckets);
}

pthread_mutex_t &stripeOf(std::size_t bucket) {
  return stripes[bucket % kStripes];
}

void initStripes() {
  for (pthread_mutex_t &m : stripes) pthread_mutex_init(&m, nullptr);
}

bool sameFile(const FileLink &l, dev_t dev, ino_t ino) {
  return l.dev == dev && l.ino == ino;
}

// The strongest need of the file's nodes, the given link left out.
Need othersNeed(const FileLink &self) {
  Need n = Need::None;
  for (const FileLink *l = table[bucketOf(self.dev, self.ino)]; l != nullptr; l = l->next)
    if (l != &self && sameFile(*l, self.dev, self.ino) && l->need > n) n = l->need;
  return n;
}

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

bool noRecordLocksHere(int err) {
  return err == EOPNOTSUPP || err == EROFS || err == EINVAL;
}

NodeState *nodeOfLink(FileLink *l) {
  return reinterpret_cast<NodeState *>(reinterpret_cast<char *>(l) - offsetof(NodeState, link));
}

void attach(FileLink &l) {
  FileLink *&head = table[bucketOf(l.dev, l.ino)];
  l.next = head;
  head = &l;
  l.attached = true;
}

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

bool hasOpenDeferred(const FileLink &l) {
  for (XVELMFileDescriptorp d = l.deferred; d != nullptr; d = d->next)
    if (d->fd >= 0) return true;
  return false;
}

// No node needs a lock on the file any more: the closes that waited for
// this are made, and nodes left waiting for them go back to their
// extensions to be destroyed.
void drain(dev_t dev, ino_t ino) {
  for (FileLink *l = table[bucketOf(dev, ino)]; l != nullptr; l = l->next) {
    if (!sameFile(*l, dev, ino)) continue;
    for (XVELMFileDescriptorp d = l->deferred; d != nullptr; d = d->next) {
      if (d->fd >= 0) (void)sys().close(d->fd);
      d->fd = -1;
    }
    if (l->waiting) {
      l->waiting = false;
      queueDeadNode(nodeOfLink(l));
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

uint32_t forkGeneration() noexcept {
  return __atomic_load_n(&generation, __ATOMIC_ACQUIRE);
}

TableLock::TableLock(dev_t dev, ino_t ino) noexcept {
  (void)pthread_once(&stripesOnce, initStripes);
  m_ = &stripeOf(bucketOf(dev, ino));
  lockOrderTake(Rank::FileTable);
  pthread_mutex_lock(m_);
  lockOrderTaken(Rank::FileTable);
}
TableLock::~TableLock() {
  lockOrderGive(Rank::FileTable);
  pthread_mutex_unlock(m_);
}

Identity recordFile(TableLock &, FileLink &l, const struct stat &st) noexcept {
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

int setNeed(TableLock &, FileLink &l, Need want, int fd, struct flock &req) noexcept {
  const Need others = othersNeed(l);
  const Need before = l.need > others ? l.need : others;
  const Need after = want > others ? want : others;
  req.l_type = lockTypeOf(after);
  if (after != before) {
    if (sendLock(fd, after, req) != 0) {
      const int err = errno;
      if (noRecordLocksHere(err)) l.need = want;
      errno = err;
      return -1;
    }
  }
  l.need = want;
  if (after == Need::None) drain(l.dev, l.ino);
  return 0;
}

bool releaseNeed(TableLock &, FileLink &l, int fd) noexcept {
  if (!l.attached) {
    l.need = Need::None;
    return true;
  }
  const Need others = othersNeed(l);
  const Need before = l.need > others ? l.need : others;
  l.need = Need::None;
  if (others == Need::None) return true;
  if (before != others && fd >= 0) {
    struct flock req {};
    (void)sendLock(fd, others, req);  // giving a lock down is never refused
  }
  return false;
}

void deferRecords(TableLock &, FileLink &l, XVELMFileDescriptorp list) noexcept {
  while (list != nullptr) {
    XVELMFileDescriptorp next = list->next;
    pushDescriptor(l.deferred, list);
    list = next;
  }
}

void closedAll(TableLock &, FileLink &l) noexcept {
  if (!l.attached) return;
  if (fileNeed(l.dev, l.ino) == Need::None) drain(l.dev, l.ino);
  if (!hasOpenDeferred(l)) detach(l);
}

void closeStray(TableLock &, int fd, const struct stat &st) noexcept {
  if (fileNeed(st.st_dev, st.st_ino) == Need::None) (void)sys().close(fd);
}

bool forgetNode(NodeState *node) noexcept {
  FileLink &l = node->link;
  if (node->generation != forkGeneration()) return true;  // never in this process's table
  TableLock t(l);
  if (!l.attached) return true;
  if (hasOpenDeferred(l)) {
    l.waiting = true;
    return false;
  }
  detach(l);
  return true;
}

void forgetExtension(const QMELMExtension *ext) noexcept {
  (void)pthread_once(&stripesOnce, initStripes);
  // First every node of ext gives up its need, remembering what the process
  // holds; then each file is sent down to what the other objects' nodes
  // need, and the descriptors are closed where nothing needs a lock.
  auto ours = [ext](const FileLink *l) {
    return nodeOfLink(const_cast<FileLink *>(l))->owner == ext;
  };
  for (std::size_t b = 0; b < kBuckets; ++b) {
    pthread_mutex_t &m = stripeOf(b);
    pthread_mutex_lock(&m);
    for (FileLink *l = table[b]; l != nullptr;) {
      FileLink *next = l->next;
      if (!ours(l)) {
        l = next;
        continue;
      }
      NodeState *node = nodeOfLink(l);
      XVELMFileLock &f = node->pub;
      // What the process holds on the file, and what the other objects need.
      Need held = Need::None, others = Need::None;
      for (const FileLink *o = table[b]; o != nullptr; o = o->next) {
        if (!sameFile(*o, l->dev, l->ino)) continue;
        if (o->need > held) held = o->need;
        if (!ours(o) && o->need > others) others = o->need;
      }
      int anyFd = -1;
      for (XVELMFileDescriptorp lists[] = {f.OpenFileDescriptorList, f.ClosedFileDescriptorList,
                                           l->deferred};
           XVELMFileDescriptorp d : lists)
        for (; d != nullptr && anyFd < 0; d = d->next) anyFd = d->fd;
      if (held != others && anyFd >= 0) {
        struct flock req {};
        (void)sendLock(anyFd, others, req);
      }
      for (FileLink *o = table[b]; o != nullptr; o = o->next)
        if (sameFile(*o, l->dev, l->ino) && ours(o)) o->need = Need::None;
      if (others == Need::None) {
        for (XVELMFileDescriptorp lists[] = {f.OpenFileDescriptorList, f.ClosedFileDescriptorList,
                                             l->deferred};
             XVELMFileDescriptorp d : lists)
          for (; d != nullptr; d = d->next)
            if (d->fd >= 0) (void)sys().close(d->fd), d->fd = -1;
        drain(l->dev, l->ino);
      }
      detach(*l);
      l = next;
    }
    pthread_mutex_unlock(&m);
  }
}

// ---- fork ------------------------------------------------------------------------

void tablePrepareFork() noexcept {
  (void)pthread_once(&stripesOnce, initStripes);
  for (pthread_mutex_t &m : stripes) pthread_mutex_lock(&m);
}

void tableParentAfterFork() noexcept {
  for (std::size_t i = kStripes; i-- > 0;) pthread_mutex_unlock(&stripes[i]);
}

// The child holds no record lock (they are not inherited): its table starts
// empty, and nodes made before the fork belong to another generation. The
// stripes were taken by the forking thread, the child's only thread, which
// gives them back.
void tableChildAfterFork() noexcept {
  for (FileLink *&b : table) b = nullptr;
  __atomic_store_n(&generation, generation + 1, __ATOMIC_RELEASE);
  for (std::size_t i = kStripes; i-- > 0;) pthread_mutex_unlock(&stripes[i]);
}

}  // namespace xvelm::detail
