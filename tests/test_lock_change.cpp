// Lock change: the internal recount rules, the record-lock calls it makes
// (and does not make), refusals by another process that change nothing,
// option Continue, the descriptor switch, and bad requests.
#include <sys/stat.h>

#include <cerrno>

#include "host/xvelmSys.h"
#include "test_lock_support.h"

using namespace locktest;

namespace {

int fcntlSets = 0;
short lastType = -1;
std::string renameFrom, renameTo;

int realFcntl(int fd, int cmd, void *arg) {
  if (cmd == F_GETLK || cmd == F_SETLK || cmd == F_SETLKW) return ::fcntl(fd, cmd, arg);
  return ::fcntl(fd, cmd, static_cast<int>(reinterpret_cast<intptr_t>(arg)));
}

int countingFcntl(int fd, int cmd, void *arg) {
  if (cmd == F_SETLK) {
    ++fcntlSets;
    lastType = static_cast<struct flock *>(arg)->l_type;
  }
  return realFcntl(fd, cmd, arg);
}

QMMemSize internalOf(QMMemSize t) {
  return t & (X | NX | SH);
}

}  // namespace

TEST(LockChange, InternalRecountRules) {
  struct Case {
    QMMemSize from, to;  // internal parts of the changing handle
    QMMemSize other;     // internal type of another holder, or 0
    QMStatus status;
    std::vector<QMMemSize> after;  // X, S, U of the node
  };
  const Case cases[] = {
      {X, NX, 0, 0, {0, 1, 1}},
      {X, NX | SH, 0, 0, {0, 1, 0}},
      {X, X | SH, 0, 0, {1, 0, 0}},  // no rule applies: counters stay
      {X | SH, NX | SH, 0, 0, {0, 1, 0}},
      {X | SH, NX, 0, 0, {0, 1, 1}},
      {X | SH, X, 0, 0, {1, 0, 0}},
      {X | SH, X, NX | SH, QMELM_E_INT_SHARE_CONFLICT, {1, 1, 0}},
      {NX | SH, X | SH, 0, 0, {1, 0, 0}},
      {NX | SH, X | SH, NX, QMELM_E_INT_SHARE_CONFLICT, {0, 2, 1}},
      {NX | SH, X | SH, X | SH, QMELM_E_INT_LOCKED_EXCLUSIVE, {1, 1, 0}},
      {NX | SH, NX, 0, 0, {0, 1, 1}},
      {NX | SH, X, 0, 0, {1, 0, 0}},
      {NX | SH, X, NX, QMELM_E_INT_LOCKED_SHARED, {0, 2, 1}},
      {NX | SH, X, NX | SH, QMELM_E_INT_SHARE_CONFLICT, {0, 2, 0}},
      {NX | SH, X, X | SH, QMELM_E_INT_SHARE_CONFLICT, {1, 1, 0}},
      {NX, NX | SH, 0, 0, {0, 1, 0}},
      {NX, X | SH, 0, 0, {1, 0, 0}},
      {NX, X, 0, 0, {1, 0, 0}},
      {NX, X, NX, QMELM_E_INT_LOCKED_SHARED, {0, 2, 2}},
      {NX, X, NX | SH, QMELM_E_INT_SHARE_CONFLICT, {0, 2, 1}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(hex(c.from) + " -> " + hex(c.to) + " beside " + hex(c.other));
    TestHost host;
    TempDir dir;
    const std::string path = dir.file("f");
    LockRequest r(path), o(path);
    int rc = 0;
    QMELMLHndlp h = host.lock(r, c.from | NOE, &rc);
    ASSERT_NE(h, nullptr) << hex(rc);
    QMELMLHndlp other = c.other != 0 ? host.lock(o, c.other | NOE, &rc) : nullptr;
    if (c.other != 0) {
      ASSERT_NE(other, nullptr) << hex(rc);
    }
    host.clearJournal();
    EXPECT_STATUS(c.status, host.fn().LockChange(h, &r.parms, c.to, host.jnl));
    const auto k = counts(h);
    EXPECT_EQ((std::vector<QMMemSize>{k[0], k[1], k[2]}), c.after);
    if (c.status == 0) {
      EXPECT_EQ(internalOf(h->Private.LockType), c.to);
      EXPECT_EQ(r.parms.AcquiredLockType, h->Private.LockType);
    } else {
      EXPECT_EQ(internalOf(h->Private.LockType), c.from);
      EXPECT_EQ(r.parms.AcquiredLockType, 0u);
      EXPECT_CODES(host.lastCodes(), {c.status, QMELM_M_PATH, QMELM_M_TRAILER});
    }
    if (other != nullptr) {
      EXPECT_EQ(host.release(other), 0);
    }
    EXPECT_EQ(host.release(h), 0);
  }
}

TEST(LockChange, RecordLockCallsFollowTheExternalCounts) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f");
  LockRequest r(path);
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | EX, &rc);
  ASSERT_NE(h, nullptr);
  SyscallScope seam;
  seam.table().fcntl = countingFcntl;

  // Only the internal part: no record-lock call at all.
  EXPECT_EQ(host.fn().LockChange(h, &r.parms, X, nullptr), 0);
  EXPECT_EQ(fcntlSets, 0);
  // The only external exclusive holder goes non-exclusive: it is now a
  // non-exclusive holder itself, so the process keeps a read lock.
  EXPECT_EQ(host.fn().LockChange(h, &r.parms, ENX, nullptr), 0);
  EXPECT_EQ(fcntlSets, 1);
  EXPECT_EQ(lastType, F_RDLCK);
  EXPECT_TRUE(otherProcessCanLock(path, F_RDLCK));
  EXPECT_FALSE(otherProcessCanLock(path, F_WRLCK));
  // And back: a write lock.
  EXPECT_EQ(host.fn().LockChange(h, &r.parms, EX, nullptr), 0);
  EXPECT_EQ(fcntlSets, 2);
  EXPECT_EQ(lastType, F_WRLCK);
  EXPECT_FALSE(otherProcessCanLock(path, F_RDLCK));
  EXPECT_EQ(counts(h), (std::vector<QMMemSize>{1, 0, 0, 0, 1, 0, 0}));

  // A file replaced under the name between the descriptor switch and the
  // lock is refused with EAGAIN, and nothing is committed.
  EXPECT_EQ(host.fn().LockChange(h, &r.parms, ENX, nullptr), 0);
  const std::string repl = dir.file("repl");
  touch(repl);
  renameFrom = repl;
  renameTo = path;
  seam.table().fcntl = [](int fd, int cmd, void *arg) {
    if (cmd == F_SETLK) (void)rename(renameFrom.c_str(), renameTo.c_str());
    return countingFcntl(fd, cmd, arg);
  };
  const QMMemSize before = h->Private.LockType;
  EXPECT_STATUS(QMELM_E_EXT_LOCK_FAILED, host.fn().LockChange(h, &r.parms, EX, host.jnl));
  EXPECT_EQ(r.parms.Errno, EAGAIN);
  EXPECT_EQ(h->Private.LockType, before);
  EXPECT_EQ(counts(h), (std::vector<QMMemSize>{1, 0, 0, 0, 0, 1, 0}));
  xvelm::detail::resetSyscalls();
  EXPECT_EQ(host.release(h), 0);
}

