// bench_util.h - shared pieces of the lock manager's benchmarks: a console
// reporter that keeps the figures of every run, and a summary table that sets
// each figure beside its bare system-call baseline timed in the same process,
// with the ratio and whether the goal was met. Benchmarks never fail on a
// figure: the table only says what was measured.
#ifndef QMBENCH_UTIL_H
#define QMBENCH_UTIL_H

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qmtest_host.h"

namespace qmbench {

// "what: status 0x........" for a benchmark's error.
inline std::string statusText(const char *what, int rc) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "%s: status 0x%08x", what, static_cast<unsigned>(rc));
  return buf;
}

// A host with the lock manager loaded, or null when it could not be made.
inline std::unique_ptr<qmtest::TestHost> makeHost(qmtest::HostOptions o = {}) {
  try {
    auto h = std::make_unique<qmtest::TestHost>(o);
    return h->ext != nullptr ? std::move(h) : nullptr;
  } catch (...) {
    return nullptr;
  }
}

// What one benchmark instance measured (the median when repeated).
struct Figures {
  double cpu_ns = 0;   // thread CPU time per iteration (summed over threads)
  double real_ns = 0;  // wall time per iteration over all threads
  int64_t threads = 1;
  int64_t iterations = 0;
  bool failed = false;
  std::string error;
  std::string label;
  std::map<std::string, double> counters;
};

// Prints like the console reporter and remembers every run by benchmark name
// and thread count.
class Recorder : public benchmark::ConsoleReporter {
 public:
  explicit Recorder(OutputOptions o) : benchmark::ConsoleReporter(o) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    benchmark::ConsoleReporter::ReportRuns(runs);
    for (const Run &r : runs) record(r);
  }

  const Figures *find(const std::string &name, int64_t threads) const {
    auto it = runs_.find({name, threads});
    return it == runs_.end() ? nullptr : &it->second;
  }

 private:
  void record(const Run &r) {
    const std::pair<std::string, int64_t> key{r.run_name.function_name, r.threads};
    const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
    if (r.run_type == Run::RT_Aggregate && !median) return;
    if (!median && medians_.count(key) != 0) return;
    if (median) medians_.insert(key);
    const double toNs = 1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);
    Figures f;
    f.cpu_ns = r.GetAdjustedCPUTime() * toNs;
    f.real_ns = r.GetAdjustedRealTime() * toNs;
    f.threads = r.threads;
    f.iterations = static_cast<int64_t>(r.iterations);
    f.failed = r.error_occurred;
    f.error = r.error_message;
    f.label = r.report_label;
    for (const auto &[name, c] : r.counters) f.counters[name] = c.value;
    runs_[key] = std::move(f);
  }

  std::map<std::pair<std::string, int64_t>, Figures> runs_;
  std::set<std::pair<std::string, int64_t>> medians_;
};

// Which clock a row reads.
enum class Clock {
  Cpu,            // thread CPU time per operation, summed over threads
  Real,           // wall time per operation over all threads (inverse throughput)
  RealPerThread,  // wall time per operation as each thread sees it
};

enum class Goal { Info, RatioAtMost, RatioBelow, RatioAtLeast, ValueBelow };

// One line of the summary.
struct Row {
  std::string label;
  std::string bench;
  int64_t threads = 1;
  std::string bare;  // empty: no baseline
  int64_t bareThreads = 1;
  Clock clock = Clock::Cpu;
  Goal goal = Goal::Info;
  double target = 0;
  bool speedup = false;  // ratio is bare/value (throughput gain) instead of value/bare
  // The value is bench's wall-clock throughput gain at threads over 1 thread,
  // the baseline bare's gain at bareThreads over 1 thread, the ratio the
  // first over the second: how much of what the machine gives bench keeps.
  bool gainOfGains = false;
  std::string counter;      // non-empty: the value is this counter, not a time
  std::string bareCounter;  // non-empty: the baseline is this counter of bare
  std::string unit = "ns";
};

// Times b on the wall clock, once on 1 thread and once on 2: the runs a
// 2-thread throughput gain is read from.
inline benchmark::internal::Benchmark *onOneAndTwoThreads(benchmark::internal::Benchmark *b,
                                                          benchmark::TimeUnit unit) {
  return b->Unit(unit)->UseRealTime()->Threads(1)->Threads(2);
}

// A summary row: bench (at threads) against bare (at bareThreads).
inline Row versusRow(std::string label, std::string bench, int64_t threads, std::string bare,
                     int64_t bareThreads, Clock clock, Goal goal, double target) {
  Row r;
  r.label = std::move(label);
  r.bench = std::move(bench);
  r.threads = threads;
  r.bare = std::move(bare);
  r.bareThreads = bareThreads;
  r.clock = clock;
  r.goal = goal;
  r.target = target;
  return r;
}

