// test_host.cpp - the substitute host through its C API and tables: pools,
// mutexes under real threads, rendering and journals, NLS, the loader, and
// the qmioe extension loaded from the build's library directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "qmelm.h"
#include "qmhost/qmhost.h"
#include "qmhost/qmhost_testing.h"
#include "qmioe.h"

namespace {

std::vector<QMChar> Q(const char *utf8) {
  std::vector<QMChar> v(qmhost_from_utf8(utf8, nullptr, 0));
  qmhost_from_utf8(utf8, v.data(), v.size());
  return v;
}
// Zero-terminated, for %s.
std::vector<QMChar> Z(const char *utf8) {
  std::vector<QMChar> v = Q(utf8);
  v.push_back(0);
  return v;
}
std::string U(const QMChar *s, size_t n) {
  std::string out(qmhost_to_utf8(s, n, nullptr, 0), '\0');
  qmhost_to_utf8(s, n, out.data(), out.size() + 1);
  return out;
}
QMStrSize len(const std::vector<QMChar> &v) {
  return static_cast<QMStrSize>(v.size());
}
// Whether text has the shape of pattern, in which each '#' stands for one
// digit. (Not <regex>: g++ 12 warns falsely inside it at -O2 with ASan.)
bool shaped(const std::string &text, std::string_view pattern) {
  if (text.size() != pattern.size()) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (pattern[i] == '#' ? !std::isdigit(static_cast<unsigned char>(text[i]))
                          : text[i] != pattern[i])
      return false;
  return true;
}

// Variadic fronts for the journal's va_list entries.
QMStatus toBuf(QMJnlh j, const std::vector<QMChar> &fmt, QMChar *out, QMStrSize cap, QMStrSize *n,
               ...) {
  va_list ap;
  va_start(ap, n);
  QMStatus st = j->messageToBuf(j, fmt.data(), len(fmt), out, cap, n, ap);
  va_end(ap);
  return st;
}
QMStatus statusBuf(QMJnlh j, QMStatus s, QMChar *out, QMStrSize cap, QMStrSize *n, ...) {
  va_list ap;
  va_start(ap, n);
  QMStatus st = j->statusToBuf(j, s, out, cap, n, ap);
  va_end(ap);
  return st;
}
QMStatus toJnl(QMJnlh j, const char *fmt, ...) {
  const std::vector<QMChar> wide = Q(fmt);
  va_list ap;
  va_start(ap, fmt);
  QMStatus st = j->messageToJnl(j, QMSeverityError, wide.data(), len(wide), ap);
  va_end(ap);
  return st;
}

struct Entry {
  std::string text;
  std::vector<QMStatus> codes;
};
Entry entry(QMJnlh j, size_t i) {
  QMHostJournalEntry e{};
  EXPECT_EQ(0, qmhost_journal_entry(j, i, &e));
  return {e.text ? e.text : "", std::vector<QMStatus>(e.codes, e.codes + e.ncodes)};
}
Entry lastEntry(QMJnlh j) {
  return entry(j, qmhost_journal_count(j) - 1);
}

class Host : public ::testing::Test {
 protected:
  void SetUp() override { make(nullptr, 0); }
  void TearDown() override { qmhost_destroy(h); }
  void make(const QMHostBuiltinExtension *builtins, size_t n, const char *path = QMTEST_LIBDIR) {
    qmhost_destroy(h);
    QMHostConfig cfg;
    qmhost_config_init(&cfg);
    cfg.default_journal = QM_JNL_MEMORY;
    cfg.extension_path = path;
    cfg.builtins = builtins;
    cfg.nbuiltins = n;
    h = qmhost_create(&cfg);
    ASSERT_NE(nullptr, h);
    j = qmhost_journal_create(h, QM_JNL_MEMORY, nullptr);
  }
  QMHostStats stats() {
    QMHostStats s;
    qmhost_stats(h, &s);
    return s;
  }
  QMHndlp h = nullptr;
  QMJnlh j = nullptr;
};

TEST_F(Host, PoolAccountingFreesAndInjection) {
  QMPoolh a = h->poolCreate(h, nullptr, j, "a"), b = h->poolCreate(h, nullptr, j, "b");
  auto *raw = static_cast<unsigned char *>(a->memAlloc(a, 64, 0));
  auto *zero = static_cast<unsigned char *>(a->memAlloc(a, 64, QM_POOL_ZERO_FILL));
  void *e1 = a->memAlloc(a, 0, 0), *e2 = a->memAlloc(a, 0, 0);
  ASSERT_TRUE(raw && zero && e1 && e2);
  EXPECT_NE(e1, e2);
  for (int i = 0; i < 64; ++i) EXPECT_TRUE(raw[i] != 0 && zero[i] == 0) << i;
  EXPECT_EQ(4u, qmhost_pool_live_blocks(a));
  EXPECT_EQ(128u, qmhost_pool_live_bytes(a));

  int local;
  EXPECT_EQ(QM_E_BAD_FREE, b->memFree(b, raw));  // another pool's block
  EXPECT_EQ(0, a->memFree(a, raw));
  EXPECT_EQ(QM_E_BAD_FREE, a->memFree(a, raw));  // twice
  EXPECT_EQ(QM_E_BAD_FREE, a->memFree(a, &local));
  EXPECT_EQ(QM_E_BAD_FREE, a->memFree(a, nullptr));
  EXPECT_EQ(4u, stats().bad_frees);
  EXPECT_EQ(3u, stats().pool_blocks);

  // The nth allocation from now fails, in whichever pool it happens, once.
  const long before = qmhost_call_count(h, QMHOST_FAIL_ALLOC);
  qmhost_fail_nth(h, QMHOST_FAIL_ALLOC, 2);
  void *ok = a->memAlloc(a, 8, 0);
  EXPECT_EQ(nullptr, b->memAlloc(b, 8, 0));
  EXPECT_EQ(QM_E_INJECTED_FAILURE, h->lastStatus(h));
  std::thread([&] { EXPECT_EQ(0, h->lastStatus(h)); }).join();  // per thread
  void *again = b->memAlloc(b, 8, 0);
  EXPECT_TRUE(ok && again);
  EXPECT_EQ(before + 3, qmhost_call_count(h, QMHOST_FAIL_ALLOC));
  EXPECT_EQ(nullptr, a->memAlloc(a, ~QMMemSize{0}, 0));
  EXPECT_EQ(QM_E_NO_MEMORY, h->lastStatus(h));

  EXPECT_EQ(0, a->generic.destroy(a));  // frees what is left
  EXPECT_EQ(1u, stats().pool_blocks);
  EXPECT_EQ(1u, stats().pools);
  // b, a mutex and a pipeline are left for qmhost_destroy (the leak checker watches).
  h->lockCreate(h, nullptr, nullptr, nullptr);
  h->qmnls->pipelineToQMChar(h->qmnls, QM_CEI_UTF8, 0, nullptr);
}

TEST_F(Host, MutexSharedHoldersExclusiveTakerAndRelease) {
  QMLockh m = h->lockCreate(h, nullptr, j, "m");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(QM_E_NOT_HELD, m->release(m));

  std::atomic<int> holding{0}, letGo{0};
  std::atomic<bool> exclusiveIn{false};
  auto reader = [&] {
    EXPECT_EQ(0, m->get(m, 0, 1));
    EXPECT_EQ(QM_E_BUSY, m->get(m, 1, 1));  // its own shared hold would block it for ever
    ++holding;
    while (letGo.load() == 0) std::this_thread::yield();
    EXPECT_EQ(0, m->release(m));
  };
  std::thread r1(reader), r2(reader);
  while (holding.load() < 2) std::this_thread::yield();  // both hold it at once
  EXPECT_EQ(QM_E_BUSY, m->get(m, 1, 0));
  EXPECT_EQ(QM_E_NOT_HELD, m->release(m));  // holds nothing: takes no reader's hold away
  std::thread writer([&] {
    EXPECT_EQ(0, m->get(m, 1, 1));
    exclusiveIn = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    exclusiveIn = false;
    EXPECT_EQ(0, m->release(m));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(exclusiveIn.load());  // the taker waits for every shared holder
  letGo = 1;
  r1.join();
  r2.join();
  writer.join();

  EXPECT_EQ(0, m->get(m, 1, 1));
  std::thread([&] {
    EXPECT_EQ(QM_E_BUSY, m->get(m, 0, 0));
    EXPECT_EQ(QM_E_NOT_HELD, m->release(m));  // not the owner's
  }).join();
  EXPECT_EQ(0, m->release(m));

  // Counter under exclusive holders; a pair handing the mutex over and the
  // taker destroying it at once (nothing may touch it after the unlock).
  long counter = 0;
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t)
    ts.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(0, m->get(m, 1, 1));
        ++counter;
        ASSERT_EQ(0, m->release(m));
      }
    });
  for (auto &t : ts) t.join();
  EXPECT_EQ(80000, counter);
  for (int i = 0; i < 200; ++i) {
    QMLockh d = h->lockCreate(h, nullptr, nullptr, nullptr);
    ASSERT_EQ(0, d->get(d, 1, 1));
    std::thread taker([d] {
      ASSERT_EQ(0, d->get(d, 1, 1));
      ASSERT_EQ(0, d->generic.destroy(d));  // held by the caller: released and freed
    });
    ASSERT_EQ(0, d->release(d));
    taker.join();
  }
  EXPECT_EQ(1u, stats().mutexes);
}

