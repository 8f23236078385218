// I/O queries and the I/O report over records of real acquisitions: what is
// selected by file, by directory or all, what bad input and a failed list
// allocation leave behind, the report's messages, and queries and reports
// racing with updates, resets, lock traffic and a fork.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "test_lock_support.h"

using namespace locktest;

namespace {

// Whether text matches pattern, in which '#' stands for a digit and '*' for
// any run of characters (no regular expressions: <regex> trips g++ 12's
// -Wmaybe-uninitialized in optimised sanitizer builds).
bool like(std::string_view text, std::string_view pattern) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') {
    for (size_t i = 0; i <= text.size(); ++i)
      if (like(text.substr(i), pattern.substr(1))) return true;
    return false;
  }
  if (text.empty()) return false;
  const bool ok = pattern[0] == '#' ? (text[0] >= '0' && text[0] <= '9') : text[0] == pattern[0];
  return ok && like(text.substr(1), pattern.substr(1));
}

// A selection that owns its paths (empty: not given).
struct Query {
  std::vector<QMChar> file, dir;
  QMELMQueryIOInfoParms parms{};
  explicit Query(bool lock, const std::string &f = {}, const std::string &d = {}, NLScei enc = 0)
      : file(qm(f)), dir(qm(d)) {
    parms.lockRequest = lock ? 1 : 0;
    parms.matchFile = f.empty() ? nullptr : file.data();
    parms.matchFileLen = static_cast<QMStrSize>(file.size());
    parms.matchDir = d.empty() ? nullptr : dir.data();
    parms.matchDirLen = static_cast<QMStrSize>(dir.size());
    parms.enc_pathname = enc;
  }
  Query(const Query &) = delete;
};

int getInfo(TestHost &host, Query &q, QMELMGetIOInfoParms &out, QMJnlh j = nullptr) {
  return host.fn().GetIOInfo(host.ext, &q.parms, &out, j);
}

// The filled entries of a list query (its array given back); null for no array.
std::optional<std::vector<QMELMByFileIOStats>> listed(TestHost &host, Query &q) {
  QMELMListIOInfoParms p{};
  EXPECT_EQ(host.fn().ListIOInfo(host.ext, &q.parms, &p, nullptr), 0);
  if (p.list == nullptr) return std::nullopt;
  std::vector<QMELMByFileIOStats> out(p.list, p.list + p.numEntries);
  EXPECT_EQ(host.fn().ListIOInfoFree(host.ext, &p, nullptr), 0);
  return out;
}

// Records newest first E, C, B, A3, A2, A1 (bytesRead 32 .. 1) in d1, d2 and
// d1x, a sibling of d1 that d1 is a prefix of. A2 was closed and its
// descriptor parked, A3 took it again; B is closed; A1, A3, C and E are held.
struct Scene {
  TempDir dir;
  std::string d1 = dir.file("d1"), d2 = dir.file("d2"), d1x = dir.file("d1x"), a = d1 + "/a";
  LockRequest a1{a}, a2{a}, a3{a}, b{d1 + "/b"}, c{d2 + "/c"}, e{d1x + "/e"};
  std::vector<QMELMLHndlp> held;

  explicit Scene(TestHost &host) {
    for (const std::string &d : {d1, d2, d1x}) mkdir(d.c_str(), 0755);
    auto take = [&](LockRequest &r, QMIOSize n) {
      int rc = 0;
      QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
      QMELMIOStats s = ioIncrement(n);
      EXPECT_EQ(rc + host.fn().UpdateIOInfo(h, &s, nullptr), 0);
      return h;
    };
    held.push_back(take(a1, 1));
    EXPECT_EQ(host.release(take(a2, 2)), 0);
    held.push_back(take(a3, 4));
    EXPECT_EQ(host.release(take(b, 8)), 0);
    held.push_back(take(c, 16));
    held.push_back(take(e, 32));
  }
};

}  // namespace

