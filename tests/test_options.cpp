// The lock option table, its snapshots and the matcher, through the public
// function table of a loaded lock manager.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qmtest_fixture.h"

using namespace qmtest;

namespace {

using Table = std::vector<std::pair<std::string, QMELMLockOption>>;

// A SetLockOption request that owns its path; "" is the null (root) path.
struct SetRequest {
  std::vector<QMChar> text;
  QMELMSetOptionParms parms{};
  SetRequest(const std::string &path, QMELMLockOption option, NLScei enc = 0) : text(qm(path)) {
    parms.path = path.empty() ? nullptr : text.data();
    parms.pathlen = static_cast<QMStrSize>(text.size());
    parms.option = option;
    parms.enc_pathname = enc;
  }
};

// A MatchOption request that owns its path.
struct MatchRequest {
  std::vector<QMChar> text;
  QMELMMatchOptionParms parms{};
  explicit MatchRequest(const std::string &path, NLScei enc = 0) : text(qm(path)) {
    parms.path = text.data();
    parms.pathlen = static_cast<QMStrSize>(text.size());
    parms.enc_pathname = enc;
  }
};

int set(TestHost &h, const std::string &path, QMELMLockOption option, QMJnlh j) {
  SetRequest r(path, option);
  return h.fn().SetLockOption(h.ext, &r.parms, j);
}

// Every entry of a snapshot as (path as given, full path).
std::vector<std::pair<std::string, std::string>> pathTexts(TestHost &h) {
  QMELMGetOptionsParms p{};
  std::vector<std::pair<std::string, std::string>> out;
  if (h.fn().GetLockOptions(h.ext, &p, nullptr) != 0) return out;
  for (QMMemSize i = 0; i < p.NumOptions; ++i) {
    const QMELM_LOCK_OPTION_S *e = p.optionTable[i];
    out.emplace_back(utf8(e->path, e->pathlen), utf8(e->fullpath, e->fullpathlen));
  }
  (void)h.fn().ReleaseLockOptions(h.ext, &p, nullptr);
  return out;
}

// Strictly ascending by code point (UTF-8 byte order is code point order,
// and a common start puts the shorter first), the root in slot 0.
bool wellFormed(const Table &t) {
  if (t.empty() || t[0].first != "/") return false;
  for (size_t i = 1; i < t.size(); ++i) {
    if (!(t[i - 1].first < t[i].first)) return false;
  }
  return true;
}

std::string cwd() {
  char buf[4096];
  return getcwd(buf, sizeof buf) != nullptr ? std::string(buf) : std::string();
}

}  // namespace

// Keys are full paths compared case-sensitively by code point (the model
// test covers ordinary stores and resets of absolute paths): another spelling
// of a stored full path changes only its option and keeps the first text, a
// relative path keeps its own text, and "/" and the null path are the root.
TEST(OptionTable, KeysAreFullPathsInCodePointOrder) {
  TestHost host;
  const std::string here = cwd();
  for (const char *p : {"/a", "/\xc3\xa9", "/A", "/x/../d", "rel/p", "/"})
    ASSERT_EQ(host.setOption(p, QMELM_None), 0);
  const size_t blocks = host.liveBlocks();
  ASSERT_EQ(host.setOption("/d", QMELM_Continue), 0);
  ASSERT_EQ(host.setOption(here + "/rel/p", QMELM_Fail), 0);
  ASSERT_EQ(host.setOption("", QMELM_Continue), 0);
  EXPECT_EQ(host.liveBlocks(), blocks);
  Table want{{"/", QMELM_Continue},  {"/A", QMELM_None},        {"/a", QMELM_None},
             {"/d", QMELM_Continue}, {"/\xc3\xa9", QMELM_None}, {here + "/rel/p", QMELM_Fail}};
  std::sort(want.begin(), want.end());
  EXPECT_EQ(host.options(), want);
  const auto texts = pathTexts(host);
  using Texts = std::pair<std::string, std::string>;
  EXPECT_EQ(texts[0], (Texts{"/", "/"}));
  for (const Texts &t : {Texts{"/x/../d", "/d"}, Texts{"rel/p", here + "/rel/p"}})
    EXPECT_NE(std::find(texts.begin(), texts.end(), t), texts.end()) << t.first;
  EXPECT_EQ(host.entryCount(), 0u);
}

