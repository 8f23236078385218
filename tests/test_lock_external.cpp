// External locks between processes (children holding record locks through
// this library and through an independent client) and the reuse of parked
// descriptors.
#include "test_lock_support.h"

using namespace locktest;

namespace {

// An exclusive and a non-exclusive request against another process's lock:
// refused with the status given (0: granted), naming that process, the node's
// counters as they were, and every descriptor closed after the last release.
void contend(TestHost &host, const std::string &path, pid_t holder, QMStatus excl,
             QMStatus nonexcl) {
  LockRequest keep(path, O_RDWR);
  int rc = 0;
  QMELMLHndlp anchor = host.lock(keep, NOI | NOE, &rc);  // keeps the node between the attempts
  const auto before = counts(anchor);
  for (auto [type, expect] : {std::pair{X | EX, excl}, std::pair{NX | ENX, nonexcl}}) {
    LockRequest r(path, O_RDWR);
    host.clearJournal();
    QMELMLHndlp h = host.lock(r, type, &rc);
    EXPECT_STATUS(expect, rc);
    if (h != nullptr) {
      EXPECT_EQ(host.release(h), 0);
      continue;
    }
    EXPECT_EQ(r.parms.LockerPID, holder);
    EXPECT_EQ(r.parms.SystemID, 0);
    EXPECT_EQ(r.parms.Errno, EAGAIN);
    EXPECT_EQ(r.parms.AcquiredLockType, 0u);
    EXPECT_EQ(counts(anchor), before);
    EXPECT_CODES(host.lastCodes(), fileLockMessage(expect));
  }
  EXPECT_EQ(host.release(anchor), 0);
  EXPECT_EQ(openDescriptorsOf(path), 0);
}

int opens = 0;

}  // namespace

TEST(LockExternal, OtherProcessesRefuseAndNameThemselves) {
  TempDir dir;
  const std::string path = dir.file("shared.dat");
  close(open(path.c_str(), O_RDWR | O_CREAT, 0644));
  TestHost host;
  {
    Holder writer(path, X | EX);
    ASSERT_EQ(writer.line, "locked");
    contend(host, path, writer.pid, QMELM_E_EXT_LOCKED_EXCLUSIVE, QMELM_E_EXT_LOCKED_EXCLUSIVE);
  }
  {
    Holder reader(path, NX | ENX);
    ASSERT_EQ(reader.line, "locked");
    contend(host, path, reader.pid, QMELM_E_EXT_LOCKED_SHARED, 0);
  }
  {
    Holder python(path);
    ASSERT_EQ(python.line, "locked");
    contend(host, path, python.pid, QMELM_E_EXT_LOCKED_EXCLUSIVE, QMELM_E_EXT_LOCKED_EXCLUSIVE);
  }
  // Every holder is gone: granted, and seen by other processes.
  LockRequest r(path, O_RDWR);
  int rc = 0;
  QMELMLHndlp h = host.lock(r, X | EX, &rc);
  EXPECT_FALSE(otherProcessCanLock(path, F_RDLCK));
  EXPECT_EQ(host.release(h), 0);
  EXPECT_TRUE(otherProcessCanLock(path, F_WRLCK));
}

TEST(LockExternal, ParkedDescriptorsAreReusedByExactFlags) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  SyscallScope seam;
  seam.table().open = [](const char *p, int f, mode_t m) { return ++opens, ::open(p, f, m); };
  const std::string path = dir.file("reuse");
  LockRequest keep(path), a(path), b(path, O_RDWR | O_CREAT, 0, 0600), c(path, O_RDONLY),
      d(path, O_RDWR | O_CREAT | O_APPEND);
  int rc = 0;
  QMELMLHndlp anchor = host.lock(keep, NOI | NOE, &rc), ha = host.lock(a, NX | ENX, &rc);
  const int fd = fileOf(ha).FileDescriptor;
  ASSERT_EQ(write(fd, "hello", 5), 5);
  EXPECT_EQ(host.release(ha), 0);
  EXPECT_EQ(opens, 2);
  EXPECT_GT(host.ext->IOInfo->openTime, 0.0);

  // Same flags, another creation mode: the parked descriptor, rewound.
  QMELMLHndlp hb = host.lock(b, NX | ENX, &rc);
  EXPECT_EQ(opens, 2);
  EXPECT_EQ(fileOf(hb).FileDescriptor, fd);
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0);
  EXPECT_EQ(host.ext->IOInfo->openTime, 0.0);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);

  // Other flags: fresh opens. A create counts the file as new, even one
  // that exists and is not truncated.
  QMELMLHndlp hc = host.lock(c, NX | ENX, &rc), hd = host.lock(d, NX | ENX, &rc);
  EXPECT_EQ(opens, 4);
  EXPECT_NE(fileOf(hc).FileDescriptor, fd);
  EXPECT_EQ(fileOf(hc).FileSize, 5);
  EXPECT_EQ(fileOf(hd).FileSize, 0);
  EXPECT_EQ(host.ext->numIOInfo, 5u);
  for (QMELMLHndlp h : {hb, hc, hd, anchor}) EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(openDescriptorsOf(path), 0);
}