TEST_F(Host, RenderingNeverWritesPastCapacity) {
  std::vector<QMChar> out(128, 0x7777);
  QMStrSize n = -1;
  const auto name = Z("nämé");
  ASSERT_EQ(0, toBuf(j, Q("%s|%.*s|%d %i %u %x %X %08x %5d|%-3d|%%|%lld %llu %ld"), out.data(), 128,
                     &n, name.data(), 2, name.data(), -7, 8, 9u, 255u, 255u, 0xbeefu, 42, 1,
                     -(1LL << 40), ~0ULL, -5L));
  EXPECT_EQ("nämé|nä|-7 8 9 ff FF 0000beef    42|1  |%|-1099511627776 18446744073709551615 -5",
            U(out.data(), n));
  EXPECT_EQ(0u, out[n]);

  // "abcde": fits with cap 6, not with 5; nothing at or past out[cap].
  for (QMStrSize cap : {6, 5, 1, 0}) {
    std::fill(out.begin(), out.end(), 0x7777);
    const QMStatus st = toBuf(j, Q("ab%se"), out.data(), cap, &n, Z("cd").data());
    EXPECT_EQ(cap == 6 ? 0 : QM_E_BUFFER_TOO_SMALL, st) << cap;
    for (size_t i = static_cast<size_t>(cap); i < out.size(); ++i)
      ASSERT_EQ(0x7777u, out[i]) << cap;
  }
  EXPECT_EQ(QM_E_BAD_FORMAT, toBuf(j, Q("%q"), out.data(), 64, &n));
  EXPECT_EQ(QM_E_BAD_FORMAT, toBuf(j, Q("50%"), out.data(), 64, &n));

  ASSERT_EQ(0, statusBuf(j, QMELM_M_ERRNO, out.data(), 64, &n, 13));
  EXPECT_EQ(" Operating-system error 13.", U(out.data(), n));
  ASSERT_EQ(0, statusBuf(j, 0x12345678, out.data(), 64, &n));
  EXPECT_EQ("Status 0x12345678.", U(out.data(), n));
  EXPECT_EQ(QM_E_BUFFER_TOO_SMALL, statusBuf(j, QM_E_BAD_PATH, out.data(), 10, &n));
  qmhost_fail_nth(h, QMHOST_FAIL_RENDER, 1);
  EXPECT_EQ(QM_E_INJECTED_FAILURE, statusBuf(j, QM_E_BAD_PATH, out.data(), 64, &n));
  // The instruments' own status is in the catalogue, though not in the kernel's list.
  ASSERT_EQ(0, statusBuf(j, QM_E_INJECTED_FAILURE, out.data(), 64, &n));
  EXPECT_EQ("The operation failed because a test asked it to.", U(out.data(), n));
}

