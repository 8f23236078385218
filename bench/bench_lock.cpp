// bench_lock.cpp - lock acquisition and release through the function table,
// each set beside the bare system calls it cannot avoid, timed in the same run:
// the first holder of a file, a second holder joining it, I/O statistics
// updates, pool bytes per held file, two threads on two files against one,
// and acquisition while the process already holds many other files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "qmtest_host.h"

namespace {

constexpr QMMemSize kExclusive = QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE;          // 0x005
constexpr QMMemSize kExclusiveFail = kExclusive | QMELM_OPT_FAIL;                    // 0x105
constexpr QMMemSize kFirstShared = QMELM_INT_NONEXCLUSIVE | QMELM_EXT_NONEXCLUSIVE;  // 0x00a
constexpr QMMemSize kJoiner =
    QMELM_INT_NONEXCLUSIVE | QMELM_SHARED | QMELM_EXT_NONEXCLUSIVE;  // 0x04a
constexpr QMMemSize kJoinerFail = kJoiner | QMELM_OPT_FAIL;          // 0x14a
constexpr size_t kPoolFiles = 1000;
constexpr size_t kPoolNameLen = 40;

using qmbench::statusText;

std::string hexType(QMMemSize t) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%03x", static_cast<unsigned>(t));
  return buf;
}

