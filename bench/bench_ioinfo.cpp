// bench_ioinfo.cpp - the I/O queries and the I/O report over 10,000 records
// made by real acquisitions of 100 files in two directories: GetIOInfo and
// ListIOInfo (with ListIOInfoFree) selecting all, one file or one directory,
// with and without mutexes, and the report written to a memory journal and to
// a journal that discards what it gets (the report's own cost). Each row is
// the CPU time per record on the list: every query visits each record at
// least to compare its name.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "qmtest_host.h"

namespace {

constexpr QMMemSize kRecords = 10000;
constexpr int kFilesPerDir = 50;

using qmbench::statusText;

// A host holding kRecords closed I/O records: 100 acquisitions of each of
// 100 files, d1/f00 .. d1/f49 and d2/f00 .. d2/f49.
struct Records {
  qmtest::TempDir dir;
  std::unique_ptr<qmtest::TestHost> host;
  std::string file, subdir;  // what the by-file and by-directory queries select
  std::string error;

  Records() {
    host = qmbench::makeHost(qmtest::HostOptions{.iobytecount = QMIO_ByteCount_External});
    if (!host) {
      error = "lock manager not loaded";
      return;
    }
    std::vector<std::string> files;
    for (const char *d : {"d1", "d2"}) {
      if (::mkdir(dir.file(d).c_str(), 0755) != 0) error = "mkdir failed";
      for (int i = 0; i < kFilesPerDir; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "/f%02d", i);
        files.push_back(dir.file(d) + name);
      }
    }
    file = files[7];
    subdir = dir.file("d2") + "/";
    QMELMExtension *ext = host->ext;
    for (QMMemSize i = 0; i < kRecords && error.empty(); ++i) {
      qmtest::LockRequest r(files[i % files.size()]);
      int rc = 0;
      QMELMLHndlp h =
          ext->Functions.LockGet(ext, r.get(), QMELM_RESOURCE_FILE,
                                 QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE, nullptr, &rc);
      if (h == nullptr) {
        error = statusText("LockGet", rc);
        break;
      }
      QMELMIOStats s{};
      s.bytesRead = s.reads = 1;
      (void)ext->Functions.UpdateIOInfo(h, &s, nullptr);
      if ((rc = ext->Functions.LockRelease(h, r.get(), nullptr)) != 0)
        error = statusText("LockRelease", rc);
    }
    if (error.empty() && ext->numIOInfo != kRecords) error = "unexpected number of records";
  }
};

std::unique_ptr<Records> g_records;

enum class Select { All, File, Directory };

// A query's parameters, owning the path.
struct Query {
  std::vector<QMChar> path;
  QMELMQueryIOInfoParms parms{};
  Query(Select sel, bool lock) {
    parms.lockRequest = lock ? 1 : 0;
    if (sel == Select::All) return;
    path = qmtest::qm(sel == Select::File ? g_records->file : g_records->subdir);
    QMChar *&p = sel == Select::File ? parms.matchFile : parms.matchDir;
    QMStrSize &n = sel == Select::File ? parms.matchFileLen : parms.matchDirLen;
    p = path.data();
    n = static_cast<QMStrSize>(path.size());
  }
};

bool ready(benchmark::State &st) {
  if (g_records && g_records->error.empty()) return true;
  st.SkipWithError(g_records ? g_records->error.c_str() : "no records");
  return false;
}

// Sets the "ns/record" counter: CPU time of the calling thread in the timed
// loop, per iteration and per record on the list (the machine may be busy).
class PerRecord {
 public:
  explicit PerRecord(benchmark::State &st) : st_(st), start_(cpuNs()) {}
  ~PerRecord() {
    const double n = static_cast<double>(st_.iterations()) * static_cast<double>(kRecords);
    if (n > 0) st_.counters["ns/record"] = (cpuNs() - start_) / n;
  }
  PerRecord(const PerRecord &) = delete;
  PerRecord &operator=(const PerRecord &) = delete;

