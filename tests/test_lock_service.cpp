// A lock service that fails (a network file system's server out of lock
// records, not answering, or cut off): the request is refused with the usual
// status and message pieces, the message says what the errno means, and
// nothing is left held or open.
#include <string>

#include "test_lock_support.h"

using namespace locktest;

namespace {

int setlkErrno = 0;

int failingSetlk(int fd, int cmd, void *arg) {
  if (cmd == F_SETLK) return errno = setlkErrno, -1;
  return ::fcntl(fd, cmd, arg);
}

struct Case {
  int err;
  const char *says;
};
constexpr Case kCases[] = {
    {ENOLCK, "no lock records left"},     {ETIMEDOUT, "did not answer in time"}, {EIO, "I/O error"},
    {ECONNRESET, "could not be reached"}, {EBADFD, "could not be reached"},
};

// An exclusive acquisition of path while F_SETLK fails with setlkErrno:
// refused with the usual status, the errno passed on.
void expectRefusedAcquisition(TestHost &host, const std::string &path) {
  SyscallScope seam;
  seam.table().fcntl = failingSetlk;
  LockRequest r(path);
  int rc = 0;
  EXPECT_EQ(host.lock(r, X | EX, &rc), nullptr);
  EXPECT_STATUS(QMELM_E_EXT_LOCK_FAILED, rc);
  EXPECT_EQ(r.parms.Errno, setlkErrno);
}

}  // namespace

TEST(LockService, AFailingServiceRefusesAcquisitionsAndChangesCleanly) {
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("served");
  touch(path);
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.says);
    setlkErrno = c.err;
    host.clearJournal();
    expectRefusedAcquisition(host, path);
    // The pieces are those of every refusal; the explanation is plain text.
    EXPECT_CODES(host.lastCodes(), fileLockMessage(QMELM_E_EXT_LOCK_FAILED));
    ASSERT_EQ(host.entryCount(), 1u);
    EXPECT_NE(host.entries()[0].text.find(c.says), std::string::npos) << host.entries()[0].text;
    EXPECT_EQ(openDescriptorsOf(path), 0);
    EXPECT_TRUE(otherProcessCanLock(path, F_WRLCK));

    // A reader asks to become the writer while the service fails: refused,
    // still a reader, and told why.
    LockRequest rr(path);
    int rc = 0;
    QMELMLHndlp h = host.lock(rr, NX | ENX, &rc);
    ASSERT_NE(h, nullptr) << std::hex << rc;
    host.clearJournal();
    {
      SyscallScope seam;
      seam.table().fcntl = failingSetlk;
      EXPECT_STATUS(QMELM_E_EXT_LOCK_FAILED, host.fn().LockChange(h, &rr.parms, X | EX, host.jnl));
    }
    ASSERT_GE(host.entryCount(), 1u);
    EXPECT_NE(host.entries().back().text.find(c.says), std::string::npos)
        << host.entries().back().text;
    EXPECT_EQ(h->Private.LockType & (X | EX), 0u);
    EXPECT_TRUE(otherProcessCanLock(path, F_RDLCK));
    EXPECT_FALSE(otherProcessCanLock(path, F_WRLCK));
    EXPECT_EQ(host.release(h), 0);
    EXPECT_EQ(openDescriptorsOf(path), 0);
  }

  // Any other errno keeps the message as it was: no explanation appended.
  setlkErrno = EDEADLK;
  host.clearJournal();
  expectRefusedAcquisition(host, path);
  ASSERT_EQ(host.entryCount(), 1u);
  const std::string text = host.entries()[0].text;
  for (const Case &c : kCases) EXPECT_EQ(text.find(c.says), std::string::npos) << text;
  EXPECT_EQ(text.find("another machine"), std::string::npos) << text;
}
