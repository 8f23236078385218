// One record lock per file and process, whatever the names: two names of one
// file, files replaced or deleted under a name, delete on close, fork,
// destroy with live handles, NUL in names, FIFOs, and a stress of threads
// over files reached under two names, each checked by another process.
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "qmp.h"
#include "test_lock_support.h"

using namespace locktest;

namespace {

// What another process may take on path now: 2 a write lock, 1 only a read
// lock, 0 nothing.
int freedom(const std::string &path) {
  if (otherProcessCanLock(path, F_WRLCK)) return 2;
  return otherProcessCanLock(path, F_RDLCK) ? 1 : 0;
}

// The freedom another process must see while holders of these types hold.
int expectedFreedom(std::initializer_list<QMMemSize> held) {
  int f = 2;
  for (QMMemSize t : held) {
    if (t & EX) f = 0;
    if ((t & ENX) && f > 1) f = 1;
  }
  return f;
}

// A second name for path: a symbolic link, a hard link, "dir/./name" or a
// name relative to the current directory (which the test moves into dir).
std::string secondName(const TempDir &dir, const std::string &path, int kind) {
  switch (kind) {
    case 0:
      EXPECT_EQ(symlink(path.c_str(), dir.file("sym").c_str()), 0);
      return dir.file("sym");
    case 1:
      EXPECT_EQ(link(path.c_str(), dir.file("hard").c_str()), 0);
      return dir.file("hard");
    case 2:
      return dir.path() + "/./" + path.substr(dir.path().size() + 1);
    default:
      return path.substr(dir.path().size() + 1);
  }
}

class CwdScope {
 public:
  explicit CwdScope(const std::string &to) {
    if (getcwd(old_, sizeof old_) == nullptr) old_[0] = 0;
    EXPECT_EQ(chdir(to.c_str()), 0);
  }
  ~CwdScope() {
    if (old_[0] != 0) (void)!chdir(old_);
  }

 private:
  char old_[4096];
};

}  // namespace

TEST(FileIdentity, TwoNamesOfOneFileKeepTheStrongerLockInEitherReleaseOrder) {
  const QMMemSize types[] = {NX | EX, NX | ENX, NX | NOE};
  for (int kind = 0; kind < 4; ++kind) {
    for (QMMemSize a : types) {
      for (QMMemSize b : types) {
        for (bool firstGoesFirst : {true, false}) {
          SCOPED_TRACE("name kind " + std::to_string(kind) + ", types " + hex(a) + " " + hex(b) +
                       (firstGoesFirst ? ", first released first" : ", second released first"));
          TestHost host;
          TempDir dir;
          CwdScope cwd(dir.path());
          const std::string path = dir.file("f");
          touch(path);
          const std::string other = secondName(dir, path, kind);
          LockRequest ra(path), rb(other);
          int rc = 0;
          QMELMLHndlp ha = host.lock(ra, a, &rc);
          ASSERT_NE(ha, nullptr) << hex(rc);
          QMELMLHndlp hb = host.lock(rb, b, &rc);
          ASSERT_NE(hb, nullptr) << hex(rc);
          EXPECT_NE(ha->Private.ResLock, hb->Private.ResLock);  // two names, two nodes
          EXPECT_EQ(freedom(path), expectedFreedom({a, b}));
          if (firstGoesFirst) std::swap(ha, hb), std::swap(a, b);
          EXPECT_EQ(host.release(hb), 0);
          EXPECT_EQ(freedom(path), expectedFreedom({a}));
          EXPECT_EQ(host.release(ha), 0);
          EXPECT_EQ(freedom(path), 2);
          EXPECT_EQ(openDescriptorsOf(path), 0);
        }
      }
    }
  }
}