 private:
  static double cpuNs() {
    struct timespec ts {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
  }
  benchmark::State &st_;
  double start_;
};

// One query per iteration: run(ext, query, &matched) makes it (and gives
// back what it allocated) and returns the status of the first call that failed.
template <class Run>
void benchQuery(benchmark::State &st, Select sel, bool lock, const char *what, Run run) {
  if (!ready(st)) return;
  QMELMExtension *ext = g_records->host->ext;
  Query q(sel, lock);
  QMMemSize matched = 0;
  {
    PerRecord timing(st);
    for (auto _ : st) {
      if (const int rc = run(ext, &q.parms, &matched); rc != 0) {
        st.SkipWithError(statusText(what, rc).c_str());
        break;
      }
    }
  }
  st.SetLabel(std::to_string(matched) + " of " + std::to_string(kRecords) + " match");
}

void benchGet(benchmark::State &st, Select sel, bool lock) {
  benchQuery(st, sel, lock, "GetIOInfo",
             [](QMELMExtension *ext, QMELMQueryIOInfoParms *q, QMMemSize *matched) {
               QMELMGetIOInfoParms out{};
               const int rc = ext->Functions.GetIOInfo(ext, q, &out, nullptr);
               benchmark::DoNotOptimize(out);
               *matched = out.numEntries;
               return rc;
             });
}

void benchList(benchmark::State &st, Select sel, bool lock) {
  benchQuery(st, sel, lock, "ListIOInfo or ListIOInfoFree",
             [](QMELMExtension *ext, QMELMQueryIOInfoParms *q, QMMemSize *matched) {
               QMELMListIOInfoParms out{};
               const int rc = ext->Functions.ListIOInfo(ext, q, &out, nullptr);
               *matched = out.numEntries;
               return rc != 0 ? rc : ext->Functions.ListIOInfoFree(ext, &out, nullptr);
             });
}

// A journal that takes every message and keeps nothing.
QMStatus discard(QMJnlh, QMSeverity, QMStatus, va_list) {
  return 0;
}

void benchReport(benchmark::State &st, bool memoryJournal) {
  if (!ready(st)) return;
  qmtest::TestHost &host = *g_records->host;
  QMJnl sink{};
  sink.statusToJnl = discard;
  QMJnlh jnl = memoryJournal ? qmhost_journal_create(host.hndl, QM_JNL_MEMORY, nullptr) : &sink;
  QMELMJnlIOInfoParms parms{};
  {
    PerRecord timing(st);
    for (auto _ : st) {
      if (const int rc = host.ext->Functions.JnlIOInfo(host.ext, &parms, jnl); rc != 0) {
        st.SkipWithError(statusText("JnlIOInfo", rc).c_str());
        break;
      }
    }
  }
  if (memoryJournal) jnl->generic.destroy(jnl);
}

}  // namespace

int main(int argc, char **argv) {
  try {
    g_records = std::make_unique<Records>();
  } catch (const std::exception &e) {
    std::fprintf(stderr, "bench_ioinfo: %s\n", e.what());
    return 1;
  }
  std::printf("%llu I/O records of 100 files in %s (%s)\n",
              static_cast<unsigned long long>(kRecords), g_records->dir.path().c_str(),
              qmbench::fileSystemOf(g_records->dir.path()).c_str());

  using benchmark::kMicrosecond;
  using qmbench::Row;
  std::vector<Row> rows;
  auto add = [&](const std::string &name, const std::string &label, auto fn, auto... args) {
    benchmark::RegisterBenchmark(name.c_str(), fn, args...)->Unit(kMicrosecond);
    Row r;
    r.label = label;
    r.bench = name;
    r.counter = "ns/record";
    r.unit = "ns/record";
    rows.push_back(r);
  };
  const struct {
    Select sel;
    const char *name;
  } selections[] = {{Select::All, "all"}, {Select::File, "file"}, {Select::Directory, "dir"}};
  for (bool lock : {true, false}) {
    const std::string mode = lock ? "locked" : "unlocked";
    for (const auto &s : selections) {
      add("get/" + std::string(s.name) + "/" + mode,
          "GetIOInfo, " + std::string(s.name) + ", " + mode + ", per record", benchGet, s.sel,
          lock);
      add("list/" + std::string(s.name) + "/" + mode,
          "ListIOInfo+Free, " + std::string(s.name) + ", " + mode + ", per record", benchList,
          s.sel, lock);
    }
  }
  add("report/memory_journal", "JnlIOInfo to a memory journal, per record", benchReport, true);
  add("report/discarding_journal", "JnlIOInfo to a discarding journal, per record", benchReport,
      false);

  const int rc = qmbench::runAndSummarise(argc, argv, rows);
  g_records.reset();
  return rc;
}