// A reset that finds nothing journals a note naming the path as given and its
// full path. Resetting the root (null path or "/") leaves the root alone, back
// to Fail, and cannot fail for want of memory.
TEST(OptionTable, ResetNotesAMissingPathAndResetsTheRootWithoutMemory) {
  TestHost host;
  for (const char *p : {"/x", "/x/y", "/"}) ASSERT_EQ(host.setOption(p, QMELM_None), 0);
  const Table before = host.options();
  const size_t blocks = host.liveBlocks();
  EXPECT_STATUS(QMELM_E_OPTION_NOT_FOUND, host.setOption("nothing/here", QMELM_Reset));
  EXPECT_EQ(host.options(), before);
  EXPECT_EQ(host.liveBlocks(), blocks);
  auto e = host.entries();
  ASSERT_EQ(e.size(), 1u);
  EXPECT_EQ(e[0].severity, QMSeverityNote);
  EXPECT_CODES(e[0].codes,
               {QMELM_E_OPTION_NOT_FOUND, QMELM_M_PATH, QMELM_M_FULLPATH, QMELM_M_TRAILER});
  EXPECT_NE(e[0].text.find("nothing/here"), std::string::npos);
  EXPECT_NE(e[0].text.find(cwd() + "/nothing/here"), std::string::npos);

  host.failNth(QMHOST_FAIL_ALLOC, 1);
  EXPECT_EQ(host.setOption("", QMELM_Reset), 0);
  host.failNth(QMHOST_FAIL_ALLOC, 0);
  EXPECT_EQ(host.options(), (Table{{"/", QMELM_Fail}}));
  EXPECT_EQ(host.ext->NumSlotsLeft, host.ext->NumSlots - 1);
}

TEST(OptionTable, RefusesOptionsThatCannotBeStored) {
  TestHost host;
  ASSERT_EQ(host.setOption("/k", QMELM_None), 0);
  const Table before = host.options();
  const size_t blocks = host.liveBlocks();
  for (int bad : {4, 7}) {
    host.clearJournal();
    EXPECT_STATUS(QMELM_E_INVALID_OPTION, host.setOption("/k", static_cast<QMELMLockOption>(bad)));
    auto e = host.entries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].severity, QMSeverityError);
    EXPECT_CODES(e[0].codes, {QMELM_E_INVALID_OPTION, QMELM_M_PATH, QMELM_M_TRAILER});
    EXPECT_NE(e[0].text.find("/k"), std::string::npos);
  }
  // The null path is shown as the root would be.
  host.clearJournal();
  EXPECT_STATUS(QMELM_E_INVALID_OPTION, host.setOption("", static_cast<QMELMLockOption>(4)));
  EXPECT_STATUS(QMELM_E_INVALID_OPTION, host.setOption("/", static_cast<QMELMLockOption>(4)));
  auto e = host.entries();
  ASSERT_EQ(e.size(), 2u);
  EXPECT_EQ(e[0].text, e[1].text);
  // Without a journal nothing is written and nothing allocated.
  host.clearJournal();
  host.armInstruments();
  const long allocs = host.calls(QMHOST_FAIL_ALLOC);
  EXPECT_STATUS(QMELM_E_INVALID_OPTION, set(host, "/k", static_cast<QMELMLockOption>(7), nullptr));
  EXPECT_EQ(host.calls(QMHOST_FAIL_ALLOC), allocs);
  EXPECT_EQ(host.entryCount(), 0u);
  EXPECT_EQ(host.options(), before);
  EXPECT_EQ(host.liveBlocks(), blocks);
}