TEST(LockChange, ARefusalByAnotherProcessChangesNothingButContinueCommits) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f");
  touch(path);
  LockRequest r(path, O_RDWR);
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | ENX | QMELM_OPT_FAIL, &rc);
  ASSERT_NE(h, nullptr);
  {
    Holder reader(path, NX | ENX);  // this library in another process: a read lock
    ASSERT_EQ(reader.line, "locked");
    const auto before = counts(h);
    const QMMemSize type = h->Private.LockType;
    const int fd = fileOf(h).FileDescriptor;
    host.clearJournal();
    EXPECT_STATUS(QMELM_E_EXT_LOCKED_SHARED, host.fn().LockChange(h, &r.parms, EX, host.jnl));
    EXPECT_EQ(r.parms.LockerPID, reader.pid);
    EXPECT_EQ(r.parms.AcquiredLockType, 0u);
    EXPECT_EQ(counts(h), before);
    EXPECT_EQ(h->Private.LockType, type);
    EXPECT_EQ(fileOf(h).FileDescriptor, fd);
    EXPECT_CODES(host.lastCodes(), fileLockMessage(QMELM_E_EXT_LOCKED_SHARED));
  }
  EXPECT_EQ(host.release(h), 0);

  // Option Continue: a refusal whose holder cannot be told (here F_GETLK
  // fails) commits as if the lock had been obtained.
  h = host.lock(r, NX | ENX | QMELM_OPT_CONTINUE, &rc);
  ASSERT_NE(h, nullptr);
  SyscallScope seam;
  seam.table().fcntl = [](int fd, int cmd, void *arg) {
    if (cmd == F_SETLK && static_cast<struct flock *>(arg)->l_type == F_WRLCK)
      return errno = EAGAIN, -1;
    if (cmd == F_GETLK) return errno = EIO, -1;
    return realFcntl(fd, cmd, arg);
  };
  host.clearJournal();
  EXPECT_EQ(host.fn().LockChange(h, &r.parms, EX, host.jnl), 0);
  EXPECT_TRUE(h->Private.LockType & EX);
  EXPECT_EQ(counts(h)[4], 1u);
  EXPECT_EQ(host.entryCount(), 0u);
  xvelm::detail::resetSyscalls();
  EXPECT_EQ(host.release(h), 0);
}