// A composed message the way the lock manager builds one: pieces rendered at
// the running end of a buffer, journaled once through "%.*s".
std::vector<QMStatus> compose(QMJnlh j, QMChar *buf, const std::vector<QMStatus> &pieces,
                              bool kept = true) {
  QMStrSize used = 0, n = 0;
  const auto path = Q("/tmp/x");
  for (QMStatus s : pieces) {
    EXPECT_EQ(0, statusBuf(j, s, buf + used, 2048 - used, &n));
    used += n;
    EXPECT_EQ(0,
              toBuf(j, Q("%.*s"), buf + used, 2048 - used, &n, len(path), path.data()));  // no code
    used += n;
  }
  EXPECT_EQ(0, toJnl(j, "%.*s", static_cast<int>(used), buf));
  return kept ? lastEntry(j).codes : std::vector<QMStatus>{};
}

TEST_F(Host, JournalEntriesCarryRenderedCodesInOrder) {
  std::vector<QMChar> buf(2048), other(2048);
  EXPECT_EQ((std::vector<QMStatus>{QMELM_E_OPEN_FAILED, QMELM_M_PATH, QMELM_M_TRAILER}),
            compose(j, buf.data(), {QMELM_E_OPEN_FAILED, QMELM_M_PATH, QMELM_M_TRAILER}));
  EXPECT_EQ("The file could not be opened./tmp/x Path: '/tmp/x'./tmp/x", lastEntry(j).text);
  // The same buffer again, shorter: nothing of the first message survives.
  EXPECT_EQ(std::vector<QMStatus>{QMELM_E_DEAD_NODE}, compose(j, buf.data(), {QMELM_E_DEAD_NODE}));
  // A description rendered into another buffer (below this one) between two
  // pieces and passed on through %s: the message keeps its own codes only.
  std::vector<QMChar> both(4096);
  QMChar *desc = both.data(), *msg = both.data() + 2048;
  QMStrSize n = 0, used = 0;
  ASSERT_EQ(0, statusBuf(j, QMELM_E_INVALID_LOCKTYPE, msg, 2048, &used));
  ASSERT_EQ(0, statusBuf(j, QMELM_M_INT_EXCLUSIVE, desc, 2048, &n));
  ASSERT_EQ(0, statusBuf(j, QMELM_M_LOCKTYPE_IS, msg + used, 2048 - used, &n, desc));
  ASSERT_EQ(0, toJnl(j, "%.*s", static_cast<int>(used + n), msg));
  EXPECT_EQ((std::vector<QMStatus>{QMELM_E_INVALID_LOCKTYPE, QMELM_M_LOCKTYPE_IS}),
            lastEntry(j).codes);
  EXPECT_EQ("The lock type is not valid. Lock type requested: [internal exclusive].",
            lastEntry(j).text);

  auto statusToJnl = [&](QMStatus s, ...) {
    va_list ap;
    va_start(ap, s);
    EXPECT_EQ(0, j->statusToJnl(j, QMSeverityWarning, s, ap));
    va_end(ap);
  };
  statusToJnl(QMELM_M_IOINFO_READS, 3LL, 4096LL);
  EXPECT_EQ("  Reads: 3, bytes read: 4096.", lastEntry(j).text);
  EXPECT_EQ(std::vector<QMStatus>{QMELM_M_IOINFO_READS}, lastEntry(j).codes);

  // Threads composing into one journal: each entry holds its own codes only.
  qmhost_journal_clear(j);
  std::vector<std::thread> ts;
  for (QMStatus first : {QMELM_E_OPEN_FAILED, QMELM_E_ACCESS_DENIED, QMELM_E_FILE_NOT_FOUND})
    ts.emplace_back([&, first] {
      std::vector<QMChar> mine(2048);
      for (int i = 0; i < 300; ++i)
        compose(j, mine.data(), {first, QMELM_M_PATH, QMELM_M_TRAILER}, false);
    });
  for (auto &t : ts) t.join();
  ASSERT_EQ(900u, qmhost_journal_count(j));
  for (size_t i = 0; i < 900; ++i) {
    const Entry e = entry(j, i);
    ASSERT_EQ(3u, e.codes.size());
    EXPECT_EQ(QMELM_M_PATH, e.codes[1]);
    EXPECT_EQ(std::string(e.text).find(" Path: '") != std::string::npos, true);
  }

  // Memory keeps the newest 4096; a file journal appends one line per entry.
  for (int i = 0; i < 4100; ++i) ASSERT_EQ(0, toJnl(j, "n%d", i));
  EXPECT_EQ(4096u, qmhost_journal_count(j));
  EXPECT_EQ("n4", entry(j, 0).text);
  EXPECT_EQ(nullptr, qmhost_journal_create(h, QM_JNL_FILE, "/nonexistent-dir/x"));
  EXPECT_EQ(QM_E_IO, h->lastStatus(h));
}