TEST(IOInfoQuery, SelectsByFileByDirectoryOrAll) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  Query any(true);
  QMELMGetIOInfoParms none{};
  none.numEntries = 7;
  EXPECT_EQ(getInfo(host, any, none), 0);  // no records: nothing touched or allocated
  EXPECT_EQ(none.numEntries, 7u);
  EXPECT_FALSE(listed(host, any));

  Scene s(host);
  ASSERT_EQ(host.ext->numIOInfo, 6u);
  const struct {
    std::string file, dir;
    QMMemSize entries;
    QMIOSize bytesRead;
  } cases[] = {
      {"", "", 6, 63},
      {s.d1 + "//./a", "", 3, 7},  // resolved first; every acquisition's record
      {s.d1 + "/A", "", 0, 0},     // case-sensitive
      {"", s.d1, 5, 47},           // a plain prefix: d1x/e too
      {"", s.d1 + "/", 4, 15},
      {"", s.a + "/longer/than/every/name", 0, 0},
      {s.d2 + "/c", s.d1, 6, 63},  // both given: all
  };
  for (bool lock : {true, false}) {
    for (const auto &c : cases) {
      SCOPED_TRACE(c.file + " | " + c.dir + (lock ? " locked" : ""));
      Query q(lock, c.file, c.dir);
      QMELMGetIOInfoParms g{};
      ASSERT_EQ(getInfo(host, q, g), 0);
      EXPECT_EQ(g.numEntries, c.entries);
      EXPECT_EQ(g.totals.bytesRead * 2, g.totals.bytesWritten);
      EXPECT_EQ(g.totals.bytesRead, c.bytesRead);
      auto l = listed(host, q);
      ASSERT_TRUE(l);  // an array even for no match
      QMIOSize sum = 0, last = 64;
      for (const QMELMByFileIOStats &e : *l) {
        EXPECT_LT(e.totals.bytesRead, last);  // newest first
        sum += last = e.totals.bytesRead;
      }
      EXPECT_EQ(sum, c.bytesRead);
    }
  }

  // Both paths given: nothing is resolved, so paths the encoding cannot hold
  // do no harm; a second query into the same block adds the same again.
  Query both(true, s.d1 + "/\u4e00", s.d1 + "/\u4e00", QM_CEI_ISO8859_1);
  QMELMGetIOInfoParms g{};
  ASSERT_EQ(getInfo(host, both, g) + getInfo(host, both, g), 0);
  EXPECT_EQ(g.numEntries, 12u);
  EXPECT_EQ(g.totals.bytesRead, 126);

  Query byFile(true, s.a);
  QMELMListIOInfoParms lp{};
  lp.numEntries = 100;  // not zeroed: counted on, entries still from 0
  ASSERT_EQ(host.fn().ListIOInfo(host.ext, &byFile.parms, &lp, nullptr), 0);
  ASSERT_EQ(lp.numEntries, 103u);
  const QMELMByFileIOStats &A3 = lp.list[0], &A2 = lp.list[1], &A1 = lp.list[2];
  EXPECT_EQ(utf8(A1.filename, A1.filenameLen), s.a);
  EXPECT_EQ(A1.openFlags, static_cast<uint32_t>(O_RDWR | O_CREAT));
  EXPECT_TRUE(A1.closeTime == -1.0 && A3.closeTime == -1.0);  // open
  EXPECT_EQ(A3.openTime, 0.0);                                // the parked descriptor
  EXPECT_TRUE(A2.openTime > 0 && A2.closeTime >= A2.openTime);
  EXPECT_EQ(lp.list[3].filename, nullptr);  // room for every record, zeroed
  EXPECT_EQ(host.fn().ListIOInfoFree(host.ext, &lp, nullptr), 0);
  for (QMELMLHndlp h : s.held) EXPECT_EQ(host.release(h), 0);
}