// A row whose figure and baseline are two counters of one benchmark that
// measured both side by side (see the interleaved benchmarks).
inline Row countersRow(std::string label, const std::string &bench, std::string counter,
                       std::string bareCounter, Goal goal, double target) {
  Row r = versusRow(std::move(label), bench, 1, bench, 1, Clock::Cpu, goal, target);
  r.counter = std::move(counter);
  r.bareCounter = std::move(bareCounter);
  return r;
}

// The wall-clock throughput gain of bench on 2 threads over 1 thread.
inline Row gainRow(std::string label, const std::string &bench, Goal goal, double target) {
  Row r = versusRow(std::move(label), bench, 2, bench, 1, Clock::Real, goal, target);
  r.speedup = true;
  return r;
}

// How much of the bare calls' 2-thread gain bench keeps (see gainOfGains).
inline Row keptGainRow(std::string label, const std::string &bench, const std::string &bare,
                       Goal goal, double target) {
  Row r = versusRow(std::move(label), bench, 2, bare, 2, Clock::Real, goal, target);
  r.gainOfGains = true;
  return r;
}

inline double readValue(const Row &row, const Figures &f, Clock clock) {
  if (!row.counter.empty()) {
    auto it = f.counters.find(row.counter);
    return it == f.counters.end() ? -1.0 : it->second;
  }
  switch (clock) {
    case Clock::Cpu:
      return f.cpu_ns;
    case Clock::Real:
      return f.real_ns;
    case Clock::RealPerThread:
      return f.real_ns * static_cast<double>(f.threads);
  }
  return -1.0;
}

inline std::string fmt(const char *format, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, format, v);
  return buf;
}

inline std::string describeGoal(const Row &row) {
  switch (row.goal) {
    case Goal::Info:
      return "-";
    case Goal::RatioAtMost:
      return fmt("ratio <= %.2f", row.target);
    case Goal::RatioBelow:
      return fmt("ratio < %.2f", row.target);
    case Goal::RatioAtLeast:
      return fmt("ratio >= %.2f", row.target);
    case Goal::ValueBelow:
      return fmt("< %.0f ", row.target) + row.unit;
  }
  return "-";
}

inline const char *clockName(const Row &row) {
  if (!row.counter.empty()) return "-";
  switch (row.clock) {
    case Clock::Cpu:
      return "cpu";
    case Clock::Real:
      return "wall";
    case Clock::RealPerThread:
      return "wall1";
  }
  return "-";
}

inline std::string loadAverage() {
  double l[3] = {0, 0, 0};
  if (getloadavg(l, 3) != 3) return "unknown";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f %.2f %.2f", l[0], l[1], l[2]);
  return buf;
}

inline bool goalMet(const Row &row, double ratio) {
  switch (row.goal) {
    case Goal::RatioAtMost:
      return ratio <= row.target;
    case Goal::RatioBelow:
      return ratio < row.target;
    case Goal::RatioAtLeast:
      return ratio >= row.target;
    default:
      return false;
  }
}

// A row whose value and baseline are both throughput gains (see Row).
inline void printGainOfGains(const Recorder &rec, const Row &row) {
  auto gain = [&rec](const std::string &name, int64_t threads) {
    const Figures *one = rec.find(name, 1);
    const Figures *many = rec.find(name, threads);
    if (one == nullptr || many == nullptr || one->failed || many->failed || many->real_ns <= 0)
      return -1.0;
    return one->real_ns / many->real_ns;
  };
  const double g = gain(row.bench, row.threads);
  const double b = gain(row.bare, row.bareThreads);
  if (g <= 0 || b <= 0) {
    std::printf("%-64s %-5s %11s %11s %7s %14s %s\n", row.label.c_str(), "gain", "-", "-", "-",
                describeGoal(row).c_str(), "not run");
    return;
  }
  const double ratio = g / b;
  std::printf("%-64s %-5s %11s %11s %7s %14s %s\n", row.label.c_str(), "gain",
              fmt("%.3f", g).c_str(), fmt("%.3f", b).c_str(), fmt("%.3f", ratio).c_str(),
              describeGoal(row).c_str(),
              row.goal == Goal::Info ? "-" : (goalMet(row, ratio) ? "yes" : "NO"));
}