// The instruments of a new host are disarmed: no call is counted and none
// fails, from any thread. Armed, every kind counts each call and fails the
// nth one exactly once, whichever of several threads makes it.
TEST_F(Host, InstrumentsCountAndFailOnlyWhileArmed) {
  QMPoolh pool = h->poolCreate(h, nullptr, nullptr, "p");
  // Each call of one kind; true when it failed because it was told to.
  // A made object goes back at once; a missing one must be missing because a test asked.
  auto made = [&](auto *object) {
    if (object == nullptr) return h->lastStatus(h) == QM_E_INJECTED_FAILURE;
    return object->generic.destroy(object), false;
  };
  auto injected = [&](QMHostFailKind kind) -> bool {
    QMChar buf[128];
    QMStrSize n = 0;
    switch (kind) {
      case QMHOST_FAIL_ALLOC: {
        void *b = pool->memAlloc(pool, 24, 0);
        if (b == nullptr) return h->lastStatus(h) == QM_E_INJECTED_FAILURE;
        return pool->memFree(pool, b), false;
      }
      case QMHOST_FAIL_POOL_CREATE:
        return made(h->poolCreate(h, nullptr, nullptr, "q"));
      case QMHOST_FAIL_LOCK_CREATE:
        return made(h->lockCreate(h, nullptr, nullptr, "l"));
      case QMHOST_FAIL_JNL_CREATE:
        return made(qmhost_journal_create(h, QM_JNL_MEMORY, nullptr));
      case QMHOST_FAIL_PIPELINE_CREATE:
        return made(h->qmnls->pipelineFromQMChar(h->qmnls, QM_CEI_UTF8, 0, nullptr));
      case QMHOST_FAIL_LOAD_EXTENSION:
        EXPECT_EQ(nullptr, qmhost_load_extension(h, "nosuchext", nullptr));
        return h->lastStatus(h) == QM_E_INJECTED_FAILURE;
      case QMHOST_FAIL_RENDER:
        return statusBuf(j, QM_E_BAD_PATH, buf, 128, &n) == QM_E_INJECTED_FAILURE;
      default:
        return false;
    }
  };
  auto onThreads = [&](QMHostFailKind kind, int threads, int calls) {
    std::atomic<int> failed{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
      ts.emplace_back([&] {
        for (int i = 0; i < calls; ++i) failed += injected(kind) ? 1 : 0;
      });
    for (auto &t : ts) t.join();
    return failed.load();
  };
  constexpr QMHostFailKind kAll[] = {QMHOST_FAIL_ALLOC,           QMHOST_FAIL_POOL_CREATE,
                                     QMHOST_FAIL_LOCK_CREATE,     QMHOST_FAIL_JNL_CREATE,
                                     QMHOST_FAIL_PIPELINE_CREATE, QMHOST_FAIL_LOAD_EXTENSION,
                                     QMHOST_FAIL_RENDER};
  static_assert(std::size(kAll) == QMHOST_FAIL_KINDS);

  EXPECT_EQ(0, qmhost_instruments_armed(h));
  for (QMHostFailKind k : kAll) {
    EXPECT_EQ(0, onThreads(k, 3, 20)) << k;
    EXPECT_EQ(0, qmhost_call_count(h, k)) << k;
  }

  // Armed: counted; disarmed: the counts stay where they were.
  qmhost_instruments_arm(h, 1);
  EXPECT_EQ(1, qmhost_instruments_armed(h));
  EXPECT_EQ(0, onThreads(QMHOST_FAIL_ALLOC, 2, 10));
  EXPECT_EQ(20, qmhost_call_count(h, QMHOST_FAIL_ALLOC));
  qmhost_instruments_arm(h, 0);
  EXPECT_EQ(0, onThreads(QMHOST_FAIL_ALLOC, 2, 10));
  EXPECT_EQ(20, qmhost_call_count(h, QMHOST_FAIL_ALLOC));

  // Disarming cancels a pending failure; arming again does not revive it.
  qmhost_fail_nth(h, QMHOST_FAIL_ALLOC, 3);
  EXPECT_EQ(1, qmhost_instruments_armed(h));  // fail_nth arms
  EXPECT_FALSE(injected(QMHOST_FAIL_ALLOC));
  qmhost_instruments_arm(h, 0);
  qmhost_instruments_arm(h, 1);
  EXPECT_EQ(0, onThreads(QMHOST_FAIL_ALLOC, 1, 10));
  EXPECT_EQ(31, qmhost_call_count(h, QMHOST_FAIL_ALLOC));
  qmhost_instruments_arm(h, 0);

  // Every kind, four threads racing over the armed call: exactly one fails.
  for (QMHostFailKind k : kAll) {
    SCOPED_TRACE("kind " + std::to_string(k));
    const long before = qmhost_call_count(h, k);
    qmhost_fail_nth(h, k, 37);
    EXPECT_EQ(1, onThreads(k, 4, 25));
    EXPECT_EQ(before + 100, qmhost_call_count(h, k));
    EXPECT_EQ(0, onThreads(k, 4, 25));  // once only
    qmhost_instruments_arm(h, 0);
  }
  EXPECT_EQ(0u, stats().pool_blocks);
  EXPECT_EQ(2u, stats().journals);  // qmjnl and j: the made ones went back
  EXPECT_EQ(0u, stats().pipelines);
}

// Entries of a journal and the codes rendered for it.
std::vector<std::string> texts(QMJnlh jnl) {
  std::vector<std::string> out;
  for (size_t i = 0, n = qmhost_journal_count(jnl); i < n; ++i) out.push_back(entry(jnl, i).text);
  return out;
}
std::string fileText(const char *path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), {});
}

