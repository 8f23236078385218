// I/O records: when they are made, which record an update or a close lands
// in, what a reset forgets and frees, and updates racing with resets and
// with lock traffic on several threads.
#include <atomic>
#include <thread>

#include "test_lock_support.h"

using namespace locktest;

TEST(IOInfo, NewestRecordTakesUpdatesAndClosesResetForgets) {
  for (QMIOByteCountKind kind : {QMIO_ByteCount_Default, QMIO_ByteCount_None}) {
    TestHost host(HostOptions{.iobytecount = kind});
    TempDir dir;
    LockRequest r(dir.file("f"));
    int rc = 0;
    QMELMIOStats s = ioIncrement(5);
    QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
    EXPECT_EQ(host.fn().UpdateIOInfo(h, &s, nullptr) + host.release(h), 0);
    EXPECT_EQ(host.ext->IOInfo, nullptr);
  }
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  LockRequest a(dir.file("f")), b(dir.file("f")), c(dir.file("f")), d(dir.file("g"));
  int rc = 0;
  QMELMLHndlp h1 = host.lock(a, NX | ENX, &rc), h2 = host.lock(b, NX | ENX, &rc);
  QMELMIOInfop newer = host.ext->IOInfo, older = newer->next;
  ASSERT_EQ(host.ext->numIOInfo, 2u);
  EXPECT_EQ(utf8(older->Name, older->NameLen), dir.file("f"));
  QMELMIOStats s = ioIncrement(10);
  EXPECT_EQ(host.fn().UpdateIOInfo(h1, &s, nullptr), 0);  // any handle: the newest record
  EXPECT_EQ(newer->numBytesWritten + older->numReads, 20);
  EXPECT_EQ(host.release(h1), 0);
  EXPECT_GE(newer->closeTime, 0.0);  // the first release stamps the newest record
  EXPECT_EQ(older->closeTime, -1.0);

  // The closed record leaves the list but stays with its living node.
  EXPECT_EQ(resetIO(host), 0);
  EXPECT_EQ(host.ext->IOInfo, older);
  EXPECT_EQ(host.ext->numIOInfo, 1u);
  EXPECT_EQ(host.fn().UpdateIOInfo(h2, &s, nullptr), 0);
  EXPECT_EQ(older->numBytesRead, 0);
  QMELMLHndlp h3 = host.lock(c, NX | ENX, &rc);  // takes the forgotten record again
  EXPECT_EQ(host.ext->IOInfo, newer);
  EXPECT_EQ(host.ext->numIOInfo, 2u);
  EXPECT_EQ(newer->numBytesRead + newer->openTime, 0.0);  // h1's parked descriptor: no open
  EXPECT_EQ(newer->closeTime, -1.0);

  for (QMELMLHndlp h : {h2, h3}) EXPECT_EQ(host.release(h), 0);
  QMELMLHndlp hg = host.lock(d, NX | ENX, &rc);  // destroys the dead node
  older->closeTime = 0.0;                        // exactly 0.0 counts as closed
  EXPECT_EQ(resetIO(host), 0);
  EXPECT_EQ(host.ext->numIOInfo, 1u);
  EXPECT_EQ(utf8(host.ext->IOInfo->Name, host.ext->IOInfo->NameLen), dir.file("g"));
  EXPECT_EQ(host.release(hg), 0);
  EXPECT_EQ(host.stats().bad_frees, 0u);
}

TEST(IOInfo, UpdatesRaceWithResetsAndLockTraffic) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  const std::string files[] = {dir.file("a"), dir.file("b"), dir.file("c")};
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  int rc = 0;
  LockRequest keepReq(files[0]);
  QMELMLHndlp keep = host.lock(keepReq, NX | ENX, &rc);  // node a lives throughout
  ASSERT_EQ(rc, 0);

  auto locker = [&](int seed) {
    for (int i = 0; i < 600; ++i) {
      LockRequest r(files[(seed + i) % 3]);
      int st = 0;
      QMELMLHndlp h = get(host, r, NX | ENX, &st, nullptr);
      QMELMIOStats s = ioIncrement(1);
      for (int k = 0; h != nullptr && k < 5; ++k)
        failures += host.fn().UpdateIOInfo(h, &s, nullptr);
      failures += h == nullptr || host.fn().LockRelease(h, nullptr, nullptr) != 0;
    }
  };
  std::thread lockers[] = {std::thread(locker, 0), std::thread(locker, 1)};
  std::thread updater([&] {
    QMELMIOStats s = ioIncrement(3);
    while (!stop) failures += host.fn().UpdateIOInfo(keep, &s, nullptr);
  });
  std::thread resetter([&] {
    while (!stop) failures += resetIO(host);
  });
  for (auto &t : lockers) t.join();
  stop = true;
  updater.join();
  resetter.join();

  EXPECT_EQ(failures, 0);
  EXPECT_EQ(host.release(keep), 0);
  EXPECT_EQ(resetIO(host), 0);
  QMMemSize listed = 0;
  for (QMELMIOInfop r = host.ext->IOInfo; r != nullptr; r = r->next, ++listed)
    EXPECT_EQ(r->prev == nullptr, r == host.ext->IOInfo);
  EXPECT_EQ(listed, host.ext->numIOInfo);
  EXPECT_EQ(host.stats().bad_frees, 0u);
}