TEST(LockChange, AnotherAccessModeTakesANewOrParkedDescriptor) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f");
  touch(path);
  LockRequest r(path, O_RDWR | O_CREAT), ro(path, O_RDONLY);
  int rc = 0;
  QMELMLHndlp h = host.lock(ro, NX | ENX, &rc);
  ASSERT_NE(h, nullptr);
  const int readFd = fileOf(h).FileDescriptor;
  EXPECT_EQ(host.fn().LockChange(h, &r.parms, NX, nullptr), 0);  // to read-write: a new open
  const int writeFd = fileOf(h).FileDescriptor;
  EXPECT_NE(writeFd, readFd);
  EXPECT_EQ(fcntl(writeFd, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(openDescriptorsOf(path), 2);                          // the old one parked
  EXPECT_EQ(host.fn().LockChange(h, &ro.parms, NX, nullptr), 0);  // back: the parked one
  EXPECT_EQ(fileOf(h).FileDescriptor, readFd);
  EXPECT_EQ(openDescriptorsOf(path), 2);
  EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(openDescriptorsOf(path), 0);

  // An open that fails changes nothing; EEXIST is no recognised cause here.
  h = host.lock(ro, NX | ENX, &rc);
  LockRequest excl(path, O_RDWR | O_CREAT | O_EXCL);
  EXPECT_STATUS(QMELM_E_OPEN_FAILED, host.fn().LockChange(h, &excl.parms, NX, nullptr));
  EXPECT_EQ(excl.parms.Errno, EEXIST);
  EXPECT_EQ(fileOf(h).FileDescriptor, readFd);
  EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(openDescriptorsOf(path), 0);
}

TEST(LockChange, BadRequestsChangeNothing) {
  TestHost host;
  TempDir dir;
  LockRequest r(dir.file("f")), n(dir.file("noext"));
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | ENX, &rc), hn = host.lock(n, NX | NOE, &rc);
  ASSERT_NE(h, nullptr);
  const auto before = counts(h);
  const size_t blocks = host.liveBlocks();
  EXPECT_STATUS(QMELM_E_NULL_HANDLE, host.fn().LockChange(nullptr, &r.parms, X, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().LockChange(h, nullptr, X, host.jnl));
  host.clearJournal();
  EXPECT_STATUS(QMELM_E_INVALID_LOCKTYPE, host.fn().LockChange(h, &r.parms, X | NX, host.jnl));
  EXPECT_CODES(host.lastCodes(), {QMELM_E_INVALID_LOCKTYPE, QMELM_M_LOCKTYPE_IS});
  for (QMMemSize w : {EX | ENX, SH, QMELM_NOINTERNAL_LOCK | X, QMELM_OPT_CONTINUE | X})
    EXPECT_NE(host.fn().LockChange(h, &r.parms, w, host.jnl), 0) << hex(w);
  EXPECT_STATUS(QMELM_E_CHANGE_NOT_ALLOWED, host.fn().LockChange(hn, &n.parms, EX, host.jnl));
  EXPECT_CODES(host.lastCodes(), {QMELM_E_CHANGE_NOT_ALLOWED, QMELM_M_LOCKTYPE_CHANGE});
  EXPECT_EQ(counts(h), before);
  EXPECT_EQ(host.liveBlocks(), blocks);
  EXPECT_EQ(host.release(h), 0);
  EXPECT_STATUS(QMELM_E_DEAD_NODE, host.fn().LockChange(h, &r.parms, X, host.jnl));  // released
  EXPECT_EQ(host.release(hn), 0);
}

TEST(LockChange, FailedAllocationsAndOverlongMessagesLeaveEverythingAsItWas) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f");
  touch(path);
  LockRequest ro(path, O_RDONLY), rw(path, O_RDWR);
  int rc = 0;
  QMELMLHndlp h = host.lock(ro, NX | ENX, &rc);
  ASSERT_NE(h, nullptr);
  const auto before = counts(h);
  const QMMemSize type = h->Private.LockType;
  const int fd = fileOf(h).FileDescriptor;
  const size_t blocks = host.liveBlocks();
  // The access-mode switch needs a descriptor record: its allocation fails.
  host.failNth(QMHOST_FAIL_ALLOC, 1);
  EXPECT_STATUS(QMELM_E_NO_MEMORY, host.fn().LockChange(h, &rw.parms, EX, host.jnl));
  host.failNth(QMHOST_FAIL_ALLOC, 0);
  EXPECT_EQ(counts(h), before);
  EXPECT_EQ(h->Private.LockType, type);
  EXPECT_EQ(fileOf(h).FileDescriptor, fd);
  EXPECT_EQ(host.liveBlocks(), blocks);
  EXPECT_EQ(openDescriptorsOf(path), 1);
  EXPECT_EQ(host.release(h), 0);

  // An internal conflict on a name too long for the conflict message's
  // buffer: the message is given up, the status stands, nothing is written
  // past the buffer (the sanitizer builds would see it).
  std::string deep = dir.path();
  for (int i = 0; i < 4; ++i) {
    deep += "/" + std::string(200, static_cast<char>('a' + i));
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
  }
  LockRequest a(deep + "/f"), b(deep + "/f");
  QMELMLHndlp ha = host.lock(a, NX | NOE, &rc), hb = host.lock(b, NX | NOE, &rc);
  ASSERT_NE(hb, nullptr);
  host.clearJournal();
  EXPECT_STATUS(QMELM_E_INT_LOCKED_SHARED, host.fn().LockChange(ha, &a.parms, X, host.jnl));
  EXPECT_EQ(host.entryCount(), 0u);
  for (QMELMLHndlp x : {ha, hb}) EXPECT_EQ(host.release(x), 0);
}