// Memory journals keep their entries; stderr and file journals write lines
// and keep nothing unless asked, and codes are noted only for journals
// that keep entries.
TEST_F(Host, JournalsKeepEntriesOnlyWhenAsked) {
  char path[] = "/tmp/qmhost_keep_XXXXXX";
  close(mkstemp(path));
  QMJnlh f = qmhost_journal_create(h, QM_JNL_FILE, path);
  ASSERT_NE(nullptr, f);
  std::vector<QMChar> buf(2048);
  QMHostJournalEntry e{};

  // By default: lines only.
  EXPECT_EQ((std::vector<QMStatus>{}), compose(f, buf.data(), {QMELM_E_OPEN_FAILED}, false));
  ASSERT_EQ(0, toJnl(f, "two %s", Z("ünï").data()));
  EXPECT_EQ(0u, qmhost_journal_count(f));
  EXPECT_EQ(QM_E_UNSUPPORTED_REQUEST, qmhost_journal_entry(f, 0, &e));
  EXPECT_EQ("qm[ERROR] The file could not be opened./tmp/x\nqm[ERROR] two ünï\n", fileText(path));

  // A status rendered before the journal kept entries is not recovered
  // afterwards: the entry has the codes rendered since.
  QMStrSize used = 0, k = 0;
  ASSERT_EQ(0, statusBuf(f, QMELM_E_OPEN_FAILED, buf.data(), 2048, &used));
  ASSERT_EQ(0, qmhost_journal_keep(f, 2));
  ASSERT_EQ(0, statusBuf(f, QMELM_M_TRAILER, buf.data() + used, 2048 - used, &k));
  ASSERT_EQ(0, toJnl(f, "%.*s", static_cast<int>(used + k), buf.data()));
  EXPECT_EQ(std::vector<QMStatus>{QMELM_M_TRAILER}, lastEntry(f).codes);
  // Kept as asked: the newest two, with their codes, and every line written.
  EXPECT_EQ((std::vector<QMStatus>{QMELM_E_DEAD_NODE, QMELM_M_PATH}),
            compose(f, buf.data(), {QMELM_E_DEAD_NODE, QMELM_M_PATH}));
  ASSERT_EQ(0, toJnl(f, "last"));
  EXPECT_EQ(2u, qmhost_journal_count(f));
  EXPECT_EQ("last", lastEntry(f).text);
  EXPECT_EQ((std::vector<QMStatus>{QMELM_E_DEAD_NODE, QMELM_M_PATH}), entry(f, 0).codes);
  EXPECT_EQ(QM_E_BAD_ARGUMENT, qmhost_journal_entry(f, 2, &e));
  const std::string lines = fileText(path);
  EXPECT_EQ(5, std::count(lines.begin(), lines.end(), '\n'));

  // Kept, then not, then kept again: what was rendered meanwhile or before
  // carries no code into the later entry.
  ASSERT_EQ(0, statusBuf(f, QMELM_E_ACCESS_DENIED, buf.data(), 2048, &used));
  ASSERT_EQ(0, qmhost_journal_keep(f, 0));
  EXPECT_EQ(0u, qmhost_journal_count(f));
  ASSERT_EQ(0, statusBuf(f, QMELM_E_FILE_NOT_FOUND, buf.data() + used, 2048 - used, &k));
  ASSERT_EQ(0, qmhost_journal_keep(f, 1));
  ASSERT_EQ(0, toJnl(f, "%.*s", static_cast<int>(used + k), buf.data()));
  EXPECT_EQ(std::vector<QMStatus>{}, lastEntry(f).codes);
  EXPECT_EQ(0, f->generic.destroy(f));
  unlink(path);

  // A stderr journal is the same; so is the host's own when it writes there.
  QMJnlh err = qmhost_journal_create(h, QM_JNL_STDERR, nullptr);
  ASSERT_EQ(0, toJnl(err, "a line the test writes to standard error"));
  EXPECT_EQ(0u, qmhost_journal_count(err));
  EXPECT_EQ(QM_E_UNSUPPORTED_REQUEST, qmhost_journal_entry(err, 0, &e));
  ASSERT_EQ(0, qmhost_journal_keep(err, 5));
  ASSERT_EQ(0, toJnl(err, "and one it keeps"));
  EXPECT_EQ(std::vector<std::string>{"and one it keeps"}, texts(err));
  QMHostConfig cfg;
  qmhost_config_init(&cfg);
  QMHndlp other = qmhost_create(&cfg);
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(0u, qmhost_journal_count(other->qmjnl));
  qmhost_destroy(other);

  // A memory journal keeps entries and cannot be told to keep none; asked to
  // keep fewer, it drops the oldest.
  for (int i = 0; i < 5; ++i) ASSERT_EQ(0, toJnl(j, "m%d", i));
  EXPECT_EQ(QM_E_BAD_ARGUMENT, qmhost_journal_keep(j, 0));
  EXPECT_EQ(5u, qmhost_journal_count(j));
  ASSERT_EQ(0, qmhost_journal_keep(j, 2));
  EXPECT_EQ((std::vector<std::string>{"m3", "m4"}), texts(j));
  EXPECT_EQ(QM_E_BAD_ARGUMENT, qmhost_journal_keep(nullptr, 1));
}

// Open descriptors of this process.
int openDescriptors() {
  int n = 0;
  for (const auto &d : std::filesystem::directory_iterator("/proc/self/fd"))
    n += d.exists() ? 1 : 0;
  return n;
}

