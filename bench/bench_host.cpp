// bench_host.cpp - the host on the lock manager's hot path, its test
// instruments disarmed as an embedder runs it: an allocation-heavy call
// (GetLockOptions + ReleaseLockOptions of a 1,000-entry option table: a deep
// copy, one pool block per entry and its path) on 1 and 2 threads, beside a
// bare malloc/write/free loop of the same shape (as many blocks, of the same
// mean size) timed in the same run; and one pool memAlloc/memFree pair on 1
// and 2 threads beside a bare malloc/free pair, and with the instruments
// armed for comparison. Two threads are only worth their name when the
// second one adds throughput: the summary prints each gain over 1 thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "qmtest_host.h"

namespace {

constexpr int kOptions = 1000;

struct Env {
  std::unique_ptr<qmtest::TestHost> host;  // the option table, instruments disarmed
  std::unique_ptr<qmtest::TestHost> bare;  // a host for the pool pair; no lock manager
  QMPoolh pool = nullptr;                  // the pool of the pair
  size_t blocksPerCopy = 0;                // pool blocks one GetLockOptions takes
  size_t bytesPerCopy = 0;                 // and their bytes
  QMMemSize entries = 0;                   // entries of the table (the root's included)
};
std::unique_ptr<Env> g;

// The table of kOptions entries, and the shape of one copy of it: counted
// with the instruments armed once, then disarmed for the measurements. Null,
// or what could not be done.
const char *setUp(Env &e) {
  e.host = qmbench::makeHost();
  if (!e.host) return "the lock manager could not be loaded";
  for (int i = 0; i < kOptions; ++i) {
    char path[64];
    std::snprintf(path, sizeof path, "/srv/bench/area%02d/dir%04d", i % 37, i);
    if (e.host->setOption(path, QMELM_Continue) != 0) return "SetLockOption refused a path";
  }
  qmtest::TestHost &h = *e.host;
  h.armInstruments();
  const long callsBefore = h.calls(QMHOST_FAIL_ALLOC);
  const QMHostStats before = h.stats();
  QMELMGetOptionsParms parms{};
  if (h.fn().GetLockOptions(h.ext, &parms, h.jnl) != 0 || parms.NumOptions < kOptions)
    return "GetLockOptions failed or copied fewer entries than were set";
  e.entries = parms.NumOptions;
  const QMHostStats during = h.stats();
  e.blocksPerCopy = static_cast<size_t>(h.calls(QMHOST_FAIL_ALLOC) - callsBefore);
  e.bytesPerCopy = during.pool_bytes - before.pool_bytes;
  if (h.fn().ReleaseLockOptions(h.ext, &parms, h.jnl) != 0) return "ReleaseLockOptions failed";
  h.armInstruments(false);
  if (qmhost_instruments_armed(h.hndl) != 0 || e.blocksPerCopy == 0)
    return "the instruments did not count or did not disarm";

  qmtest::HostOptions o;
  o.loadExtension = false;
  e.bare = std::make_unique<qmtest::TestHost>(o);
  e.pool = e.bare->hndl->poolCreate(e.bare->hndl, nullptr, nullptr, "bench pool");
  return e.pool != nullptr ? nullptr : "no pool";
}

void benchGetOptions(benchmark::State &st) {
  qmtest::TestHost &h = *g->host;
  qmbench::SwitchCount switches(st);
  for (auto _ : st) {
    QMELMGetOptionsParms parms{};
    int rc = h.fn().GetLockOptions(h.ext, &parms, h.jnl);
    if (rc == 0 && parms.NumOptions != g->entries) rc = -1;
    if (rc == 0) rc = h.fn().ReleaseLockOptions(h.ext, &parms, h.jnl);
    if (rc != 0) {
      st.SkipWithError(qmbench::statusText("GetLockOptions", rc).c_str());
      break;
    }
  }
  st.SetItemsProcessed(st.iterations());
}

// The same number of blocks of the same mean size, each written once (the
// pool fills its blocks too) and all freed after.
void benchBareCopy(benchmark::State &st) {
  const size_t n = g->blocksPerCopy;
  const size_t size = (g->bytesPerCopy + n - 1) / n;
  std::vector<void *> blocks(n);
  for (auto _ : st) {
    for (void *&b : blocks) {
      b = std::malloc(size);
      if (b != nullptr) std::memset(b, 0xA5, size);
      benchmark::DoNotOptimize(b);
    }
    for (void *b : blocks) std::free(b);
  }
  st.SetItemsProcessed(st.iterations());
  st.SetLabel(std::to_string(n) + " blocks of " + std::to_string(size) + " B");
}

// One memAlloc/memFree pair of 32 bytes in the shared pool. armed: with the
// host's instruments armed, so every allocation counts on a shared counter.
void benchPoolPair(benchmark::State &st, bool armed) {
  QMPoolh pool = g->pool;
  if (st.thread_index() == 0) g->bare->armInstruments(armed);
  for (auto _ : st) {
    void *b = pool->memAlloc(pool, 32, 0);
    if (b == nullptr || pool->memFree(pool, b) != 0) {
      st.SkipWithError("memAlloc or memFree failed");
      break;
    }
  }
  st.SetItemsProcessed(st.iterations());
}

void benchBarePair(benchmark::State &st) {
  for (auto _ : st) {
    void *b = std::malloc(32);
    if (b != nullptr) std::memset(b, 0xA5, 32);
    benchmark::DoNotOptimize(b);
    std::free(b);
  }
  st.SetItemsProcessed(st.iterations());
}

}  // namespace