// Bad input gets a status and leaves nothing. So does a list whose array
// cannot be allocated: the resolved path goes back to qmioe and, when
// locking, IOInfoMutex is released, so I/O-counted acquisitions go on.
TEST(IOInfoQuery, BadInputAndAFailedListAllocation) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  Scene s(host);
  const size_t blocks = host.liveBlocks();
  QMELMGetIOInfoParms g{};
  QMELMListIOInfoParms l{};
  QMELMJnlIOInfoParms jp{};
  Query all(true);
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().GetIOInfo(host.ext, nullptr, &g, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().GetIOInfo(host.ext, &all.parms, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().ListIOInfo(host.ext, nullptr, &l, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().ListIOInfoFree(host.ext, nullptr, host.jnl));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().JnlIOInfo(host.ext, nullptr, host.jnl));
  EXPECT_CODES(host.lastCodes(), {QMELM_E_NULL_PARMS});
  EXPECT_STATUS(QMELM_E_NO_JOURNAL, host.fn().JnlIOInfo(host.ext, &jp, nullptr));
  EXPECT_EQ(host.fn().ListIOInfoFree(host.ext, &l, nullptr), 0);  // no list: nothing to free

  // A path the encoding cannot hold; a relative one with no current directory.
  char cwd[4096];
  const std::string gone = s.dir.file("gone");
  ASSERT_TRUE(getcwd(cwd, sizeof cwd) && mkdir(gone.c_str(), 0755) == 0);
  ASSERT_TRUE(chdir(gone.c_str()) == 0 && rmdir(gone.c_str()) == 0);
  for (bool lock : {true, false}) {
    Query unmappable(lock, s.d1 + "/\u4e00", "", QM_CEI_ISO8859_1), unresolvable(lock, "", "d1");
    for (auto [q, want] :
         {std::pair{&unmappable, QM_E_UNMAPPABLE}, {&unresolvable, QM_E_BAD_PATH}}) {
      EXPECT_STATUS(want, host.fn().ListIOInfo(host.ext, &q->parms, &l, nullptr));
      EXPECT_STATUS(want, getInfo(host, *q, g, host.jnl));
      EXPECT_CODES(host.lastCodes(), {want});
    }
  }
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ(g.numEntries + l.numEntries, 0u);
  EXPECT_EQ(l.list, nullptr);
  EXPECT_EQ(jp.locale, nullptr);
  EXPECT_EQ(host.liveBlocks(), blocks);

  Query byDir(false, "", s.d1);
  host.armInstruments();
  const long before = host.calls(QMHOST_FAIL_ALLOC);
  ASSERT_EQ(listed(host, byDir)->size(), 5u);
  host.clearJournal();
  host.failNth(QMHOST_FAIL_ALLOC, host.calls(QMHOST_FAIL_ALLOC) - before);  // the array
  EXPECT_STATUS(QMELM_E_NO_MEMORY, host.fn().ListIOInfo(host.ext, &byDir.parms, &l, host.jnl));
  EXPECT_EQ(host.entryCount(), 0u);
  EXPECT_TRUE(l.list == nullptr && l.numEntries == 0);
  EXPECT_EQ(host.liveBlocks(), blocks);

  host.failNth(QMHOST_FAIL_ALLOC, 1);
  EXPECT_STATUS(QMELM_E_NO_MEMORY, host.fn().ListIOInfo(host.ext, &all.parms, &l, host.jnl));
  QMLockh m = host.ext->IOInfoMutex;
  QMStatus other = -1;
  std::thread([&] {
    if ((other = m->get(m, 1, 0)) == 0) (void)m->release(m);
  }).join();
  EXPECT_EQ(other, 0);
  LockRequest more(s.d2 + "/more");
  int rc = 0;
  s.held.push_back(host.lock(more, NX | ENX, &rc));
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(listed(host, all)->size(), 7u);
  for (QMELMLHndlp h : s.held) EXPECT_EQ(host.release(h), 0);
}