// qmhost_create refuses a configuration whose size it does not know, or
// whose contents are bad, before it opens or keeps anything; the reason is
// the calling thread's.
TEST(HostConfig, RefusedConfigurationsLeaveNothingBehind) {
  char dir[] = "/tmp/qmhost_cfg_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  const std::string journal = std::string(dir) + "/journal";
  QMHostConfig good;
  qmhost_config_init(&good);
  EXPECT_EQ(sizeof(QMHostConfig), good.size);
  good.default_journal = QM_JNL_FILE;
  good.default_journal_path = journal.c_str();
  const QMHostBuiltinExtension nameless{nullptr, nullptr, nullptr, nullptr};

  struct Case {
    const char *what;
    QMHostConfig cfg;
    QMStatus why;
  };
  std::vector<Case> cases;
  for (size_t size : {size_t{0}, sizeof(QMHostConfig) - 1, sizeof(QMHostConfig) + 8}) {
    cases.push_back({"size", good, QM_E_UNSUPPORTED_REQUEST});
    cases.back().cfg.size = size;
  }
  cases.push_back({"builtins missing", good, QM_E_BAD_ARGUMENT});
  cases.back().cfg.nbuiltins = 1;
  cases.push_back({"builtin without a name", good, QM_E_BAD_ARGUMENT});
  cases.back().cfg.builtins = &nameless;
  cases.back().cfg.nbuiltins = 1;
  cases.push_back({"journal kind", good, QM_E_BAD_ARGUMENT});
  const int unknownKind = 7;  // as a C caller may store it
  std::memcpy(&cases.back().cfg.default_journal, &unknownKind, sizeof unknownKind);

  const int fds = openDescriptors();
  for (const Case &c : cases) {
    EXPECT_EQ(nullptr, qmhost_create(&c.cfg)) << c.what;
    EXPECT_EQ(c.why, qmhost_create_status()) << c.what;
    EXPECT_NE(0, access(journal.c_str(), F_OK)) << c.what << ": the journal was opened";
  }
  Case unopenable{"journal file", good, QM_E_IO};
  unopenable.cfg.default_journal_path = "/nonexistent-dir/journal";
  EXPECT_EQ(nullptr, qmhost_create(&unopenable.cfg));
  EXPECT_EQ(QM_E_IO, qmhost_create_status());
  EXPECT_EQ(fds, openDescriptors());

  // The reason is per thread; a success clears it.
  std::thread([&] {
    EXPECT_EQ(0, qmhost_create_status());
    QMHndlp h = qmhost_create(nullptr);
    EXPECT_NE(nullptr, h);
    qmhost_destroy(h);
  }).join();
  EXPECT_EQ(QM_E_IO, qmhost_create_status());
  QMHndlp h = qmhost_create(&good);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(0, qmhost_create_status());
  EXPECT_EQ(0, access(journal.c_str(), F_OK));
  qmhost_destroy(h);
  EXPECT_EQ(fds, openDescriptors());
  unlink(journal.c_str());
  rmdir(dir);
}

struct Coded {
  NLScei enc;
  std::vector<QMChar> text;
};