TEST(FileIdentity, AJoinerAfterARenameOrAnUnlinkIsRefused) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f"), keep = dir.file("keep"), repl = dir.file("repl");
  LockRequest first(path);
  int rc = 0;
  QMELMLHndlp h = host.lock(first, NX | EX, &rc);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(link(path.c_str(), keep.c_str()), 0);  // the locked file under another name

  // Renamed over: the name leads to another file, which nobody holds.
  touch(repl);
  ASSERT_EQ(rename(repl.c_str(), path.c_str()), 0);
  LockRequest joiner(path, O_RDWR);
  host.clearJournal();
  EXPECT_EQ(host.lock(joiner, NX | ENX, &rc), nullptr);
  EXPECT_STATUS(QMELM_E_EXT_LOCK_FAILED, rc);
  EXPECT_EQ(joiner.parms.Errno, EAGAIN);
  ASSERT_GE(host.entryCount(), 1u);
  EXPECT_CODES(host.entries().front().codes, fileLockMessage(QMELM_E_LOCKGET_SETUP));
  EXPECT_EQ(freedom(path), 2);            // the replacement was not locked, nor left open:
  EXPECT_EQ(openDescriptorsOf(path), 1);  // only the holder's, of the file renamed over
  EXPECT_EQ(freedom(keep), 0);            // the locked file still is

  // Unlinked: a joiner that creates the name anew is refused too.
  ASSERT_EQ(unlink(path.c_str()), 0);
  LockRequest creator(path, O_RDWR | O_CREAT);
  EXPECT_EQ(host.lock(creator, NX | NOE, &rc), nullptr);
  EXPECT_STATUS(QMELM_E_EXT_LOCK_FAILED, rc);
  EXPECT_EQ(freedom(keep), 0);
  EXPECT_EQ(counts(h), (std::vector<QMMemSize>{0, 1, 1, 0, 1, 0, 0}));
  EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(freedom(keep), 2);
}

TEST(FileIdentity, DeleteOnCloseSparesAFileThatReplacedTheLockedOne) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f"), repl = dir.file("repl");
  LockRequest r(path, O_RDWR | O_CREAT, QMELM_FLAG_DELETE_ON_CLOSE);
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | EX, &rc);
  ASSERT_NE(h, nullptr);
  touch(repl);
  ASSERT_EQ(rename(repl.c_str(), path.c_str()), 0);
  std::optional<Holder> other(std::in_place, path);  // another process holds the replacement
  ASSERT_EQ(other->line, "locked");
  host.clearJournal();
  EXPECT_STATUS(QMELM_E_UNLINK_FAILED, host.release(h, &r, host.jnl));
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0);  // still there
  EXPECT_CODES(host.lastCodes(), {QMELM_E_UNLINK_FAILED, QMELM_M_INT_LOCK_CONFLICT, QMELM_M_TRAILER,
                                  QMELM_M_TRAILER});

  // While the name still names the locked file, it is deleted.
  LockRequest again(path, O_RDWR, QMELM_FLAG_DELETE_ON_CLOSE);
  other.reset();
  h = host.lock(again, NX | EX, &rc);
  ASSERT_NE(h, nullptr) << hex(rc);
  EXPECT_EQ(host.release(h, &again), 0);
  EXPECT_NE(stat(path.c_str(), &st), 0);
}

TEST(FileIdentity, AForkedChildHoldsNothingItsParentHolds) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f"), busy = dir.file("busy");
  LockRequest r(path);
  int rc = 0;
  QMELMLHndlp inherited = host.lock(r, NX | EX, &rc);
  ASSERT_NE(inherited, nullptr);

  // Another thread keeps locking and releasing while the process forks, so
  // that mutexes are held at fork time.
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    LockRequest b(busy);
    int brc = 0;
    while (!stop.load()) {
      if (QMELMLHndlp hb = host.lock(b, NX | ENX, &brc)) host.release(hb);
    }
  });
  for (int round = 0; round < 20; ++round) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
      alarm(10);  // a deadlock in the child ends it with SIGALRM
      int code = 0;
      LockRequest c(path);
      int crc = 0;
      // Without an internal lock: before, the child's copy believed it held
      // the parent's lock and granted this without any record lock.
      QMELMLHndlp h = host.lock(c, NOI | EX, &crc);
      if (h != nullptr || crc != static_cast<int>(QMELM_E_EXT_LOCKED_EXCLUSIVE)) code |= 1;
      if (c.parms.LockerPID != parent) code |= 2;
      if (host.release(inherited) != static_cast<int>(QMELM_E_FORKED_HANDLE)) code |= 4;
      LockRequest d(dir.file("child-own"));
      QMELMLHndlp own = host.lock(d, NX | EX, &crc);
      if (own == nullptr || host.release(own) != 0) code |= 8;
      _exit(code);
    }
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    ASSERT_TRUE(WIFEXITED(st)) << "child died of signal " << WTERMSIG(st);
    EXPECT_EQ(WEXITSTATUS(st), 0);
  }
  stop = true;
  churn.join();
  EXPECT_EQ(freedom(path), 0);  // the parent is unaffected
  EXPECT_EQ(host.release(inherited), 0);
  EXPECT_EQ(freedom(path), 2);
}