TEST(OptionTable, PathsQmioeCannotResolve) {
  TestHost host;
  const Table before = host.options();
  const size_t blocks = host.liveBlocks();
  // U+4E2D has no ISO-8859-1 form: qmioe's status comes back as it is. qmioe
  // reports it itself; adding adds no report of its own, resetting and
  // matching do.
  SetRequest add("/\xe4\xb8\xad", QMELM_None, QM_CEI_ISO8859_1);
  EXPECT_STATUS(QM_E_UNMAPPABLE, host.fn().SetLockOption(host.ext, &add.parms, host.jnl));
  const size_t byQmioe = host.entryCount();
  host.clearJournal();
  SetRequest reset("/\xe4\xb8\xad", QMELM_Reset, QM_CEI_ISO8859_1);
  EXPECT_STATUS(QM_E_UNMAPPABLE, host.fn().SetLockOption(host.ext, &reset.parms, host.jnl));
  ASSERT_EQ(host.entryCount(), byQmioe + 1);
  EXPECT_EQ(host.entries().back().severity, QMSeverityError);
  EXPECT_CODES(host.lastCodes(), {QM_E_UNMAPPABLE});
  host.clearJournal();
  MatchRequest m("/\xe4\xb8\xad", QM_CEI_ISO8859_1);
  EXPECT_STATUS(QM_E_UNMAPPABLE, host.fn().MatchOption(host.ext, &m.parms, host.jnl));
  EXPECT_EQ(m.parms.option, QMELM_Unknown);
  EXPECT_EQ(m.parms.fullpath, nullptr);
  ASSERT_EQ(host.entryCount(), byQmioe + 1);
  EXPECT_CODES(host.lastCodes(), {QM_E_UNMAPPABLE});
  EXPECT_EQ(host.fn().ReleaseMatch(host.ext, &m.parms, host.jnl), 0);
  EXPECT_EQ(host.options(), before);
  EXPECT_EQ(host.liveBlocks(), blocks);
  // A Latin-1 letter is expressible and stored.
  SetRequest latin("/\xc3\xa9", QMELM_None, QM_CEI_ISO8859_1);
  EXPECT_EQ(host.fn().SetLockOption(host.ext, &latin.parms, host.jnl), 0);
  EXPECT_EQ(host.options().size(), before.size() + 1);
  EXPECT_EQ(host.liveBlocks(), blocks + 3);
}

TEST(OptionSnapshot, IsAnIndependentCopyUntilReleased) {
  TestHost host;
  ASSERT_EQ(host.setOption("/b", QMELM_Continue), 0);
  ASSERT_EQ(host.setOption("/a", QMELM_None), 0);
  const size_t blocks = host.liveBlocks();
  QMELMGetOptionsParms snap{};
  ASSERT_EQ(host.fn().GetLockOptions(host.ext, &snap, host.jnl), 0);
  ASSERT_EQ(snap.NumOptions, 3u);
  EXPECT_EQ(host.liveBlocks(), blocks + 1 + 3 * 3);
  for (QMMemSize i = 0; i < snap.NumOptions; ++i) {
    EXPECT_NE(snap.optionTable[i], host.ext->Options[i]);
    EXPECT_NE(snap.optionTable[i]->fullpath, host.ext->Options[i]->fullpath);
    EXPECT_NE(snap.optionTable[i]->path, host.ext->Options[i]->path);
  }
  ASSERT_EQ(host.setOption("/a", QMELM_Fail), 0);
  ASSERT_EQ(host.setOption("/b", QMELM_Reset), 0);
  ASSERT_EQ(host.setOption("/0", QMELM_None), 0);
  auto at = [&](QMMemSize i) {
    const QMELM_LOCK_OPTION_S *e = snap.optionTable[i];
    return std::make_pair(utf8(e->fullpath, e->fullpathlen), e->option);
  };
  EXPECT_EQ(at(0), (std::pair<std::string, QMELMLockOption>{"/", QMELM_Fail}));
  EXPECT_EQ(at(1), (std::pair<std::string, QMELMLockOption>{"/a", QMELM_None}));
  EXPECT_EQ(at(2), (std::pair<std::string, QMELMLockOption>{"/b", QMELM_Continue}));
  EXPECT_EQ(utf8(snap.optionTable[2]->path, snap.optionTable[2]->pathlen), "/b");

  const size_t withSnapshot = host.liveBlocks();
  EXPECT_EQ(host.fn().ReleaseLockOptions(host.ext, &snap, host.jnl), 0);
  EXPECT_EQ(host.liveBlocks(), withSnapshot - 10);
  // Release leaves the caller's fields as they were.
  EXPECT_NE(snap.optionTable, nullptr);
  EXPECT_EQ(snap.NumOptions, 3u);
  EXPECT_EQ(host.entryCount(), 0u);

  // Nothing to release.
  QMELMGetOptionsParms none{};
  EXPECT_STATUS(QMELM_E_NO_OPTIONS, host.fn().ReleaseLockOptions(host.ext, &none, host.jnl));
  QMELMLockOptions oneSlot[1] = {nullptr};
  QMELMGetOptionsParms empty{};
  empty.optionTable = oneSlot;
  EXPECT_STATUS(QMELM_E_NO_OPTIONS, host.fn().ReleaseLockOptions(host.ext, &empty, host.jnl));
  auto e = host.entries();
  ASSERT_EQ(e.size(), 2u);
  EXPECT_EQ(e[1].severity, QMSeverityError);
  EXPECT_CODES(e[1].codes, {QMELM_E_NO_OPTIONS});

  // The first free that fails ends the release there.
  host.clearJournal();
  ASSERT_EQ(host.fn().GetLockOptions(host.ext, &snap, host.jnl), 0);
  const size_t before = host.liveBlocks();
  QMChar foreign[2] = {'/', 'f'};
  snap.optionTable[1]->fullpath = foreign;
  EXPECT_STATUS(QM_E_BAD_FREE, host.fn().ReleaseLockOptions(host.ext, &snap, host.jnl));
  EXPECT_EQ(host.liveBlocks(), before - 4);  // entry 0 and entry 1's path
  EXPECT_CODES(host.lastCodes(), {QM_E_BAD_FREE});
}

