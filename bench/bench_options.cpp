// bench_options.cpp - storing lock options: the cost of 1,000 SetLockOption
// inserts into a table that already holds 0 and 49,000 entries (so the
// batch ends at 1,000 and at 50,000), keys in random order. A sorted table
// filled by binary search keeps the per-insert cost nearly flat; a linear
// search makes the second batch cost a multiple of the first.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_util.h"
#include "qmtest_host.h"

namespace {

constexpr size_t kBatch = 1000;
constexpr size_t kLargest = 50000;

struct Env {
  qmtest::TestHost host;
  std::vector<std::vector<QMChar>> keys;    // kLargest distinct paths, shuffled
  std::vector<std::vector<QMChar>> sorted;  // the same in table order
};
std::unique_ptr<Env> g;

Env &env() {
  if (!g) {
    g = std::make_unique<Env>();
    std::mt19937 rng(50000);
    for (size_t i = 0; i < kLargest; ++i) {
      char path[64];
      std::snprintf(path, sizeof path, "/srv/qm/d%03zu/f%05zu.dat", i % 250, i);
      g->keys.push_back(qmtest::qm(path));
    }
    g->sorted = g->keys;
    std::sort(g->sorted.begin(), g->sorted.end());  // code unit order, as the table
    std::shuffle(g->keys.begin(), g->keys.end(), rng);
  }
  return *g;
}

int store(Env &e, std::vector<QMChar> &key, QMELMLockOption option) {
  QMELMSetOptionParms p{};
  p.path = key.data();
  p.pathlen = static_cast<QMStrSize>(key.size());
  p.option = option;
  return e.host.fn().SetLockOption(e.host.ext, &p, nullptr);
}

int resetAll(Env &e) {
  QMELMSetOptionParms p{};
  p.option = QMELM_Reset;  // a null path: the whole table
  return e.host.fn().SetLockOption(e.host.ext, &p, nullptr);
}

// Each iteration: fill the table to `entries - kBatch` (not timed), time
// kBatch more inserts, empty it again (not timed).
void benchInsert(benchmark::State &st, size_t entries, bool ascending) {
  Env &e = env();
  std::vector<std::vector<QMChar>> &keys = ascending ? e.sorted : e.keys;
  for (auto _ : st) {
    if (resetAll(e) != 0) {
      st.SkipWithError("reset failed");
      break;
    }
    const size_t before = entries - kBatch;
    for (size_t i = 0; i < before; ++i) (void)store(e, keys[i], QMELM_None);
    const auto t0 = std::chrono::steady_clock::now();
    int bad = 0;
    for (size_t i = before; i < entries; ++i) bad |= store(e, keys[i], QMELM_Continue);
    const auto t1 = std::chrono::steady_clock::now();
    if (bad != 0 || e.host.ext->NumOptions != entries + 1) {
      st.SkipWithError("an insert failed");
      break;
    }
    st.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
  }
  (void)resetAll(e);
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kBatch));
}

}  // namespace

int main(int argc, char **argv) {
  try {
    (void)env();
  } catch (const std::exception &ex) {
    std::fprintf(stderr, "bench_options: %s\n", ex.what());
    return 1;
  }
  using benchmark::kMicrosecond;
  std::vector<qmbench::Row> rows;
  for (const bool ascending : {false, true}) {
    const std::string order = ascending ? "ascending" : "random";
    const std::string small = "options/insert_1000_up_to:1000/" + order;
    const std::string large = "options/insert_1000_up_to:50000/" + order;
    benchmark::RegisterBenchmark(small.c_str(), benchInsert, size_t{1000}, ascending)
        ->UseManualTime()
        ->Unit(kMicrosecond);
    benchmark::RegisterBenchmark(large.c_str(), benchInsert, kLargest, ascending)
        ->UseManualTime()
        ->Iterations(5)
        ->Unit(kMicrosecond);
    qmbench::Row r;
    r.label = "1,000 inserts (" + order + " keys) ending at 50,000 entries vs at 1,000";
    r.bench = large;
    r.bare = small;
    r.clock = qmbench::Clock::Real;
    r.goal = qmbench::Goal::RatioAtMost;
    r.target = 3.0;
    rows.push_back(r);
  }
  const int rc = qmbench::runAndSummarise(argc, argv, rows);
  g.reset();
  return rc;
}