TEST(FileIdentity, DestroyClosesLiveNodesAndForgetsTheirHandles) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f");
  LockRequest r(path), s(path);
  int rc = 0;
  QMELMLHndlp h1 = host.lock(r, NX | EX, &rc);
  QMELMLHndlp h2 = host.lock(s, NX | EX, &rc);
  ASSERT_NE(h1, nullptr);
  ASSERT_NE(h2, nullptr);
  const auto release = host.fn().LockRelease;  // the entry outlives the object
  host.unload();
  EXPECT_EQ(openDescriptorsOf(path), 0);
  EXPECT_EQ(freedom(path), 2);

  // The old handles answer DEAD_NODE, and a later instance's holder keeps
  // its lock (before, its release dropped a leftover lock of the first).
  EXPECT_STATUS(QMELM_E_DEAD_NODE, release(h1, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_DEAD_NODE, release(h2, nullptr, nullptr));
  ASSERT_NE(host.ext = host.load(host.jnl), nullptr);
  QMELMLHndlp h3 = host.lock(r, NX | EX, &rc), h4 = host.lock(s, NX | EX, &rc);
  ASSERT_NE(h3, nullptr);
  ASSERT_NE(h4, nullptr);
  EXPECT_EQ(host.release(h4), 0);
  EXPECT_EQ(freedom(path), 0);
  EXPECT_EQ(host.release(h3), 0);
  EXPECT_EQ(freedom(path), 2);
}

TEST(FileIdentity, NamesWithNulAndFifosNeverOpenWhatTheyShouldNot) {
  TestHost host;
  TempDir dir;
  const std::string victim = dir.file("victim");
  touch(victim);
  LockRequest r(victim + "?/../other", O_RDWR | O_CREAT, QMELM_FLAG_DELETE_ON_CLOSE);
  r.name[victim.size()] = 0;  // "victim<NUL>/../other"
  const size_t blocks = host.liveBlocks();
  int rc = 0;
  EXPECT_EQ(host.lock(r, NX | EX, &rc), nullptr);
  EXPECT_STATUS(QMELM_E_NAME_HAS_NUL, rc);
  EXPECT_EQ(host.lastCodes().front(), QMELM_E_NAME_HAS_NUL);
  EXPECT_EQ(host.liveBlocks(), blocks);
  struct stat st {};
  EXPECT_EQ(stat(victim.c_str(), &st), 0);
  EXPECT_EQ(openDescriptorsOf(victim), 0);

  // A FIFO without a writer: the request answers at once, every time.
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  for (uint32_t flags : {O_RDONLY, O_RDONLY, O_WRONLY}) {
    LockRequest f(fifo, flags);
    const auto t0 = std::chrono::steady_clock::now();
    QMELMLHndlp h = host.lock(f, NX | NOE, &rc);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
    if (flags == O_WRONLY) {
      EXPECT_EQ(h, nullptr);  // no reader: ENXIO at once
      EXPECT_EQ(f.parms.Errno, ENXIO);
    } else {
      ASSERT_NE(h, nullptr) << hex(rc);
      // The caller asked for a blocking descriptor and gets one.
      EXPECT_EQ(fcntl(fileOf(h).FileDescriptor, F_GETFL) & O_NONBLOCK, 0);
      EXPECT_EQ(host.release(h), 0);
    }
  }
}