TEST(IOInfoQuery, ReportWritesEveryRecord) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  QMELMJnlIOInfoParms jp{};
  EXPECT_EQ(host.fn().JnlIOInfo(host.ext, &jp, host.jnl), 0);
  ASSERT_EQ(host.entryCount(), 1u);
  EXPECT_EQ(host.entries()[0].text, "I/O statistics report: 0 record(s).");

  TempDir dir;
  const std::string ro = dir.file("r"), created = dir.file("c"), closed = dir.file("w");
  close(open(ro.c_str(), O_RDWR | O_CREAT, 0644));
  LockRequest r(ro, O_RDONLY), c(created, O_RDONLY | O_CREAT), w(closed);
  int rc = 0;
  QMELMLHndlp hw = host.lock(w, NX | ENX, &rc), hr = host.lock(r, NX | ENX, &rc),
              hc = host.lock(c, NX | ENX, &rc);
  QMELMIOStats inc = ioIncrement(5);
  ASSERT_EQ(rc + host.fn().UpdateIOInfo(hc, &inc, nullptr) + host.release(hw), 0);
  host.ext->IOInfo->next->openTime = 0.0;  // as a reused descriptor leaves it

  host.clearJournal();
  EXPECT_EQ(host.fn().JnlIOInfo(host.ext, &jp, host.jnl), 0);
  QMLocaleh hostLocale = nullptr;
  host.hndl->qmnls->defaultLocale(host.hndl->qmnls, &hostLocale);
  EXPECT_EQ(jp.locale, hostLocale);  // filled in for the caller

  const std::vector<Entry> e = host.entries();
  ASSERT_EQ(e.size(), 1u + 3 * 6);
  const QMStatus group[] = {QMELM_M_IOINFO_FILE,  QMELM_M_IOINFO_FLAGS,  QMELM_M_IOINFO_TIMES,
                            QMELM_M_IOINFO_READS, QMELM_M_IOINFO_WRITES, QMELM_M_IOINFO_SEEKS};
  for (size_t i = 0; i < e.size(); ++i) {
    EXPECT_EQ(e[i].severity, QMSeverityNote);
    EXPECT_CODES(e[i].codes, {i == 0 ? QMELM_M_IOINFO_HEADER : group[(i - 1) % 6]});
  }
  // Patterns: '#' is any digit, '*' any run of characters.
  const std::string t = "####-##-##T##:##:##.###", t0 = "19*";
  const std::pair<size_t, std::string> expected[] = {
      {0, "I/O statistics report: 3 record(s)."},
      {1, "I/O record of " + created},  // newest first
      {2, "  Open flags: " + std::to_string(O_CREAT) + " = O_CREAT | "},
      {3, "  Opened: " + t + ". Closed: File remains open."},
      {4, "  Reads: 1, bytes read: 5."},
      {5, "  Writes: 1, bytes written: 10."},
      {6, "  Seeks: 1."},
      {8, "  Open flags: 0 = O_RDONLY | "},
      {9, "  Opened: " + t0 + "Closed: File remains open."},
      {14, "  Open flags: " + std::to_string(O_RDWR | O_CREAT) + " = O_RDWR |  O_CREAT | "},
      {15, "  Opened: " + t + ". Closed: " + t + "."},
  };
  for (const auto &[i, pattern] : expected) EXPECT_TRUE(like(e[i].text, pattern)) << e[i].text;

  host.ext->IOInfo->next->next->closeTime = 0.0;  // exactly 0.0 is a time like any other
  host.clearJournal();
  EXPECT_EQ(host.fn().JnlIOInfo(host.ext, &jp, host.jnl), 0);
  EXPECT_TRUE(like(host.entries()[15].text, "*Closed: " + t0));
  for (QMELMLHndlp h : {hr, hc}) EXPECT_EQ(host.release(h), 0);
}

// Readers with and without mutexes, reports, updates, resets and locking of
// files whose nodes die and are destroyed, all at once: every answer is a
// success, the locked ones are never torn, and the sanitizers see nothing.
TEST(IOInfoQuery, QueriesAndReportsRaceWithUpdatesResetsAndLocking) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  mkdir(dir.file("d1").c_str(), 0755);
  mkdir(dir.file("d2").c_str(), 0755);
  const std::string files[] = {dir.file("d1/a"), dir.file("d1/b"), dir.file("d2/c"),
                               dir.file("d2/d")};
  QMJnlh reportJnl = qmhost_journal_create(host.hndl, QM_JNL_MEMORY, nullptr);
  std::atomic<int> lockersLeft{2}, failures{0}, torn{0};

  auto locker = [&](int seed) {
    for (int i = 0; i < 400; ++i) {
      LockRequest r(files[(seed + i) % 4]);
      int st = 0;
      QMELMLHndlp h = get(host, r, NX | ENX, &st, nullptr);
      QMELMIOStats s = ioIncrement(1 + i % 7);
      for (int k = 0; h != nullptr && k < 3; ++k)
        failures += host.fn().UpdateIOInfo(h, &s, nullptr);
      failures += h == nullptr || host.fn().LockRelease(h, nullptr, nullptr) != 0;
    }
    --lockersLeft;
  };
  auto querier = [&](bool lock) {
    Query all(lock), byDir(lock, "", dir.file("d1")), byFile(lock, files[2]);
    while (lockersLeft > 0) {
      for (Query *q : {&all, &byDir, &byFile}) {
        QMELMGetIOInfoParms g{};
        failures += getInfo(host, *q, g) != 0;
        torn += lock && g.totals.bytesWritten != 2 * g.totals.bytesRead;
        QMELMListIOInfoParms l{};
        failures += host.fn().ListIOInfo(host.ext, &q->parms, &l, nullptr) != 0;
        for (QMMemSize k = 0; k < l.numEntries; ++k)
          torn += lock && l.list[k].totals.bytesWritten != 2 * l.list[k].totals.bytesRead;
        failures += host.fn().ListIOInfoFree(host.ext, &l, nullptr) != 0;
      }
    }
  };
  std::thread threads[] = {std::thread(locker, 0),
                           std::thread(locker, 1),
                           std::thread(querier, true),
                           std::thread(querier, false),
                           std::thread([&] {
                             while (lockersLeft > 0) failures += resetIO(host);
                           }),
                           std::thread([&] {
                             QMELMJnlIOInfoParms jp{};
                             while (lockersLeft > 0)
                               failures += host.fn().JnlIOInfo(host.ext, &jp, reportJnl) != 0;
                           })};
  for (auto &t : threads) t.join();

  EXPECT_EQ(failures, 0);
  EXPECT_EQ(torn, 0);
  EXPECT_GT(qmhost_journal_count(reportJnl), 0u);
  Query all(true);
  QMELMGetIOInfoParms g{};
  EXPECT_EQ(resetIO(host) + getInfo(host, all, g), 0);
  EXPECT_EQ(g.numEntries, host.ext->numIOInfo);
  EXPECT_EQ(host.stats().bad_frees, 0u);
  reportJnl->generic.destroy(reportJnl);
}