TEST_F(Host, NlsRoundTripsAndRefusals) {
  QMNLSh nls = h->qmnls;
  EXPECT_EQ(QM_CEI_UTF8, nls->osEncoding(nls));
  const std::vector<Coded> cases = {{QM_CEI_ISO8859_1, Q("Grüße ÿ")},
                                    {QM_CEI_UTF8, Q("€ 𝄞 ü")},
                                    {QM_CEI_UTF16, Q("€ 𝄞 ü")},
                                    {U_L_UCS4_CE, Q("𝄞")}};
  for (const Coded &c : cases) {
    QMNLSPipelineh to = nls->pipelineFromQMChar(nls, c.enc, 0, j),
                   back = nls->pipelineToQMChar(nls, c.enc, 0, j);
    ASSERT_TRUE(to && back);
    unsigned char bytes[64];
    QMChar chars[16];
    QMMemSize nb = 0, nc = 0, size = 0;
    ASSERT_EQ(0, to->Transcode(to, c.text.data(), c.text.size() * 4, bytes, sizeof bytes, &nb))
        << c.enc;
    ASSERT_EQ(0,
              nls->convertedSize(nls, U_L_UCS4_CE, c.enc, c.text.data(), c.text.size() * 4, &size));
    EXPECT_EQ(nb, size);
    ASSERT_EQ(0, back->Transcode(back, bytes, nb, chars, sizeof chars, &nc));
    EXPECT_EQ(c.text, std::vector<QMChar>(chars, chars + nc / 4));
    // Too small by one byte: refused, and nothing written past the end.
    std::memset(bytes, 0x5A, sizeof bytes);
    EXPECT_EQ(QM_E_BUFFER_TOO_SMALL,
              to->Transcode(to, c.text.data(), c.text.size() * 4, bytes, nb - 1, &size));
    for (size_t i = nb - 1; i < sizeof bytes; ++i) ASSERT_EQ(0x5A, bytes[i]);
    EXPECT_EQ(0, to->generic.destroy(to));
    EXPECT_EQ(0, back->generic.destroy(back));
  }
  EXPECT_EQ(0u, stats().pipelines);
  QMMemSize n;
  ASSERT_EQ(0, nls->convertedSize(nls, U_L_UCS4_CE, QM_CEI_UTF16, Q("a𝄞").data(), 8, &n));
  EXPECT_EQ(6u, n);  // one unit and a surrogate pair

  // What a target cannot hold is refused, never substituted.
  const QMChar latin[] = {'a', 0x100}, surrogate[] = {0xD800}, tooBig[] = {0x110000};
  EXPECT_EQ(QM_E_UNMAPPABLE, nls->convertedSize(nls, U_L_UCS4_CE, QM_CEI_ISO8859_1, latin, 8, &n));
  EXPECT_EQ(QM_E_UNMAPPABLE, nls->convertedSize(nls, U_L_UCS4_CE, QM_CEI_UTF8, surrogate, 4, &n));
  EXPECT_EQ(QM_E_UNMAPPABLE, nls->convertedSize(nls, U_L_UCS4_CE, QM_CEI_UTF16, tooBig, 4, &n));
  const unsigned char badUtf8[][2] = {{0xC3, 0x28}, {0xC0, 0xAF}, {0xE2, 0x82}};
  for (auto &b : badUtf8)
    EXPECT_EQ(QM_E_INVALID_SEQUENCE, nls->convertedSize(nls, QM_CEI_UTF8, U_L_UCS4_CE, b, 2, &n));
  const uint16_t loneSurrogate[] = {'a', 0xDC00};
  EXPECT_EQ(QM_E_INVALID_SEQUENCE,
            nls->convertedSize(nls, QM_CEI_UTF16, QM_CEI_UTF8, loneSurrogate, 4, &n));

  EXPECT_EQ(nullptr, nls->pipelineFromQMChar(nls, 99, 0, j));
  EXPECT_EQ(QM_E_UNKNOWN_ENCODING, h->lastStatus(h));
  EXPECT_EQ(std::vector<QMStatus>{QM_E_UNKNOWN_ENCODING}, lastEntry(j).codes);

  QMNLS_ENCODING_ATTRIB at;
  const uint32_t expect[][5] = {{1, QM_SBCS, 1, 1, 1},
                                {2, QM_UTF8, 1, 4, 1},
                                {25, QM_WCS_2byte, 2, 4, 2},
                                {27, QM_WCS_4byte, 4, 4, 4}};
  for (auto &e : expect) {
    ASSERT_EQ(0, nls->encodingAttributes(nls, e[0], &at));
    EXPECT_EQ((std::vector<uint32_t>{e[1], e[2], e[3], e[4]}),
              (std::vector<uint32_t>{static_cast<uint32_t>(at.method), at.minCharWidth,
                                     at.maxCharWidth, at.nulWidth}));
  }

  // TranscodeWithPool: a terminated block of the caller's pool.
  QMPoolh pool = h->poolCreate(h, nullptr, nullptr, "p");
  QMNLSPipelineh to8 = nls->pipelineFromQMChar(nls, QM_CEI_OS, 0, nullptr);
  void *out = nullptr;
  ASSERT_EQ(0, to8->TranscodeWithPool(to8, Q("ü").data(), 4, pool, &out, &n));
  EXPECT_EQ("ü", std::string(static_cast<char *>(out)));
  EXPECT_EQ(0, pool->memFree(pool, out));

  // The locale and the clock.
  QMLocaleh loc = nullptr;
  ASSERT_EQ(0, nls->defaultLocale(nls, &loc));
  QMChar dt[32];
  QMStrSize dn = 0;
  ASSERT_EQ(0, loc->datetimeFormat(loc, 1e9 + 0.25, QM_DATETIME_ISO8601, dt, 32, &dn));
  EXPECT_TRUE(shaped(U(dt, dn), "200#-##-##T##:##:##.250")) << U(dt, dn);
  EXPECT_EQ(QM_E_BUFFER_TOO_SMALL, loc->datetimeFormat(loc, 0, QM_DATETIME_ISO8601, dt, 23, &dn));
  EXPECT_EQ(QM_E_BAD_ARGUMENT, loc->datetimeFormat(loc, 0, 2, dt, 32, &dn));
  double now[2] = {0, 1};
  ASSERT_EQ(0, h->ConfigureSystem(h, QM_CONFIG_DATETIME, now, QM_CONFIG_DATETIME_FLAGS));
  EXPECT_NEAR(static_cast<double>(time(nullptr)), now[0], 2.0);
  EXPECT_EQ(0.0, now[1]);
  EXPECT_EQ(QM_E_UNSUPPORTED_REQUEST, h->ConfigureSystem(h, 17, now, QM_CONFIG_DATETIME_FLAGS));
}

// A builtin standing in for qmioe, counting how it was entered.
std::atomic<int> builtinCalls{0};
int builtinMajor = 7;
QMExtensionh builtinFactory(QMHndlp, QMJnlh) noexcept {
  return ++builtinCalls, nullptr;
}
QMStatus builtinEntry(QMHndlp) noexcept {
  return 0;
}
QMStatus builtinVersion(QMHndlp, int *a, int *b) noexcept {
  return *a = builtinMajor, *b = 0, 0;
}

