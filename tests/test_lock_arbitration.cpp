// Internal arbitration between the holders of one process: which lock types
// may join which, with the status, the journal and the node's counters.
#include <deque>

#include "test_lock_support.h"

using namespace locktest;

TEST(LockArbitration, HoldersJoinOrAreRefusedByTheTable) {
  struct Case {
    std::vector<QMMemSize> held;  // granted in this order
    QMMemSize request;
    QMStatus expect;
    std::vector<QMMemSize> after;  // excl, nonexcl, nonshared nonexcl, no internal
    QMMemSize ext = NOE;           // the external part of every lock of the row
  };
  const QMStatus SHARE = QMELM_E_INT_SHARE_CONFLICT, EXCL = QMELM_E_INT_LOCKED_EXCLUSIVE;
  const Case cases[] = {
      {{NX}, NX, 0, {0, 2, 2, 0}},
      {{NX}, X, QMELM_E_INT_LOCKED_SHARED, {0, 1, 1, 0}},
      {{NX}, X | SH, SHARE, {0, 1, 1, 0}},
      {{X}, NX, EXCL, {1, 0, 0, 0}},
      {{X}, NX | SH, SHARE, {1, 0, 0, 0}},
      {{X}, X, EXCL, {1, 0, 0, 0}},
      {{X | SH}, NX | SH, 0, {1, 1, 0, 0}},
      {{X | SH}, NX, SHARE, {1, 0, 0, 0}},
      {{X | SH}, X | SH, EXCL, {1, 0, 0, 0}},
      {{NX | SH}, X | SH, 0, {1, 1, 0, 0}},
      {{NX | SH}, X, SHARE, {0, 1, 0, 0}},
      {{NX | SH}, NX, 0, {0, 2, 1, 0}},
      {{X}, NOI, 0, {1, 0, 0, 1}},
      {{NOI}, X, 0, {1, 0, 0, 1}},
      {{NX, NX}, X | SH, SHARE, {0, 2, 2, 0}},
      {{X | SH, NX | SH}, NX | SH, 0, {1, 2, 0, 0}},
      {{NX | SH, X | SH}, X | SH, EXCL, {1, 1, 0, 0}},
      {{NX | SH, NX | SH}, X, SHARE, {0, 2, 0, 0}},
      // A non-shared holder takes "shared" out of the node's type only when
      // it joins as an external non-exclusive holder.
      {{NX | SH, NX}, X | SH, 0, {1, 2, 1, 0}},
      {{NX | SH, NX}, X | SH, SHARE, {0, 2, 1, 0}, ENX},
  };
  TestHost host;
  TempDir dir;
  for (size_t row = 0; row < std::size(cases); ++row) {
    const Case &c = cases[row];
    SCOPED_TRACE("row " + std::to_string(row));
    std::deque<LockRequest> reqs;  // requests point into themselves: never copied
    std::vector<QMELMLHndlp> handles;
    int rc = 0;
    for (QMMemSize t : c.held) {
      handles.push_back(
          host.lock(reqs.emplace_back(dir.file(std::to_string(row))), t | c.ext, &rc));
      ASSERT_EQ(rc, 0);
    }
    host.clearJournal();
    LockRequest &last = reqs.emplace_back(dir.file(std::to_string(row)));
    QMELMLHndlp h = host.lock(last, c.request | c.ext, &rc);
    EXPECT_STATUS(c.expect, rc);
    EXPECT_EQ(last.parms.AcquiredLockType, c.expect == 0 ? (c.request | c.ext) : 0u);
    const std::vector<QMMemSize> got = counts(handles.front());
    EXPECT_EQ(std::vector<QMMemSize>(got.begin(), got.begin() + 4), c.after);
    if (c.expect != 0) {
      EXPECT_CODES(host.lastCodes(),
                   {c.expect, c.expect == SHARE ? QMELM_M_PATH : QMELM_M_INT_LOCK_CONFLICT,
                    QMELM_M_TRAILER});
      EXPECT_NE(host.entries().back().text.find(dir.file(std::to_string(row))), std::string::npos);
    } else {
      EXPECT_EQ(host.entryCount(), 0u);
      handles.push_back(h);
    }
    for (QMELMLHndlp held : handles) EXPECT_EQ(host.release(held), 0);
  }
}