int main(int argc, char **argv) {
  g = std::make_unique<Env>();
  if (const char *why = setUp(*g); why != nullptr) {
    std::fprintf(stderr, "bench_host: %s\n", why);
    return 1;
  }
  std::printf("GetLockOptions of %llu entries: %zu pool blocks, %zu bytes per copy\n",
              static_cast<unsigned long long>(g->entries), g->blocksPerCopy, g->bytesPerCopy);

  using benchmark::kNanosecond;
  for (const char *name : {"host/get_options", "bare/malloc_copy"})
    qmbench::onOneAndTwoThreads(
        benchmark::RegisterBenchmark(name, name[0] == 'h' ? benchGetOptions : benchBareCopy),
        benchmark::kMicrosecond);
  qmbench::onOneAndTwoThreads(benchmark::RegisterBenchmark("host/pool_pair", benchPoolPair, false),
                              kNanosecond);
  qmbench::onOneAndTwoThreads(
      benchmark::RegisterBenchmark("host/pool_pair_armed", benchPoolPair, true), kNanosecond);
  qmbench::onOneAndTwoThreads(benchmark::RegisterBenchmark("bare/malloc_pair", benchBarePair),
                              kNanosecond);

  using qmbench::Clock;
  using qmbench::Goal;
  using qmbench::Row;
  // A figure of bench beside bare on the CPU clock, both at threads.
  auto versus = [](const char *label, const char *bench, const char *bare, int64_t threads) {
    return qmbench::versusRow(label, bench, threads, bare, threads, Clock::Cpu, Goal::Info, 0);
  };
  const auto gain = qmbench::gainRow;
  const std::vector<Row> rows = {
      versus("GetLockOptions+Release (1,000 entries) vs bare malloc copy", "host/get_options",
             "bare/malloc_copy", 1),
      gain("GetLockOptions+Release, 2 threads vs 1 (throughput gain)", "host/get_options",
           Goal::RatioAtLeast, 1.8),
      gain("bare malloc copy, 2 threads vs 1 (throughput gain)", "bare/malloc_copy", Goal::Info, 0),
      versus("pool memAlloc+memFree vs malloc+free, 1 thread", "host/pool_pair", "bare/malloc_pair",
             1),
      versus("pool memAlloc+memFree vs malloc+free, 2 threads", "host/pool_pair",
             "bare/malloc_pair", 2),
      versus("pool pair armed vs disarmed, 2 threads", "host/pool_pair_armed", "host/pool_pair", 2),
      gain("pool memAlloc+memFree, 2 threads vs 1 (throughput gain)", "host/pool_pair", Goal::Info,
           0),
      gain("bare malloc+free, 2 threads vs 1 (throughput gain)", "bare/malloc_pair", Goal::Info, 0),
  };
  const int rc = qmbench::runAndSummarise(argc, argv, rows);
  g.reset();
  return rc;
}
