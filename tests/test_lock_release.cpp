// Lock release and file close: the record lock downgraded or kept, the
// node's type, delete on close, dead nodes and their removal, and the
// messages of failing closes and unlinks.
#include <sys/stat.h>

#include <cerrno>

#include "host/xvelmSys.h"
#include "test_lock_support.h"

using namespace locktest;

TEST(LockRelease, RecordLockAndNodeTypeFollowTheRemainingHolders) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("down");
  LockRequest w(path), r(path), p(dir.file("mixed")), s(dir.file("mixed"));
  int rc = 0;
  QMELMLHndlp hw = host.lock(w, X | SH | EX, &rc), hr = host.lock(r, NX | SH | ENX, &rc);
  EXPECT_FALSE(otherProcessCanLock(path, F_RDLCK));
  EXPECT_EQ(host.release(hw), 0);  // the last exclusive holder leaves a shared one
  EXPECT_TRUE(otherProcessCanLock(path, F_RDLCK));
  EXPECT_FALSE(otherProcessCanLock(path, F_WRLCK));
  EXPECT_EQ(nodeOf(hr).CommonLock.LockType, w.parms.AcquiredLockType);  // the leaver's type

  // A file system without record locks: the downgrade succeeds all the same.
  hw = host.lock(w, X | SH | EX, &rc);
  SyscallScope seam;
  seam.table().fcntl = [](int fd, int cmd, void *arg) {
    return cmd == F_SETLK ? (errno = EINVAL, -1) : ::fcntl(fd, cmd, arg);
  };
  nodeOf(hr).FcntlLockSet = 0;
  EXPECT_EQ(host.release(hw), 0);
  EXPECT_TRUE(nodeOf(hr).FcntlLockSet);
  xvelm::detail::resetSyscalls();

  // The last non-shared non-exclusive holder leaves shared ones only.
  QMELMLHndlp hp = host.lock(p, NX | NOE, &rc), hs = host.lock(s, NX | SH | NOE, &rc);
  EXPECT_FALSE(nodeOf(hs).CommonLock.LockType & SH);
  EXPECT_EQ(host.release(hp), 0);
  EXPECT_TRUE(nodeOf(hs).CommonLock.LockType & SH);
  for (QMELMLHndlp h : {hs, hr}) EXPECT_EQ(host.release(h), 0);
  EXPECT_TRUE(otherProcessCanLock(path, F_WRLCK));
}

TEST(LockRelease, LastReleaseClosesDeletesAndKillsTheNode) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("gone");
  LockRequest a(path), b(path, O_RDONLY, QMELM_FLAG_DELETE_ON_CLOSE), other(dir.file("other"));
  int rc = 0;
  QMELMLHndlp ha = host.lock(a, NX | ENX, &rc), hb = host.lock(b, NX | ENX, &rc);
  const size_t mutexes = host.stats().mutexes;
  EXPECT_EQ(host.release(ha, nullptr), 0);  // no parameters: nothing written, file kept
  EXPECT_EQ(openDescriptorsOf(path), 2);    // parked: the record lock still holds
  EXPECT_EQ(host.release(hb, &b), 0);
  EXPECT_EQ(openDescriptorsOf(path), 0);
  struct stat st {};
  EXPECT_NE(stat(path.c_str(), &st), 0);
  EXPECT_TRUE(host.ext->LockList->DeadNode);  // left for the next walk

  host.clearJournal();
  EXPECT_STATUS(QMELM_E_DEAD_NODE, host.release(hb));
  EXPECT_CODES(host.lastCodes(), {QMELM_E_DEAD_NODE});
  EXPECT_STATUS(QMELM_E_NULL_HANDLE, host.release(nullptr));

  QMELMLHndlp ho = host.lock(other, NX | NOE, &rc);
  EXPECT_EQ(host.ext->LockList, ho->Private.ResLock);  // the dead node is gone
  EXPECT_EQ(host.ext->LockList->next, nullptr);
  EXPECT_EQ(host.stats().mutexes, mutexes);  // its two went, the new node's two came
  EXPECT_EQ(host.release(ho), 0);
}

TEST(LockRelease, FailingCloseAndUnlinkAreReported) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("stuck");
  LockRequest a(path, O_RDWR | O_CREAT, QMELM_FLAG_DELETE_ON_CLOSE);
  int rc = 0;
  QMELMLHndlp h = host.lock(a, NX | ENX, &rc);
  SyscallScope seam;
  seam.table().close = [](int fd) { return ::close(fd), errno = EIO, -1; };
  seam.table().unlink = [](const char *) { return errno = EACCES, -1; };
  host.clearJournal();
  EXPECT_STATUS(QMELM_E_UNLINK_FAILED, host.release(h, &a));
  auto e = host.entries();
  ASSERT_EQ(e.size(), 2u);
  EXPECT_CODES(e[0].codes, fileLockMessage(QMELM_E_CLOSE_FAILED));
  EXPECT_CODES(e[1].codes, {QMELM_E_UNLINK_FAILED, QMELM_M_INT_LOCK_CONFLICT, QMELM_M_TRAILER,
                            QMELM_M_TRAILER});
  EXPECT_NE(e[1].text.find(path), std::string::npos);
  EXPECT_EQ(openDescriptorsOf(path), 0);
}
