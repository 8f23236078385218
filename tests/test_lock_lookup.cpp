// The name look-up of an acquisition: joins of a live node under a shared
// hold of ListMutex, new nodes listed under an exclusive one, dead nodes
// taken off LockList by the next acquisition whichever way it looks up.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "test_lock_support.h"

using namespace locktest;

namespace {

std::vector<const QMELMResLock *> listed(TestHost &host) {
  std::vector<const QMELMResLock *> out;
  for (const QMELMResLock *n = host.ext->LockList; n != nullptr; n = n->next) out.push_back(n);
  return out;
}

}  // namespace

// A join that finds its node live still takes the dead nodes off the list
// first: LockList never shows a node whose last holder left before the
// latest acquisition began.
TEST(LockLookup, AJoinTakesDeadNodesOffTheList) {
  TestHost host;
  TempDir dir;
  LockRequest a(dir.file("a")), b(dir.file("b")), b2(dir.file("b"));
  int rc = 0;
  QMELMLHndlp ha = get(host, a, X | EX, &rc, nullptr);
  ASSERT_NE(ha, nullptr) << std::hex << rc;
  QMELMLHndlp hb = get(host, b, NX | ENX, &rc, nullptr);
  ASSERT_NE(hb, nullptr) << std::hex << rc;
  const QMELMResLock *nodeA = ha->Private.ResLock;
  const QMELMResLock *nodeB = hb->Private.ResLock;
  ASSERT_EQ(listed(host), (std::vector<const QMELMResLock *>{nodeB, nodeA}));

  ASSERT_EQ(host.fn().LockRelease(ha, nullptr, nullptr), 0);
  EXPECT_TRUE(nodeA->DeadNode);
  QMELMLHndlp hb2 = get(host, b2, NX | ENX, &rc, nullptr);  // joins b's live node
  ASSERT_NE(hb2, nullptr) << std::hex << rc;
  EXPECT_EQ(hb2->Private.ResLock, nodeB);
  EXPECT_EQ(listed(host), (std::vector<const QMELMResLock *>{nodeB}));
  EXPECT_EQ(nodeB->int_nonexclusive, 2u);

  // With nothing dead, a join changes nothing on the list.
  LockRequest b3(dir.file("b"));
  QMELMLHndlp hb3 = get(host, b3, NX | ENX, &rc, nullptr);
  ASSERT_NE(hb3, nullptr) << std::hex << rc;
  EXPECT_EQ(listed(host), (std::vector<const QMELMResLock *>{nodeB}));
  for (QMELMLHndlp h : {hb, hb2, hb3}) EXPECT_EQ(host.fn().LockRelease(h, nullptr, nullptr), 0);
}

// Joiners of one file race its last holders' releases (the node dies and is
// made again under them) while other threads make and drop nodes of their
// own files, so that dead nodes are queued most of the time. Every request
// is granted, a joiner always lands on a live node of its own name, and once
// everything is released one acquisition leaves exactly the footprint of an
// idle lock manager: no node, block or mutex lost or kept.
TEST(LockLookup, JoinsRaceReleasesAndNewNodes) {
  TestHost host;
  TempDir dir;
  const std::string shared = dir.file("shared");
  touch(shared);
  const auto idle = footprint(host, dir.file("idle"));
  std::atomic<int> failures{0};
  std::atomic<bool> go{false};
  auto joiner = [&] {
    while (!go.load()) std::this_thread::yield();
    for (int i = 0; i < 400; ++i) {
      LockRequest r(shared, O_RDWR);
      int rc = 0;
      QMELMLHndlp h = get(host, r, NX | ENX, &rc, nullptr);
      if (h == nullptr) {
        failures.fetch_add(1);
        continue;
      }
      const XVELMFileLock &node = nodeOf(h);
      if (node.CommonLock.DeadNode || node.ID.NarrowFilename != shared) failures.fetch_add(1);
      if (host.fn().LockRelease(h, nullptr, nullptr) != 0) failures.fetch_add(1);
    }
  };
  auto churner = [&](int t) {
    while (!go.load()) std::this_thread::yield();
    for (int i = 0; i < 400; ++i) {
      LockRequest r(dir.file("own" + std::to_string(t) + "_" + std::to_string(i % 7)));
      int rc = 0;
      QMELMLHndlp h = get(host, r, X | EX, &rc, nullptr);
      if (h == nullptr || host.fn().LockRelease(h, nullptr, nullptr) != 0) failures.fetch_add(1);
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(joiner);
  threads.emplace_back(joiner);
  threads.emplace_back(churner, 0);
  threads.emplace_back(churner, 1);
  go.store(true);
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(footprint(host, dir.file("idle")), idle);
  // Left on the list: only the node of footprint's own request, dead.
  const auto left = listed(host);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_TRUE(left[0]->DeadNode);
}

namespace {

int stubMatches = 0, stubReleases = 0;
int stubMatch(QMELMExtensionp, QMELMMatchOptionParms *p, QMJnlh) noexcept {
  ++stubMatches;
  p->option = QMELM_Continue;
  return 0;
}
int stubRelease(QMELMExtensionp, QMELMMatchOptionParms *, QMJnlh) noexcept {
  ++stubReleases;
  return 0;
}

}  // namespace

// A request without an option bit takes the option the table governs its
// path with; a caller that put its own matcher in the function table gets
// that matcher asked (and its answer released), once per request.
TEST(LockLookup, TheOptionComesFromTheTableOrFromTheMatcherInTheSlots) {
  TestHost host;
  TempDir dir;
  ASSERT_EQ(host.setOption(dir.path(), QMELM_None), 0);
  LockRequest r(dir.file("opt"));
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
  ASSERT_NE(h, nullptr) << std::hex << rc;
  EXPECT_EQ(h->Private.LockType & (QMELM_OPT_NONE | QMELM_OPT_FAIL | QMELM_OPT_CONTINUE),
            QMMemSize{QMELM_OPT_NONE});
  EXPECT_EQ(host.release(h), 0);

  const size_t blocks = host.liveBlocks();
  QMELMFunctions saved = host.fn();
  host.fn().MatchOption = stubMatch;
  host.fn().ReleaseMatch = stubRelease;
  LockRequest r2(dir.file("opt"));
  h = host.lock(r2, NX | ENX, &rc);
  host.fn() = saved;
  ASSERT_NE(h, nullptr) << std::hex << rc;
  EXPECT_EQ(stubMatches, 1);
  EXPECT_EQ(stubReleases, 1);
  EXPECT_EQ(h->Private.LockType & (QMELM_OPT_NONE | QMELM_OPT_FAIL | QMELM_OPT_CONTINUE),
            QMMemSize{QMELM_OPT_CONTINUE});
  EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(footprint(host, dir.file("idle")).first, blocks);
}
