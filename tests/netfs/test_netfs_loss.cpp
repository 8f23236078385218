// The lock manager when the server goes away: the brick of the volume is
// killed while this process holds a read lock through the mount. Asking for
// more is refused with the usual status and message pieces, the errno the
// client gave is reported (and explained, where the lock manager knows it),
// the reader keeps what it had, and releasing leaves nothing open. The
// volume is not brought back: this test has a set-up of its own.
#include <cstdlib>
#include <string>

#include "locks/xvelmRemoteHolder.h"
#include "netfs_env.h"
#include "test_lock_support.h"

using namespace locktest;
using namespace netfs;

TEST(NetfsLoss, AKilledBrickRefusesLockRequestsAndLeavesNothingOpen) {
  NETFS_VOLUME(v);
  TestHost host;
  const std::string path = v->m1 + "/served", other = v->m1 + "/unopened";
  touch(path);
  touch(other);
  LockRequest r(path, O_RDWR);
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
  ASSERT_NE(h, nullptr) << hex(rc);

  const std::string kill = std::string(NETFS_SCRIPT) + " kill-brick " + v->state;
  ASSERT_EQ(std::system(kill.c_str()), 0);

  // An upgrade needs the server: refused, still a reader.
  host.clearJournal();
  EXPECT_STATUS(QMELM_E_EXT_LOCK_FAILED, host.fn().LockChange(h, r.get(), X | EX, host.jnl));
  const int err = r.parms.Errno;
  EXPECT_NE(err, 0);
  EXPECT_NE(err, EAGAIN);
  EXPECT_EQ(h->Private.LockType & (X | EX), 0u);
  ASSERT_GE(host.entryCount(), 1u);
  const std::string text = host.entries().back().text;
  EXPECT_CODES(host.lastCodes(), fileLockMessage(QMELM_E_EXT_LOCK_FAILED));
  if (const char *why = xvelm::detail::lockServiceFailure(err)) {
    EXPECT_NE(text.find(why), std::string::npos) << text;
  }
  EXPECT_EQ(text.find("another machine"), std::string::npos) << text;
  std::printf("upgrade with the brick gone: errno %d (%s): %s\n", err, strerrorname_np(err),
              text.c_str());

  // A file not yet open cannot be opened: refused, nothing left open.
  LockRequest fresh(other, O_RDWR);
  host.clearJournal();
  EXPECT_EQ(host.lock(fresh, X | EX, &rc), nullptr);
  EXPECT_NE(rc, 0);
  EXPECT_EQ(openDescriptorsOf(other), 0);

  // The reader lets go; whatever the close says, no descriptor stays open.
  (void)host.release(h);
  EXPECT_EQ(openDescriptorsOf(path), 0);
}