TEST(FileIdentity, RefusedHostMutexesAndMissingHostMembersNeverRunUnlocked) {
  TestHost host;
  TempDir dir;
  LockRequest r(dir.file("f"));
  int rc = 0;
  // The host refuses a thread that already holds the mutex: the request
  // must fail with that status rather than walk the list unlocked.
  ASSERT_EQ(host.ext->ListMutex->get(host.ext->ListMutex, 1, 1), 0);
  const size_t blocks = host.liveBlocks();
  EXPECT_EQ(host.lock(r, NX | EX, &rc), nullptr);
  EXPECT_STATUS(QM_E_BUSY, rc);
  EXPECT_EQ(host.liveBlocks(), blocks);
  ASSERT_EQ(host.ext->OptionMutex->get(host.ext->OptionMutex, 1, 1), 0);
  EXPECT_STATUS(QM_E_BUSY, host.setOption("/x", QMELM_None));
  EXPECT_EQ(host.ext->OptionMutex->release(host.ext->OptionMutex), 0);
  EXPECT_EQ(host.ext->ListMutex->release(host.ext->ListMutex), 0);

  // A host table without lastStatus: a failed mutex creation is still a
  // clear status.
  auto saved = host.hndl->lastStatus;
  host.hndl->lastStatus = nullptr;
  host.failNth(QMHOST_FAIL_LOCK_CREATE, 1);
  EXPECT_EQ(host.lock(r, NX | EX, &rc), nullptr);
  EXPECT_STATUS(QMELM_E_NO_MEMORY, rc);
  host.failNth(QMHOST_FAIL_LOCK_CREATE, 0);
  // qmioe, loaded by a new lock manager, fails to make its pool on the same
  // table: the load fails cleanly instead of calling through a null member.
  host.failNth(QMHOST_FAIL_POOL_CREATE, 2);
  EXPECT_EQ(host.load(nullptr), nullptr);
  host.failNth(QMHOST_FAIL_POOL_CREATE, 0);
  host.hndl->lastStatus = saved;

  // Null parameter blocks and status pointers.
  EXPECT_EQ(host.fn().LockGet(host.ext, nullptr, QMELM_RESOURCE_FILE, NX | EX, host.jnl, &rc),
            nullptr);
  EXPECT_STATUS(QMELM_E_NULL_PARMS, rc);
  EXPECT_EQ(host.fn().LockGet(host.ext, r.get(), QMELM_RESOURCE_FILE, NX | EX, host.jnl, nullptr),
            nullptr);
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().SetLockOption(host.ext, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().GetLockOptions(host.ext, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().MatchOption(host.ext, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().ReleaseMatch(host.ext, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_NO_OPTIONS, host.fn().ReleaseLockOptions(host.ext, nullptr, host.jnl));
  EXPECT_EQ(host.liveBlocks(), blocks);

  // Descriptors are opened with close-on-exec by open itself.
  {
    SyscallScope seam;
    static int flagsSeen = 0;
    seam.table().open = [](const char *p, int f, mode_t m) {
      return flagsSeen = f, ::open(p, f, m);
    };
    QMELMLHndlp h = host.lock(r, NX | EX, &rc);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(flagsSeen & O_CLOEXEC);
    EXPECT_EQ(host.release(h), 0);
  }
}

TEST(FileIdentity, TheClockNeverFollowsAHostThatIsGone) {
  double now = 0.0;
  {
    TestHost host;
    now = qmzdttme();
    EXPECT_GT(now, 1e9);
  }
  EXPECT_EQ(qmzdttme(), 0.0);  // its host was destroyed: nothing is followed
}

TEST(FileIdentity, ThreadsOverFilesWithTwoNamesNeverLoseTheProcessLock) {
  TestHost host;
  TempDir dir;
  constexpr int kFiles = 3;
  std::vector<std::string> names;
  for (char f = '0'; f < '0' + kFiles; ++f) {
    const std::string p = dir.file(std::string{'f', f}), l = dir.file(std::string{'l', f});
    touch(p);
    ASSERT_EQ(symlink(p.c_str(), l.c_str()), 0);
    names.push_back(p);
    names.push_back(l);
  }
  // The witness: another process that answers, for a file index, whether it
  // could take a write lock on that file now (and gives it straight back).
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  const pid_t witness = fork();
  if (witness == 0) {
    close(sv[0]);
    char i;
    while (read(sv[1], &i, 1) == 1) {
      const int fd = open(names[2 * i].c_str(), O_RDWR);
      struct flock fl {};
      fl.l_type = F_WRLCK;
      char got = fcntl(fd, F_SETLK, &fl) == 0 ? 'y' : 'n';
      close(fd);  // drops it again
      (void)!write(sv[1], &got, 1);
    }
    _exit(0);
  }
  close(sv[1]);
  std::mutex ask;
  auto otherCanWrite = [&](int file) {
    std::lock_guard<std::mutex> g(ask);
    char i = static_cast<char>(file), got = '?';
    EXPECT_EQ(write(sv[0], &i, 1), 1);
    EXPECT_EQ(read(sv[0], &got, 1), 1);
    return got == 'y';
  };

  std::atomic<int> lost{0}, granted{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      const QMMemSize types[] = {NX | EX, NX | ENX, NX | NOE, NOI | ENX, X | EX};
      for (int i = 0; i < 150; ++i) {
        const int n = static_cast<int>(rng() % names.size());
        const QMMemSize type = types[rng() % 5];
        LockRequest r(names[n], O_RDWR);
        int rc = 0;
        QMELMLHndlp h = host.lock(r, type, &rc);
        if (h == nullptr) continue;
        ++granted;
        if ((type & (EX | ENX)) && otherCanWrite(n / 2)) ++lost;
        EXPECT_EQ(host.release(h), 0);
      }
    });
  }
  for (auto &th : threads) th.join();
  close(sv[0]);
  waitpid(witness, nullptr, 0);
  EXPECT_GT(granted.load(), 0);
  EXPECT_EQ(lost.load(), 0);
  for (const std::string &p : names) EXPECT_EQ(openDescriptorsOf(p), 0);
}