inline void printSummary(const Recorder &rec, const std::vector<Row> &rows,
                         const std::string &loadBefore) {
  std::printf(
      "\nSummary: CPU rows are thread CPU time per operation (summed over threads);\n"
      "wall rows and throughput gains are wall time over all threads (wall1: as one thread\n"
      "sees it) and need idle cores.\n"
      "Load average before the run %s, after it %s; %ld CPUs online.\n",
      loadBefore.c_str(), loadAverage().c_str(), sysconf(_SC_NPROCESSORS_ONLN));
  std::printf("%-64s %-5s %11s %11s %7s %14s %s\n", "name", "clock", "ns/op", "bare ns/op", "ratio",
              "target", "met?");
  for (const Row &row : rows) {
    if (row.gainOfGains) {
      printGainOfGains(rec, row);
      continue;
    }
    const Figures *f = rec.find(row.bench, row.threads);
    const Figures *b = row.bare.empty() ? nullptr : rec.find(row.bare, row.bareThreads);
    std::string label = row.label;
    if (f != nullptr && !f->label.empty()) label += " [" + f->label + "]";
    if (f == nullptr || f->failed || (!row.bare.empty() && (b == nullptr || b->failed))) {
      std::string why = "not run";
      if (f != nullptr && f->failed) why = "failed: " + f->error;
      if (b != nullptr && b->failed) why = "baseline failed: " + b->error;
      std::printf("%-64s %-5s %11s %11s %7s %14s %s\n", label.c_str(), clockName(row), "-", "-",
                  "-", describeGoal(row).c_str(), why.c_str());
      continue;
    }
    const double v = readValue(row, *f, row.clock);
    double bv = b != nullptr ? readValue(row, *b, row.clock) : 0.0;
    if (b != nullptr && !row.bareCounter.empty()) {
      auto it = b->counters.find(row.bareCounter);
      bv = it == b->counters.end() ? -1.0 : it->second;
    }
    const char *form = row.counter.empty() ? "%.1f" : "%.4g";
    std::string value = fmt(form, v) + (row.counter.empty() ? "" : " " + row.unit);
    std::string bare = b != nullptr ? fmt(form, bv) : "-";
    double ratio = 0;
    std::string ratioText = "-";
    if (b != nullptr && v > 0 && bv > 0) {
      ratio = row.speedup ? bv / v : v / bv;
      ratioText = fmt("%.3f", ratio);
    }
    bool met = false;
    if (row.goal == Goal::ValueBelow)
      met = v >= 0 && v < row.target;
    else if (row.goal != Goal::Info)
      met = b != nullptr && goalMet(row, ratio);
    std::printf("%-64s %-5s %11s %11s %7s %14s %s\n", label.c_str(), clockName(row), value.c_str(),
                bare.c_str(), ratioText.c_str(), describeGoal(row).c_str(),
                row.goal == Goal::Info ? "-" : (met ? "yes" : "NO"));
  }
  std::fflush(stdout);
}

// Voluntary context switches of the calling thread per iteration: a thread
// that has to wait for a mutex another thread holds sleeps, which the CPU
// clock does not see but this count does. Summed over threads and divided by
// all iterations, as the "vcsw/op" counter.
class SwitchCount {
 public:
  explicit SwitchCount(benchmark::State &st) : st_(st), start_(now()) {}
  ~SwitchCount() {
    st_.counters["vcsw/op"] =
        benchmark::Counter(static_cast<double>(now() - start_), benchmark::Counter::kAvgIterations);
  }
  SwitchCount(const SwitchCount &) = delete;
  SwitchCount &operator=(const SwitchCount &) = delete;

 private:
  static long now() {
    struct rusage ru {};
    return getrusage(RUSAGE_THREAD, &ru) == 0 ? ru.ru_nvcsw : 0;
  }
  benchmark::State &st_;
  long start_;
};

// Raises the soft descriptor limit to the hard one; returns the soft limit now
// in force.
inline rlim_t raiseDescriptorLimit() {
  struct rlimit rl {};
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return 0;
  if (rl.rlim_cur < rl.rlim_max) {
    struct rlimit want = rl;
    want.rlim_cur = rl.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &want) == 0) rl = want;
  }
  return rl.rlim_cur;
}

// A short name for the file system a directory lives on.
inline std::string fileSystemOf(const std::string &dir) {
  struct statfs s {};
  if (statfs(dir.c_str(), &s) != 0) return "unknown";
  switch (static_cast<unsigned long>(s.f_type)) {
    case 0xEF53UL:
      return "ext2/3/4";
    case 0x01021994UL:
      return "tmpfs";
    case 0x794c7630UL:
      return "overlayfs";
    case 0x58465342UL:
      return "xfs";
    case 0x9123683EUL:
      return "btrfs";
    default: {
      char buf[32];
      std::snprintf(buf, sizeof buf, "type 0x%lx", static_cast<unsigned long>(s.f_type));
      return buf;
    }
  }
}

// Runs the registered benchmarks with the usual command line and prints the
// summary of rows afterwards.
inline int runAndSummarise(int argc, char **argv, const std::vector<Row> &rows) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Recorder rec(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                     : benchmark::ConsoleReporter::OO_Tabular);
  const std::string load = loadAverage();
  benchmark::RunSpecifiedBenchmarks(&rec);
  printSummary(rec, rows, load);
  benchmark::Shutdown();
  return 0;
}

}  // namespace qmbench

#endif  // QMBENCH_UTIL_H