TEST(OptionMatch, TheLongestDirectoryPrefixGoverns) {
  TestHost host;
  // The root's own option governs what no other entry does.
  std::string mp;
  ASSERT_EQ(host.setOption("/", QMELM_None), 0);
  ASSERT_EQ(host.setOption("/data", QMELM_Continue), 0);
  ASSERT_EQ(host.setOption("/data/x/y/deep", QMELM_None), 0);
  ASSERT_EQ(host.setOption("/dat", QMELM_None), 0);
  ASSERT_EQ(host.setOption("/data-2", QMELM_None), 0);
  struct Case {
    const char *path;
    QMELMLockOption option;
    const char *matchpath;
  };
  for (const Case &c :
       {Case{"/data/x/y", QMELM_Continue, "/data"}, Case{"/database", QMELM_None, "/"},
        Case{"/data", QMELM_Continue, "/data"}, Case{"/data/", QMELM_Continue, "/data"},
        Case{"/data/x/y/deep", QMELM_None, "/data/x/y/deep"},
        Case{"/data/x/y/deep/er/file", QMELM_None, "/data/x/y/deep"},
        Case{"/data/x/y/deeper", QMELM_Continue, "/data"},
        Case{"/data/./x/../q", QMELM_Continue, "/data"}, Case{"/", QMELM_None, "/"},
        Case{"/Data/x", QMELM_None, "/"}, Case{"/data-2/f", QMELM_None, "/data-2"}}) {
    int rc = -1;
    EXPECT_EQ(host.match(c.path, &mp, &rc), c.option) << c.path;
    EXPECT_EQ(rc, 0) << c.path;
    EXPECT_EQ(mp, c.matchpath) << c.path;
  }

  // The request after a match and after its release (which sets the option
  // back to Fail); fullpathlen is never written.
  const size_t blocks = host.liveBlocks();
  MatchRequest m("data/f");
  m.parms.fullpathlen = -7;
  ASSERT_EQ(host.fn().MatchOption(host.ext, &m.parms, host.jnl), 0);
  EXPECT_EQ(utf8(m.parms.fullpath, cwd().size() + 7), cwd() + "/data/f");
  EXPECT_EQ(m.parms.fullpathlen, -7);
  EXPECT_EQ(host.liveBlocks(), blocks + 2);
  EXPECT_EQ(host.fn().ReleaseMatch(host.ext, &m.parms, host.jnl), 0);
  EXPECT_EQ(m.parms.option, QMELM_Fail);
  EXPECT_EQ(m.parms.fullpath, nullptr);
  EXPECT_EQ(m.parms.matchpath, nullptr);
  EXPECT_EQ(host.liveBlocks(), blocks);
  EXPECT_EQ(host.fn().ReleaseMatch(host.ext, &m.parms, host.jnl), 0);
  EXPECT_EQ(host.entryCount(), 0u);

  // No path to match.
  MatchRequest empty("/data");
  empty.parms.pathlen = 0;
  EXPECT_STATUS(QMELM_E_NO_PATH, host.fn().MatchOption(host.ext, &empty.parms, host.jnl));
  EXPECT_EQ(empty.parms.option, QMELM_Unknown);
  EXPECT_EQ(empty.parms.fullpath, nullptr);
  EXPECT_EQ(empty.parms.matchpath, nullptr);
  empty.parms.path = nullptr;
  empty.parms.pathlen = 5;
  EXPECT_STATUS(QMELM_E_NO_PATH, host.fn().MatchOption(host.ext, &empty.parms, nullptr));
  auto e = host.entries();
  ASSERT_EQ(e.size(), 1u);
  EXPECT_EQ(e[0].severity, QMSeverityError);
  EXPECT_CODES(e[0].codes, {QMELM_E_NO_PATH});

  // A failing first free is reported for both copies; a failing second free
  // is reported with the first one's status (0).
  host.clearJournal();
  QMChar foreign[1] = {'/'};
  MatchRequest r1("/data/f");
  ASSERT_EQ(host.fn().MatchOption(host.ext, &r1.parms, host.jnl), 0);
  QMChar *mine = std::exchange(r1.parms.fullpath, foreign);
  EXPECT_STATUS(QM_E_BAD_FREE, host.fn().ReleaseMatch(host.ext, &r1.parms, host.jnl));
  EXPECT_EQ(r1.parms.fullpath, nullptr);
  EXPECT_CODES(host.lastCodes(), {QM_E_BAD_FREE});
  r1.parms.matchpath = foreign;
  r1.parms.fullpath = mine;
  host.clearJournal();
  EXPECT_STATUS(QM_E_BAD_FREE, host.fn().ReleaseMatch(host.ext, &r1.parms, host.jnl));
  ASSERT_EQ(host.entryCount(), 1u);
  EXPECT_EQ(host.entries()[0].severity, QMSeverityError);
  EXPECT_CODES(host.lastCodes(), {0});
  EXPECT_EQ(host.liveBlocks(), blocks);
}