bool touch(const std::string &path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

QMELMLHndlp get(QMELMExtension *ext, qmtest::LockRequest &req, QMMemSize type, int *rc) {
  return ext->Functions.LockGet(ext, req.get(), QMELM_RESOURCE_FILE, type, nullptr, rc);
}

int release(QMELMExtension *ext, QMELMLHndlp h, qmtest::LockRequest &req) {
  return ext->Functions.LockRelease(h, req.get(), nullptr);
}

// The files of the many-holders benchmark, on a host of their own so that the
// other benchmarks walk a short list. Grows only: the counts are benchmarked
// in ascending order, and the files stay held until the end of the run.
struct ManyHeld {
  std::unique_ptr<qmtest::TestHost> host = qmbench::makeHost();
  std::string dir;
  size_t cap;  // descriptors this process can spare for held files
  std::vector<std::unique_ptr<qmtest::LockRequest>> reqs;
  std::vector<QMELMLHndlp> held;

  ManyHeld(const std::string &d, size_t c) : dir(d), cap(c) {}
  ~ManyHeld() {
    for (size_t i = 0; i < held.size(); ++i) (void)release(host->ext, held[i], *reqs[i]);
  }
  std::string name(char tag, size_t i) const {
    char buf[32];
    std::snprintf(buf, sizeof buf, "/%c%05zu", tag, i);
    return dir + buf;
  }
  // Holds up to want files; stops early at the descriptor budget or at the
  // first refusal, so held.size() is the number actually held.
  void growTo(size_t want) {
    while (held.size() < want && held.size() < cap) {
      const std::string p = name('h', held.size());
      if (!touch(p)) {
        cap = held.size();
        break;
      }
      auto req = std::make_unique<qmtest::LockRequest>(p, O_RDWR);
      int rc = 0;
      QMELMLHndlp h = get(host->ext, *req, kExclusiveFail, &rc);
      if (h == nullptr) {
        cap = held.size();
        break;
      }
      reqs.push_back(std::move(req));
      held.push_back(h);
    }
  }
};

struct Env {
  qmtest::TempDir dir;
  std::unique_ptr<qmtest::TestHost> host;    // default settings
  std::unique_ptr<qmtest::TestHost> ioHost;  // counts I/O externally: I/O records are kept
  std::vector<std::string> poolNames;        // kPoolFiles paths of kPoolNameLen characters
  std::unique_ptr<ManyHeld> many;
  size_t descriptorBudget = 0;
};

std::unique_ptr<Env> g;

std::string fileFor(const char *stem, int thread) {
  return g->dir.file(std::string(stem) + std::to_string(thread) + ".dat");
}

// The first holder of an existing file gets and releases it; the
// release is the last one, so every iteration opens, record-locks and closes.
// One LockGet and LockRelease of req; false (and the benchmark marked as
// failed) when either is refused.
bool cycle(benchmark::State &st, QMELMExtension *ext, qmtest::LockRequest &req, QMMemSize type) {
  int rc = 0;
  QMELMLHndlp h = get(ext, req, type, &rc);
  if (h == nullptr) {
    st.SkipWithError(statusText("LockGet", rc).c_str());
    return false;
  }
  if ((rc = release(ext, h, req)) != 0) {
    st.SkipWithError(statusText("LockRelease", rc).c_str());
    return false;
  }
  return true;
}

void benchFirstHolder(benchmark::State &st, QMMemSize type) {
  QMELMExtension *ext = g->host->ext;
  qmtest::LockRequest req(fileFor("t", st.thread_index()), O_RDWR);
  qmbench::SwitchCount switches(st);
  for (auto _ : st) {
    if (!cycle(st, ext, req, type)) break;
  }
  st.SetItemsProcessed(st.iterations());
}

// What a first exclusive holder cannot do without: identify the file, open
// it, keep it from children, record-lock it, and check that the name still
// names the file it locked; then close it.
bool bareFirstHolderCycle(const char *path) {
  struct stat a {};
  struct stat b {};
  struct stat c {};
  benchmark::DoNotOptimize(::stat(path, &a));
  const int fd = ::open(path, O_RDWR, 0644);
  if (fd < 0) return false;
  benchmark::DoNotOptimize(::fcntl(fd, F_SETFD, FD_CLOEXEC));
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  benchmark::DoNotOptimize(::fcntl(fd, F_SETLK, &fl));
  benchmark::DoNotOptimize(::fstat(fd, &b));
  benchmark::DoNotOptimize(::stat(path, &c));
  ::close(fd);
  return true;
}

void benchBareFirstHolder(benchmark::State &st) {
  const std::string p = fileFor("t", st.thread_index());
  qmbench::SwitchCount switches(st);
  for (auto _ : st) {
    if (!bareFirstHolderCycle(p.c_str())) {
      st.SkipWithError("open failed");
      break;
    }
  }
  st.SetItemsProcessed(st.iterations());
}

double threadCpuNs() {
  timespec t{};
  (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// The first holder and its bare calls on one file, timed in alternating
// blocks of 32 cycles, so that both see the machine at the same speed. On a
// shared virtual machine the bare calls alone ran a third faster or slower
// from one benchmark to the next, seconds apart: more than the margins the
// ratio is held to.
void benchFirstHolderInterleaved(benchmark::State &st, QMMemSize type) {
  QMELMExtension *ext = g->host->ext;
  const std::string p = fileFor("t", 0);
  qmtest::LockRequest req(p, O_RDWR);
  constexpr int kBlock = 32;
  double lockNs = 0, bareNs = 0;
  for (auto _ : st) {
    const double t0 = threadCpuNs();
    for (int i = 0; i < kBlock; ++i)
      if (!cycle(st, ext, req, type)) return;
    const double t1 = threadCpuNs();
    for (int i = 0; i < kBlock; ++i) {
      if (!bareFirstHolderCycle(p.c_str())) {
        st.SkipWithError("open failed");
        return;
      }
    }
    lockNs += t1 - t0;
    bareNs += threadCpuNs() - t1;
  }
  const double n = static_cast<double>(st.iterations()) * kBlock;
  st.counters["lock_ns"] = lockNs / n;
  st.counters["bare_ns"] = bareNs / n;
  st.SetItemsProcessed(st.iterations() * 2 * kBlock);
}

// Two threads on two files against one thread, for the lock manager and for
// the bare calls, in rounds of four phases (lock manager on 1 thread, bare
// calls on 1, lock manager on 2, bare calls on 2) so that all four see the
// machine at the same speed. Each phase is kPhase cycles per thread, timed
// on the wall clock between the threads' start and the last one's end. The
// counters are the two throughput gains over all rounds.
void benchGainInterleaved(benchmark::State &st, QMMemSize type) {
  QMELMExtension *ext = g->host->ext;
  constexpr int kPhase = 400;
  const std::string paths[2] = {fileFor("t", 0), fileFor("t", 1)};
  qmtest::LockRequest reqs[2] = {qmtest::LockRequest(paths[0], O_RDWR),
                                 qmtest::LockRequest(paths[1], O_RDWR)};
  std::atomic<bool> failed{false};
  auto run = [&](int who, bool lockManager) {
    for (int i = 0; i < kPhase && !failed.load(std::memory_order_relaxed); ++i) {
      bool ok;
      if (lockManager) {
        int rc = 0;
        QMELMLHndlp h = get(ext, reqs[who], type, &rc);
        ok = h != nullptr && release(ext, h, reqs[who]) == 0;
      } else {
        ok = bareFirstHolderCycle(paths[who].c_str());
      }
      if (!ok) failed = true;
    }
  };
  // The second thread lives for the whole benchmark and runs the phases
  // that the main thread announces between two barriers.
  std::barrier sync(2);
  std::atomic<int> phase{0};  // 1: lock manager, 2: bare calls, 3: stop
  std::thread second([&] {
    for (;;) {
      sync.arrive_and_wait();
      const int ph = phase.load();
      if (ph == 3) return;
      run(1, ph == 1);
      sync.arrive_and_wait();
    }
  });
  using Clock = std::chrono::steady_clock;
  auto twoThreads = [&](bool lockManager) {
    phase = lockManager ? 1 : 2;
    sync.arrive_and_wait();
    const auto t0 = Clock::now();
    run(0, lockManager);
    sync.arrive_and_wait();
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
  };
  auto oneThread = [&](bool lockManager) {
    const auto t0 = Clock::now();
    run(0, lockManager);
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
  };
  double lock1 = 0, bare1 = 0, lock2 = 0, bare2 = 0;
  for (auto _ : st) {
    lock1 += oneThread(true);
    bare1 += oneThread(false);
    lock2 += twoThreads(true);
    bare2 += twoThreads(false);
    if (failed) break;
  }
  phase = 3;
  sync.arrive_and_wait();
  second.join();
  if (failed) {
    st.SkipWithError("a cycle was refused");
    return;
  }
  // Twice the work in the 2-thread phases.
  st.counters["lock_gain"] = 2 * lock1 / lock2;
  st.counters["bare_gain"] = 2 * bare1 / bare2;
  st.SetItemsProcessed(st.iterations() * 6 * kPhase);
}

// A second holder joins a file that a first holder keeps, and leaves. After
// the first iteration it reuses the descriptor it parked on leaving.
void benchJoiner(benchmark::State &st, QMMemSize type) {
  QMELMExtension *ext = g->host->ext;
  const std::string p = g->dir.file("j.dat");
  qmtest::LockRequest first(p, O_RDWR);
  qmtest::LockRequest joiner(p, O_RDWR);
  int rc = 0;
  QMELMLHndlp h1 = get(ext, first, kFirstShared, &rc);
  if (h1 == nullptr) {
    st.SkipWithError(statusText("LockGet (first holder)", rc).c_str());
    return;
  }
  for (auto _ : st) {
    QMELMLHndlp h2 = get(ext, joiner, type, &rc);
    if (h2 == nullptr) {
      st.SkipWithError(statusText("LockGet", rc).c_str());
      break;
    }
    if ((rc = release(ext, h2, joiner)) != 0) {
      st.SkipWithError(statusText("LockRelease", rc).c_str());
      break;
    }
  }
  (void)release(ext, h1, first);
}

void benchBareStatOpenClose(benchmark::State &st) {
  const std::string p = g->dir.file("j.dat");
  const char *path = p.c_str();
  for (auto _ : st) {
    struct stat a {};
    benchmark::DoNotOptimize(::stat(path, &a));
    const int fd = ::open(path, O_RDWR, 0644);
    if (fd < 0) {
      st.SkipWithError("open failed");
      break;
    }
    ::close(fd);
  }
}

// I/O statistics updates through a held handle; each thread its own file.
void benchUpdateIOInfo(benchmark::State &st) {
  QMELMExtension *ext = g->ioHost->ext;
  qmtest::LockRequest req(fileFor("io", st.thread_index()), O_RDWR);
  int rc = 0;
  QMELMLHndlp h = get(ext, req, kExclusive, &rc);
  if (h == nullptr) {
    st.SkipWithError(statusText("LockGet", rc).c_str());
    return;
  }
  if (h->Private.ResLock == nullptr || h->Private.ResLock->Info == nullptr) {
    (void)release(ext, h, req);
    st.SkipWithError("no I/O record was made for the held file");
    return;
  }
  QMELMIOStats inc{};
  inc.bytesRead = 4096;
  inc.reads = 1;
  {
    qmbench::SwitchCount switches(st);
    for (auto _ : st) {
      benchmark::DoNotOptimize(ext->Functions.UpdateIOInfo(h, &inc, nullptr));
    }
  }
  (void)release(ext, h, req);
  st.SetItemsProcessed(st.iterations());
}

// The files of the pool benchmark, made on first use: names of exactly
// kPoolNameLen characters when the temp dir leaves room for them.
bool makePoolFiles(Env &e) {
  if (!e.poolNames.empty()) return true;
  const std::string base = e.dir.file("p");
  if (::mkdir(base.c_str(), 0755) != 0) return false;
  const size_t room = kPoolNameLen > base.size() + 1 ? kPoolNameLen - base.size() - 1 : 0;
  const int digits = static_cast<int>(room > 5 ? room : 5);
  std::vector<std::string> names;
  for (size_t i = 0; i < kPoolFiles; ++i) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "/%0*zu", digits, i);
    names.push_back(base + buf);
    if (!touch(names.back())) return false;
  }
  e.poolNames = std::move(names);
  return true;
}

// Pool bytes that one more held file costs, names of kPoolNameLen characters.
void benchPoolBytes(benchmark::State &st) {
  if (!makePoolFiles(*g)) {
    st.SkipWithError("could not create the files");
    return;
  }
  std::unique_ptr<qmtest::TestHost> hostp = qmbench::makeHost();
  if (!hostp) {
    st.SkipWithError("lock manager not loaded");
    return;
  }
  qmtest::TestHost &host = *hostp;
  QMELMExtension *ext = host.ext;
  std::vector<std::unique_ptr<qmtest::LockRequest>> reqs;
  for (const std::string &p : g->poolNames)
    reqs.push_back(std::make_unique<qmtest::LockRequest>(p, O_RDWR));
  // One file held beforehand, so that whatever the first acquisition sets up
  // once is not charged to the files counted.
  qmtest::LockRequest warm(g->dir.file("warm.dat"), O_RDWR);
  int rc = 0;
  QMELMLHndlp hw = get(ext, warm, kExclusive, &rc);
  if (hw == nullptr) {
    st.SkipWithError(statusText("LockGet", rc).c_str());
    return;
  }
  std::vector<QMELMLHndlp> held;
  QMHostStats before{}, after{};
  for (auto _ : st) {
    before = host.stats();
    for (auto &r : reqs) {
      QMELMLHndlp h = get(ext, *r, kExclusive, &rc);
      if (h == nullptr) break;
      held.push_back(h);
    }
    after = host.stats();
  }
  const size_t n = held.size();
  for (size_t i = 0; i < n; ++i) (void)release(ext, held[i], *reqs[i]);
  (void)release(ext, hw, warm);
  if (n != reqs.size()) {
    st.SkipWithError(statusText("LockGet", rc).c_str());
    return;
  }
  st.counters["bytes_per_file"] =
      static_cast<double>(after.pool_bytes - before.pool_bytes) / static_cast<double>(n);
  st.counters["blocks_per_file"] =
      static_cast<double>(after.pool_blocks - before.pool_blocks) / static_cast<double>(n);
  st.SetLabel(std::to_string(n) + " files, names of " +
              std::to_string(g->poolNames.front().size()) + " chars");
}

// One file got and released while the process holds many others. Held files
// and the measured one carry an option (0x105), so no option match is made:
// only the name index and the file table could grow with the count.
void benchBesideHeld(benchmark::State &st, size_t want) {
  if (!g->many) {
    g->many = std::make_unique<ManyHeld>(g->dir.file("many"), g->descriptorBudget);
    if (::mkdir(g->many->dir.c_str(), 0755) != 0) g->many->cap = 0;
  }
  if (!g->many->host || g->many->cap == 0) {
    st.SkipWithError("could not set up the held files");
    return;
  }
  ManyHeld &m = *g->many;
  m.growTo(want);
  const std::string p = m.name('x', 0);
  if (!touch(p)) {
    st.SkipWithError("could not create the file");
    return;
  }
  QMELMExtension *ext = m.host->ext;
  qmtest::LockRequest req(p, O_RDWR);
  for (auto _ : st) {
    if (!cycle(st, ext, req, kExclusiveFail)) break;
  }
  st.counters["held"] = static_cast<double>(m.held.size());
  st.SetLabel(std::to_string(m.held.size()) + " held");
}

// A held external non-exclusive lock changed to exclusive and back: one
// record-lock call each way, and the name checked after the upgrade.
void benchChange(benchmark::State &st) {
  const std::string p = g->dir.file("change.dat");
  if (!touch(p)) {
    st.SkipWithError("could not create the file");
    return;
  }
  QMELMExtension *ext = g->host->ext;
  qmtest::LockRequest req(p, O_RDWR);
  int rc = 0;
  QMELMLHndlp h =
      get(ext, req, QMELM_INT_NONEXCLUSIVE | QMELM_EXT_NONEXCLUSIVE | QMELM_OPT_FAIL, &rc);
  if (h == nullptr) {
    st.SkipWithError(statusText("LockGet", rc).c_str());
    return;
  }
  for (auto _ : st) {
    if ((rc = ext->Functions.LockChange(h, req.get(), QMELM_EXT_EXCLUSIVE, nullptr)) != 0 ||
        (rc = ext->Functions.LockChange(h, req.get(), QMELM_EXT_NONEXCLUSIVE, nullptr)) != 0) {
      st.SkipWithError(statusText("LockChange", rc).c_str());
      break;
    }
  }
  (void)release(ext, h, req);
  st.SetItemsProcessed(st.iterations() * 2);
}

// What one change cannot do without, twice: a record-lock call, and the
// check that the name still names the locked file (fstat and stat).
void benchBareChange(benchmark::State &st) {
  const std::string p = g->dir.file("bare_change.dat");
  const int fd = ::open(p.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0) {
    st.SkipWithError("open failed");
    return;
  }
  struct stat a {};
  struct stat b {};
  for (auto _ : st) {
    for (short type : {F_WRLCK, F_RDLCK}) {
      struct flock fl {};
      fl.l_type = type;
      benchmark::DoNotOptimize(::fcntl(fd, F_SETLK, &fl));
      benchmark::DoNotOptimize(::fstat(fd, &a));
      benchmark::DoNotOptimize(::stat(p.c_str(), &b));
    }
  }
  ::close(fd);
  st.SetItemsProcessed(st.iterations() * 2);
}

bool setUp(Env &e) {
  bool ok = true;
  for (int t = 0; t < 2; ++t) {
    ok = ok && touch(e.dir.file("t" + std::to_string(t) + ".dat"));
    ok = ok && touch(e.dir.file("io" + std::to_string(t) + ".dat"));
  }
  ok = ok && touch(e.dir.file("j.dat")) && touch(e.dir.file("warm.dat"));
  qmtest::HostOptions io;
  io.iobytecount = QMIO_ByteCount_External;
  e.host = qmbench::makeHost();
  e.ioHost = qmbench::makeHost(io);
  return ok && e.host && e.ioHost;
}

}  // namespace