namespace {
// A journal whose messages wait until the test lets them go: a report that
// stays in the middle of its walk for as long as the test likes.
std::atomic<int> heldReports{0};
std::atomic<bool> letGo{false};
QMStatus holdingStatusToJnl(QMJnlh, QMSeverity, QMStatus, va_list) {
  ++heldReports;
  while (!letGo) std::this_thread::yield();
  return 0;
}

// A report on another thread, held in the middle of its walk (inside its
// reading section) from construction until letGo is set; the destructor
// lets it go and joins it.
class HeldReport {
 public:
  explicit HeldReport(TestHost &host) {
    heldReports = 0;
    letGo = false;
    journal_.statusToJnl = holdingStatusToJnl;
    reporter_ = std::thread([this, &host] {
      QMELMJnlIOInfoParms jp{};
      (void)host.fn().JnlIOInfo(host.ext, &jp, &journal_);
    });
    while (heldReports == 0) std::this_thread::yield();
  }
  ~HeldReport() {
    letGo = true;
    reporter_.join();
  }

 private:
  QMJnl journal_{};
  std::thread reporter_;
};
}  // namespace

// An acquisition that destroys a dead node frees the node's retired record
// at once, while a report is in the middle of its walk: only a reset waits
// for readers, and the acquisition never does. A child forked while that
// report is still held resets the orphaned record of the destroyed node: its
// frees must not wait for a reader that only exists in the parent.
TEST(IOInfoQuery, AcquisitionAndAForkedChildNeverWaitForAReport) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  const std::string f = dir.file("f"), g = dir.file("g");
  const auto before = footprint(host, g);
  LockRequest a(f), b(f), c(g);
  int rc = 0;
  QMELMLHndlp h1 = host.lock(a, NX | ENX, &rc), h2 = host.lock(b, NX | ENX, &rc);
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(host.release(h2) + resetIO(host), 0);  // h2's record: retired, f's node lives
  EXPECT_EQ(host.ext->numIOInfo, 1u);
  EXPECT_EQ(host.release(h1), 0);  // f's node is dead

  std::optional<HeldReport> report(std::in_place, host);
  // A guard, not a measure: should the acquisition wait for the report, the
  // report is let go after a while and the test fails instead of hanging.
  std::atomic<bool> acquired{false}, guardLetGo{false};
  std::thread guard([&] {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!acquired && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!acquired) guardLetGo = letGo = true;
  });
  QMELMLHndlp hg = host.lock(c, NX | ENX, &rc);  // destroys f's node: h1's record is orphaned
  acquired = true;
  guard.join();
  EXPECT_FALSE(guardLetGo) << "the acquisition waited for the report";
  EXPECT_EQ(rc, 0);

  const pid_t pid = fork();
  if (pid == 0) {
    alarm(10);  // a child that waits for ever is killed, and fails
    const QMMemSize records = host.ext->numIOInfo;
    _exit(resetIO(host) == 0 && host.ext->numIOInfo == records - 1 ? 0 : 1);
  }
  int st = -1;
  waitpid(pid, &st, 0);
  report.reset();
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "child status " << st;
  EXPECT_EQ(host.release(hg), 0);
  EXPECT_EQ(footprint(host, g), before);
}