// Each operation with its 1st, 2nd, ... allocation failing, until it makes
// no more allocations than the one that fails: the status, an unchanged
// table, and nothing left behind but what the operation leaves by design.
TEST(OptionFailures, EveryAllocationOfEveryOperation) {
  const auto noMemory = [](int rc) { return rc == QMELM_E_NO_MEMORY || rc == QM_E_NO_MEMORY; };

  // Add, into a table whose slots are full (growth) and into one with room.
  for (int extra : {15, 3}) {
    for (long n = 1;; ++n) {
      ASSERT_LT(n, 20);
      TestHost host;
      for (int i = 0; i < extra; ++i)
        ASSERT_EQ(host.setOption("/e" + std::to_string(i), QMELM_None), 0);
      const Table before = host.options();
      const QMMemSize slots = host.ext->NumSlots;
      const size_t blocks = host.liveBlocks();
      const long calls = host.calls(QMHOST_FAIL_ALLOC);
      host.failNth(QMHOST_FAIL_ALLOC, n);
      const int rc = host.setOption("/new", QMELM_Continue);
      const long made = host.calls(QMHOST_FAIL_ALLOC) - calls;
      host.failNth(QMHOST_FAIL_ALLOC, 0);
      if (made < n) {
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(host.options().size(), before.size() + 1);
        break;
      }
      EXPECT_TRUE(noMemory(rc)) << "allocation " << n << ": " << hex(rc);
      EXPECT_EQ(host.options(), before) << "allocation " << n;
      // A grown slot array stays grown; it replaced the old one block for block.
      EXPECT_GE(host.ext->NumSlots, slots);
      EXPECT_EQ(host.ext->NumSlotsLeft, host.ext->NumSlots - host.ext->NumOptions);
      EXPECT_EQ(host.liveBlocks(), blocks) << "allocation " << n;
      if (rc == QMELM_E_NO_MEMORY) {
        ASSERT_EQ(host.entryCount(), 1u);
        EXPECT_CODES(host.lastCodes(), {QMELM_E_NO_MEMORY});
      }
    }
  }

  TestHost host;
  for (const char *p : {"/a", "/b", "/b/c"}) ASSERT_EQ(host.setOption(p, QMELM_Continue), 0);
  const Table before = host.options();

  // Remove of a path with no entry: only the message can miss its memory,
  // and then it is dropped while the status stays.
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 20);
    host.clearJournal();
    const size_t blocks = host.liveBlocks();
    const long calls = host.calls(QMHOST_FAIL_ALLOC);
    host.failNth(QMHOST_FAIL_ALLOC, n);
    const int rc = host.setOption("/zz", QMELM_Reset);
    const long made = host.calls(QMHOST_FAIL_ALLOC) - calls;
    host.failNth(QMHOST_FAIL_ALLOC, 0);
    EXPECT_EQ(host.liveBlocks(), blocks);
    EXPECT_EQ(host.options(), before);
    if (made < n) {
      EXPECT_STATUS(QMELM_E_OPTION_NOT_FOUND, rc);
      EXPECT_EQ(host.entryCount(), 1u);
      break;
    }
    EXPECT_TRUE(rc == QMELM_E_OPTION_NOT_FOUND || noMemory(rc)) << hex(rc);
  }

  // Get: the copies made before the failure stay in the pool (one block per
  // allocation that succeeded) and are not handed out.
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 20);
    host.clearJournal();
    const size_t blocks = host.liveBlocks();
    const long calls = host.calls(QMHOST_FAIL_ALLOC);
    QMELMGetOptionsParms snap{};
    host.failNth(QMHOST_FAIL_ALLOC, n);
    const int rc = host.fn().GetLockOptions(host.ext, &snap, host.jnl);
    const long made = host.calls(QMHOST_FAIL_ALLOC) - calls;
    host.failNth(QMHOST_FAIL_ALLOC, 0);
    if (made < n) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(snap.NumOptions, before.size());
      EXPECT_EQ(host.liveBlocks(), blocks + made);
      EXPECT_EQ(host.fn().ReleaseLockOptions(host.ext, &snap, host.jnl), 0);
      EXPECT_EQ(host.liveBlocks(), blocks);
      break;
    }
    EXPECT_STATUS(QMELM_E_NO_MEMORY, rc);
    EXPECT_EQ(snap.optionTable, nullptr);
    EXPECT_EQ(snap.NumOptions, 0u);
    EXPECT_EQ(host.liveBlocks(), blocks + static_cast<size_t>(n - 1));
    EXPECT_CODES(host.lastCodes(), {QMELM_E_NO_MEMORY});
  }
  EXPECT_EQ(host.options(), before);

  // Match: a failure before the full path is copied leaves nothing; one at
  // the matching entry's copy leaves the full path and the option set.
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 20);
    host.clearJournal();
    const size_t blocks = host.liveBlocks();
    const long calls = host.calls(QMHOST_FAIL_ALLOC);
    MatchRequest m("/b/c/d");
    host.failNth(QMHOST_FAIL_ALLOC, n);
    const int rc = host.fn().MatchOption(host.ext, &m.parms, host.jnl);
    const long made = host.calls(QMHOST_FAIL_ALLOC) - calls;
    host.failNth(QMHOST_FAIL_ALLOC, 0);
    if (made < n) {
      EXPECT_EQ(rc, 0);
      EXPECT_EQ(m.parms.option, QMELM_Continue);
      EXPECT_EQ(utf8(m.parms.matchpath, m.parms.matchpathlen), "/b/c");
    } else {
      EXPECT_TRUE(noMemory(rc)) << hex(rc);
      EXPECT_EQ(m.parms.matchpath, nullptr);
      if (m.parms.fullpath != nullptr) {
        EXPECT_EQ(m.parms.option, QMELM_Continue);
      } else {
        EXPECT_EQ(m.parms.option, QMELM_Unknown);
      }
      if (rc == QMELM_E_NO_MEMORY) {
        EXPECT_CODES(host.lastCodes(), {QMELM_E_NO_MEMORY});
      }
    }
    EXPECT_EQ(host.fn().ReleaseMatch(host.ext, &m.parms, host.jnl), 0);
    EXPECT_EQ(host.liveBlocks(), blocks);
    if (made < n) break;
  }
  EXPECT_EQ(host.options(), before);
}