int main(int argc, char **argv) {
  const rlim_t limit = qmbench::raiseDescriptorLimit();
  try {
    g = std::make_unique<Env>();
  } catch (const std::exception &e) {
    std::fprintf(stderr, "bench_lock: %s\n", e.what());
    return 1;
  }
  // Leave room for the descriptors of the other benchmarks, the hosts and the
  // benchmark library itself.
  g->descriptorBudget = limit > 200 ? static_cast<size_t>(limit) - 200 : 0;
  if (!setUp(*g)) {
    std::fprintf(stderr, "bench_lock: could not set up the hosts or files under %s\n",
                 g->dir.path().c_str());
    return 1;
  }
  std::printf("files under %s (%s); descriptor limit %llu\n", g->dir.path().c_str(),
              qmbench::fileSystemOf(g->dir.path()).c_str(), static_cast<unsigned long long>(limit));

  using benchmark::kNanosecond;
  const std::string first5 = "lock/first_holder/" + hexType(kExclusive);
  const std::string first105 = "lock/first_holder/" + hexType(kExclusiveFail);
  const std::string join4a = "lock/joiner/" + hexType(kJoiner);
  const std::string join14a = "lock/joiner/" + hexType(kJoinerFail);
  qmbench::onOneAndTwoThreads(
      benchmark::RegisterBenchmark(first5.c_str(), benchFirstHolder, kExclusive), kNanosecond);
  benchmark::RegisterBenchmark(first105.c_str(), benchFirstHolder, kExclusiveFail)
      ->Unit(kNanosecond);
  qmbench::onOneAndTwoThreads(
      benchmark::RegisterBenchmark("bare/first_holder_calls", benchBareFirstHolder), kNanosecond);
  const std::string firstSideBySide = "lock/first_holder_beside_bare/" + hexType(kExclusive);
  benchmark::RegisterBenchmark(firstSideBySide.c_str(), benchFirstHolderInterleaved, kExclusive)
      ->Unit(kNanosecond);
  const std::string gainSideBySide = "lock/gains_beside_bare/" + hexType(kExclusive);
  benchmark::RegisterBenchmark(gainSideBySide.c_str(), benchGainInterleaved, kExclusive)
      ->Unit(kNanosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark(join4a.c_str(), benchJoiner, kJoiner)->Unit(kNanosecond);
  benchmark::RegisterBenchmark(join14a.c_str(), benchJoiner, kJoinerFail)->Unit(kNanosecond);
  benchmark::RegisterBenchmark("bare/stat_open_close", benchBareStatOpenClose)->Unit(kNanosecond);
  qmbench::onOneAndTwoThreads(benchmark::RegisterBenchmark("io/update", benchUpdateIOInfo),
                              kNanosecond);
  benchmark::RegisterBenchmark("pool/bytes_per_file", benchPoolBytes)->Iterations(1);
  benchmark::RegisterBenchmark("lock/change_0x008_0x004_and_back", benchChange)->Unit(kNanosecond);
  benchmark::RegisterBenchmark("bare/setlk_fstat_stat_twice", benchBareChange)->Unit(kNanosecond);
  const std::vector<size_t> counts = {10, 1000, 10000};
  std::vector<std::string> besideNames;
  for (size_t n : counts) {
    besideNames.push_back("lock/beside_held:" + std::to_string(n));
    benchmark::RegisterBenchmark(besideNames.back().c_str(), benchBesideHeld, n)->Unit(kNanosecond);
  }

  using qmbench::Clock;
  using qmbench::Goal;
  using qmbench::Row;
  const auto row = qmbench::versusRow;
  const auto gain = qmbench::gainRow;
  const std::string bareFirst = "bare/first_holder_calls";
  const std::string bareJoin = "bare/stat_open_close";
  std::vector<Row> rows = {
      qmbench::countersRow("first holder 0x005 vs bare calls, timed side by side", firstSideBySide,
                           "lock_ns", "bare_ns", Goal::RatioAtMost, 1.10),
      row("first holder 0x005 (option matched) vs bare calls", first5, 1, bareFirst, 1, Clock::Cpu,
          Goal::Info, 0),
      row("first holder 0x105 (option given) vs bare calls", first105, 1, bareFirst, 1, Clock::Cpu,
          Goal::Info, 0),
      row("joiner 0x04a (option matched) vs stat+open+close", join4a, 1, bareJoin, 1, Clock::Cpu,
          Goal::RatioAtMost, 0.80),
      row("joiner 0x14a (option given) vs stat+open+close", join14a, 1, bareJoin, 1, Clock::Cpu,
          Goal::Info, 0),
      row("UpdateIOInfo, 1 thread", "io/update", 1, "", 1, Clock::Cpu, Goal::ValueBelow, 50),
      row("UpdateIOInfo, 2 threads on 2 files", "io/update", 2, "", 1, Clock::Cpu, Goal::ValueBelow,
          50),
      row("UpdateIOInfo, 2 threads on 2 files", "io/update", 2, "", 1, Clock::RealPerThread,
          Goal::ValueBelow, 50),
      gain("UpdateIOInfo, 2 threads vs 1 (throughput gain)", "io/update", Goal::RatioAtLeast, 1.9),
  };
  rows.push_back(row("LockChange 0x008 -> 0x004 -> 0x008 vs 2x (F_SETLK+fstat+stat)",
                     "lock/change_0x008_0x004_and_back", 1, "bare/setlk_fstat_stat_twice", 1,
                     Clock::Cpu, Goal::RatioAtMost, 1.3));
  Row pool = row("pool bytes per held file", "pool/bytes_per_file", 1, "", 1, Clock::Cpu,
                 Goal::ValueBelow, 1024);
  pool.counter = "bytes_per_file";
  pool.unit = "B";
  rows.push_back(pool);
  rows.push_back(
      gain("get+release 0x005, 2 threads vs 1 (throughput gain)", first5, Goal::Info, 0));
  rows.push_back(gain("bare calls, 2 threads vs 1 (throughput gain)", bareFirst, Goal::Info, 0));
  // Threads on different files do not meet: the lock manager keeps what the
  // machine gives the bare calls on two threads.
  Row kept =
      qmbench::keptGainRow("get+release 0x005 gain vs bare calls' gain, 2 threads on 2 files",
                           first5, bareFirst, Goal::Info, 0);
  rows.push_back(kept);
  // The same, with the four figures timed in alternating phases.
  Row keptSideBySide =
      qmbench::countersRow("get+release 0x005 gain vs bare calls' gain, timed side by side",
                           gainSideBySide, "lock_gain", "bare_gain", Goal::RatioAtLeast, 0.95);
  keptSideBySide.unit = "";
  rows.push_back(keptSideBySide);
  // Sleeps on a mutex do not show on the CPU clock; the switch count does.
  Row waits = row("get+release 0x005, 2 threads: sleeps per op vs bare calls", first5, 2, bareFirst,
                  2, Clock::Cpu, Goal::Info, 0);
  waits.counter = "vcsw/op";
  waits.unit = "";
  rows.push_back(waits);
  for (const std::string &name : besideNames) {
    rows.push_back(row("get+release 0x105 beside held files vs bare calls", name, 1, bareFirst, 1,
                       Clock::Cpu, Goal::Info, 0));
  }
  // Name lookup goes through an index: the cost must not grow with the
  // number of files held.
  rows.push_back(row("get+release 0x105 beside 10,000 held vs beside 10", besideNames.back(), 1,
                     besideNames.front(), 1, Clock::Cpu, Goal::RatioAtMost, 1.2));

  const int rc = qmbench::runAndSummarise(argc, argv, rows);
  g.reset();
  return rc;
}
