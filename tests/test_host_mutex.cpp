// The host's reader-writer mutex under load: threads mixing exclusive and
// shared holds, waiting and trying, some holding long enough that the others
// fall asleep on it, with the exclusion checked inside every hold; and a
// thread holding more mutexes shared at once than it keeps without
// allocating; and a pool whose blocks other threads free.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "qmtest_host.h"

namespace {

qmtest::HostOptions hostOnly() {
  qmtest::HostOptions o;
  o.loadExtension = false;
  return o;
}

TEST(HostMutex, ExclusionHoldsWhileTakersSleepAndWake) {
  qmtest::TestHost host(hostOnly());
  QMHndlp h = host.hndl;
  QMLockh m = h->lockCreate(h, nullptr, nullptr, "stress");
  ASSERT_NE(nullptr, m);
  std::atomic<int> writers{0}, readers{0}, broken{0}, exclusiveHolds{0}, sharedHolds{0};
  auto worker = [&](unsigned seed) {
    std::mt19937 rng(seed);
    for (int i = 0; i < 3000; ++i) {
      const unsigned r = rng();
      const bool exclusive = r % 3 == 0;
      const int wait = r % 7 == 0 ? 0 : 1;
      const QMStatus rc = m->get(m, exclusive ? 1 : 0, wait);
      if (rc == QM_E_BUSY && wait == 0) continue;
      ASSERT_EQ(0, rc);
      if (exclusive) {
        if (writers.fetch_add(1) != 0 || readers.load() != 0) ++broken;
        ++exclusiveHolds;
      } else {
        if (writers.load() != 0) ++broken;
        ++readers;
        ++sharedHolds;
      }
      // One hold in 64 lasts 200 us: far past the taker's spin, so that
      // takers of both kinds sleep and must be woken by the release.
      if (r % 64 == 1) std::this_thread::sleep_for(std::chrono::microseconds(200));
      if (exclusive) {
        if (readers.load() != 0) ++broken;
        --writers;
      } else {
        if (writers.load() != 0) ++broken;
        --readers;
      }
      ASSERT_EQ(0, m->release(m));
    }
  };
  std::vector<std::thread> ts;
  for (unsigned t = 0; t < 4; ++t) ts.emplace_back(worker, 7 * t + 1);
  for (auto &t : ts) t.join();
  EXPECT_EQ(0, broken.load());
  EXPECT_GT(exclusiveHolds.load(), 1000);
  EXPECT_GT(sharedHolds.load(), 2000);
  EXPECT_EQ(0, m->get(m, 1, 0));  // nothing left held, no sleeper bit in the way
  EXPECT_EQ(0, m->generic.destroy(m));

  // Twenty mutexes held shared at once by one thread, given back in another
  // order: each release finds its hold, a second release finds none, and an
  // exclusive taker elsewhere is refused until the last one goes.
  std::vector<QMLockh> many;
  for (int i = 0; i < 20; ++i) {
    many.push_back(h->lockCreate(h, nullptr, nullptr, nullptr));
    ASSERT_NE(nullptr, many.back());
    ASSERT_EQ(0, many.back()->get(many.back(), 0, 1));
    ASSERT_EQ(QM_E_BUSY, many.back()->get(many.back(), 0, 1));  // not recursive
  }
  for (int i : {19, 0, 10, 3, 17, 8, 1, 12, 5, 15, 2, 18, 9, 4, 16, 11, 6, 14, 7, 13}) {
    std::thread([&] { EXPECT_EQ(QM_E_BUSY, many[i]->get(many[i], 1, 0)); }).join();
    EXPECT_EQ(0, many[i]->release(many[i]));
    EXPECT_EQ(QM_E_NOT_HELD, many[i]->release(many[i]));
    std::thread([&] {
      EXPECT_EQ(0, many[i]->get(many[i], 1, 0));
      EXPECT_EQ(0, many[i]->generic.destroy(many[i]));
    }).join();
  }
  EXPECT_EQ(0u, host.stats().mutexes);
}

// A pool's blocks are recorded in the lane of the thread that allocated them
// and freed from any thread: each thread frees the blocks of the next one,
// every block once (a second free is refused), and the pool counts nothing
// twice and loses nothing.
TEST(HostPool, BlocksFreedByOtherThreadsAreFoundOnceInEveryLane) {
  qmtest::TestHost host(hostOnly());
  QMHndlp h = host.hndl;
  QMPoolh pool = h->poolCreate(h, nullptr, nullptr, "lanes");
  ASSERT_NE(nullptr, pool);
  constexpr int kThreads = 6, kBlocks = 400;
  std::vector<std::vector<void *>> made(kThreads);
  std::vector<std::thread> ts;
  for (int t = 0; t < kThreads; ++t)
    ts.emplace_back([&, t] {
      for (int i = 0; i < kBlocks; ++i) made[t].push_back(pool->memAlloc(pool, 8 + i % 64, 0));
    });
  for (auto &t : ts) t.join();
  ts.clear();
  EXPECT_EQ(size_t{kThreads * kBlocks}, qmhost_pool_live_blocks(pool));
  std::atomic<int> refused{0}, wrong{0};
  for (int t = 0; t < kThreads; ++t)
    ts.emplace_back([&, t] {
      for (void *b : made[(t + 1) % kThreads]) {
        if (pool->memFree(pool, b) != 0) ++wrong;
        if (pool->memFree(pool, b) == QM_E_BAD_FREE) ++refused;
      }
    });
  for (auto &t : ts) t.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(kThreads * kBlocks, refused.load());
  EXPECT_EQ(0u, qmhost_pool_live_blocks(pool));
  EXPECT_EQ(0u, qmhost_pool_live_bytes(pool));
  EXPECT_EQ(0, pool->generic.destroy(pool));
}

}  // namespace