// Threads that each own a subtree set, reset and match in it and take
// snapshots, against a model of their own subtree; then the same again while
// another thread resets and re-sets the root (which also wipes the subtrees,
// so the model no longer holds: only the statuses a wiped subtree allows are
// checked). Every snapshot must be one sorted state with the root in slot 0,
// and every match must succeed.
TEST(OptionConcurrency, SnapshotsAndMatchesSeeConsistentTables) {
  TestHost host;
  const size_t blocks = host.liveBlocks();
  constexpr int kThreads = 4;
  constexpr int kRounds = 1500;
  std::atomic<bool> stop{false};
  std::vector<std::vector<std::string>> errors(kThreads + 1);

  auto worker = [&](int k, bool modelHolds) {
    std::mt19937 rng(1234 + k);
    const std::string top = "/t" + std::to_string(k);
    std::map<std::string, QMELMLockOption> model;  // full path -> option, in this subtree
    auto fail = [&](const std::string &what) { errors[k].push_back(what); };
    for (int round = 0; round < kRounds; ++round) {
      const std::string dir = top + "/d" + std::to_string(rng() % 6);
      const std::string sub = dir + "/s";
      switch (rng() % 5) {
        case 0: {
          const std::string p = (rng() % 2) ? dir : sub;
          const auto opt = static_cast<QMELMLockOption>(rng() % 3);
          if (int rc = set(host, p, opt, host.jnl); rc != 0) fail("set " + p + ": " + hex(rc));
          model[p] = opt;
          break;
        }
        case 1: {
          const bool present = model.count(dir) + model.count(sub) > 0;
          const int rc = set(host, dir, QMELM_Reset, nullptr);
          const bool either = !modelHolds && (rc == 0 || rc == QMELM_E_OPTION_NOT_FOUND);
          if (rc != (present ? 0 : static_cast<int>(QMELM_E_OPTION_NOT_FOUND)) && !either)
            fail("reset " + dir + ": " + hex(rc));
          model.erase(dir);
          model.erase(sub);
          break;
        }
        case 2: {
          std::string mp;
          int rc = -1;
          const QMELMLockOption got = host.match(sub + "/file", &mp, &rc);
          if (rc != 0) fail("match: " + hex(rc));
          if (!modelHolds) {
            if (mp != "/" && mp != dir && mp != sub) fail("match gave " + mp);
          } else if (model.count(sub) && (mp != sub || got != model[sub])) {
            fail("match " + sub + " gave " + mp);
          } else if (!model.count(sub) && model.count(dir) && (mp != dir || got != model[dir])) {
            fail("match " + dir + " gave " + mp);
          } else if (!model.count(sub) && !model.count(dir) && mp != "/") {
            fail("match gave " + mp);
          }
          break;
        }
        default: {
          const Table t = host.options();
          if (!wellFormed(t)) fail("snapshot not sorted or without the root");
          Table mine;
          for (const auto &e : t) {
            if (e.first.rfind(top + "/", 0) == 0) mine.push_back(e);
          }
          if (modelHolds && mine != Table(model.begin(), model.end()))
            fail("snapshot differs from the model");
          break;
        }
      }
    }
  };
  auto rootResetter = [&] {
    std::mt19937 rng(99);
    while (!stop.load()) {
      int rc = (rng() % 2) ? set(host, "/", QMELM_Reset, nullptr)
                           : set(host, "", static_cast<QMELMLockOption>(rng() % 3), nullptr);
      if (rc != 0) errors[kThreads].push_back("root: " + hex(rc));
    }
  };

  for (bool withRootResets : {false, true}) {
    std::thread resetter;
    if (withRootResets) resetter = std::thread(rootResetter);
    std::vector<std::thread> threads;
    for (int k = 0; k < kThreads; ++k) threads.emplace_back(worker, k, !withRootResets);
    for (auto &t : threads) t.join();
    stop = true;
    if (resetter.joinable()) resetter.join();
    for (const auto &errs : errors) EXPECT_EQ(errs, std::vector<std::string>{});
    EXPECT_TRUE(wellFormed(host.options()));
  }
  EXPECT_EQ(host.ext->NumSlotsLeft, host.ext->NumSlots - host.ext->NumOptions);
  ASSERT_EQ(host.setOption("/", QMELM_Reset), 0);
  EXPECT_EQ(host.options(), (Table{{"/", QMELM_Fail}}));
  EXPECT_EQ(host.liveBlocks(), blocks);
}