TEST_F(Host, LoaderSearchPathBuiltinsAndFailures) {
  QMExtensionh e = qmhost_load_extension(h, "qmioe", j);
  ASSERT_NE(nullptr, e);
  int a, b, c;
  ASSERT_EQ(0, e->getVersion(e, &a, &b, &c));
  EXPECT_EQ((std::vector<int>{7, 1, 1}), (std::vector<int>{a, b, c}));
  EXPECT_NE(nullptr, e->handle);
  EXPECT_EQ(1u, stats().extensions);
  EXPECT_EQ(0, e->generic.destroy(e));
  EXPECT_EQ(0u, stats().extensions);
  EXPECT_EQ(0u, stats().pools);

  EXPECT_EQ(nullptr, qmhost_load_extension(h, "nosuchext", j));
  EXPECT_EQ(QM_E_EXT_NOT_FOUND, h->lastStatus(h));
  EXPECT_EQ(std::vector<QMStatus>{QM_E_EXT_NOT_FOUND}, lastEntry(j).codes);
  EXPECT_NE(std::string::npos, lastEntry(j).text.find("libnosuchext.so"));
  EXPECT_EQ(nullptr, qmhost_load_extension(h, "qmhost", j));  // a library without the entry points
  EXPECT_EQ(QM_E_EXT_BAD, h->lastStatus(h));
  EXPECT_EQ(nullptr, qmhost_load_extension(h, "../lib/qmioe", j));
  EXPECT_EQ(QM_E_BAD_ARGUMENT, h->lastStatus(h));
  qmhost_fail_nth(h, QMHOST_FAIL_LOAD_EXTENSION, 1);
  EXPECT_EQ(nullptr, qmhost_load_extension(h, "qmioe", j));
  EXPECT_EQ(QM_E_INJECTED_FAILURE, h->lastStatus(h));

  // qmioe's factory unwinds when its pool or its object cannot be had.
  for (QMHostFailKind k : {QMHOST_FAIL_POOL_CREATE, QMHOST_FAIL_ALLOC}) {
    qmhost_fail_nth(h, k, 1);
    EXPECT_EQ(nullptr, qmhost_load_extension(h, "qmioe", j));
    EXPECT_EQ(QM_E_EXT_INIT_FAILED, h->lastStatus(h));
    EXPECT_EQ(0u, stats().pools);
    EXPECT_EQ(0u, stats().pool_blocks);
  }

  // A builtin of the same name wins over the library on the path.
  const QMHostBuiltinExtension builtin[] = {
      {"qmioe", builtinEntry, builtinVersion, builtinFactory}};
  builtinCalls = 0;
  builtinMajor = 7;
  make(builtin, 1);
  EXPECT_EQ(nullptr, qmhost_load_extension(h, "qmioe", j));
  EXPECT_EQ(QM_E_EXT_INIT_FAILED, h->lastStatus(h));
  EXPECT_EQ(1, builtinCalls.load());
  builtinMajor = 6;
  EXPECT_EQ(nullptr, qmhost_load_extension(h, "qmioe", j));
  EXPECT_EQ(QM_E_EXT_VERSION, h->lastStatus(h));
  EXPECT_EQ(1, builtinCalls.load());

  // Without a configured path: QMHOST_EXTENSION_PATH, else libqmhost's own directory.
  setenv("QMHOST_EXTENSION_PATH", "/nonexistent", 1);
  make(nullptr, 0, nullptr);
  EXPECT_EQ(nullptr, qmhost_load_extension(h, "qmioe", j));
  unsetenv("QMHOST_EXTENSION_PATH");
  make(nullptr, 0, nullptr);
  EXPECT_NE(nullptr, qmhost_load_extension(h, "qmioe", j));  // left for qmhost_destroy
}

class Qmioe : public Host {
 protected:
  void SetUp() override {
    Host::SetUp();
    ext = reinterpret_cast<QMIOEExtension *>(qmhost_load_extension(h, "qmioe", j));
    ASSERT_NE(nullptr, ext);
    ASSERT_NE(nullptr, getcwd(saved, sizeof saved));
    ASSERT_NE(nullptr, mkdtemp(dir));
    ASSERT_EQ(0, mkdir((std::string(dir) + "/sub").c_str(), 0700));
    ASSERT_EQ(0, chdir((std::string(dir) + "/sub").c_str()));
  }
  void TearDown() override {
    EXPECT_EQ(0, chdir(saved));
    rmdir((std::string(dir) + "/sub").c_str());
    rmdir(dir);
    Host::TearDown();
  }
  static std::string status(QMStatus st) { return "status " + std::to_string(st); }
  // The full path of p, or the status as text.
  std::string full(const char *p, uint32_t enc = 0) {
    const auto w = Q(p);
    QMIOEParms parms{j, 0, enc, {0, 0}};
    QMChar *out = nullptr;
    QMStrSize n = -1;
    const QMStatus st = ext->Functions.getFullPath(&ext->Common, w.data(), len(w), nullptr, nullptr,
                                                   nullptr, nullptr, &out, &n, &parms);
    if (st != 0) return status(st);
    EXPECT_EQ(0u, out[n]);
    std::string s = U(out, static_cast<size_t>(n));
    EXPECT_EQ(0, ext->Functions.freeFullPath(&ext->Common, out, &parms));
    return s;
  }
  QMIOEExtension *ext = nullptr;
  char saved[4096];
  char dir[32] = "/tmp/qmioe_XXXXXX";
};

TEST_F(Qmioe, NormalisesLexicallyAgainstTheCurrentDirectory) {
  const std::string cwd = std::string(dir) + "/sub";
  const std::vector<std::pair<const char *, std::string>> table = {
      {"/a/b/../c", "/a/c"},
      {"//a///b/", "/a/b/"},
      {"/..", "/"},
      {"/a/./b/.", "/a/b"},
      {"/", "/"},
      {"/a/../", "/"},
      {"/../../x/", "/x/"},
      {"rel/x", cwd + "/rel/x"},
      {".", cwd},
      {"../", std::string(dir) + "/"},
      {"a/../../..//b", "/tmp/b"},
      {"ä/ö.txt", cwd + "/ä/ö.txt"},
  };
  const size_t blocks = stats().pool_blocks;
  for (const auto &[in, want] : table) EXPECT_EQ(want, full(in)) << in;
  EXPECT_EQ(blocks, stats().pool_blocks);  // every result went back

  EXPECT_EQ(status(QM_E_BAD_PATH), full(""));
  EXPECT_EQ("/tmp/é", full("/tmp/é", QM_CEI_ISO8859_1));
  qmhost_journal_clear(j);
  EXPECT_EQ(status(QM_E_UNMAPPABLE), full("/tmp/Āx", QM_CEI_ISO8859_1));
  EXPECT_EQ(0u, qmhost_journal_count(j));  // the caller reports, qmioe only answers
  EXPECT_EQ(status(QM_E_UNKNOWN_ENCODING), full("/x", 99));
  QMChar foreign[4];
  EXPECT_EQ(QM_E_BAD_FREE, ext->Functions.freeFullPath(&ext->Common, foreign, nullptr));

  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t)
    ts.emplace_back([&] {
      for (int i = 0; i < 300; ++i) ASSERT_EQ(cwd + "/x", full("./y/../x"));
    });
  for (auto &t : ts) t.join();
  EXPECT_EQ(blocks, stats().pool_blocks);
}

}  // namespace
