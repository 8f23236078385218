// Internal arbitration between the holders of one process: which lock types
// may join which, with the status, the journal and the node's counters.
#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include "locks/xvelmHolders.h"
#include "test_lock_support.h"

using namespace locktest;

TEST(LockArbitration, HoldersJoinOrAreRefusedByTheTable) {
  struct Case {
    std::vector<QMMemSize> held;  // granted in this order
    QMMemSize request;
    QMStatus expect;
    std::vector<QMMemSize> after;  // excl, nonexcl, nonshared nonexcl, no internal
    QMMemSize ext = NOE;           // the external part of every lock of the row
  };
  const QMStatus SHARE = QMELM_E_INT_SHARE_CONFLICT, EXCL = QMELM_E_INT_LOCKED_EXCLUSIVE;
  const Case cases[] = {
      {{NX}, NX, 0, {0, 2, 2, 0}},
      {{NX}, X, QMELM_E_INT_LOCKED_SHARED, {0, 1, 1, 0}},
      {{NX}, X | SH, SHARE, {0, 1, 1, 0}},
      {{X}, NX, EXCL, {1, 0, 0, 0}},
      {{X}, NX | SH, SHARE, {1, 0, 0, 0}},
      {{X}, X, EXCL, {1, 0, 0, 0}},
      {{X | SH}, NX | SH, 0, {1, 1, 0, 0}},
      {{X | SH}, NX, SHARE, {1, 0, 0, 0}},
      {{X | SH}, X | SH, EXCL, {1, 0, 0, 0}},
      {{NX | SH}, X | SH, 0, {1, 1, 0, 0}},
      {{NX | SH}, X, SHARE, {0, 1, 0, 0}},
      {{NX | SH}, NX, 0, {0, 2, 1, 0}},
      {{X}, NOI, 0, {1, 0, 0, 1}},
      {{NOI}, X, 0, {1, 0, 0, 1}},
      {{NX, NX}, X | SH, SHARE, {0, 2, 2, 0}},
      {{X | SH, NX | SH}, NX | SH, 0, {1, 2, 0, 0}},
      {{NX | SH, X | SH}, X | SH, EXCL, {1, 1, 0, 0}},
      {{NX | SH, NX | SH}, X, SHARE, {0, 2, 0, 0}},
      // A non-shared holder takes "shared" out of the node's type only when
      // it joins as an external non-exclusive holder.
      {{NX | SH, NX}, X | SH, 0, {1, 2, 1, 0}},
      {{NX | SH, NX}, X | SH, SHARE, {0, 2, 1, 0}, ENX},
  };
  TestHost host;
  TempDir dir;
  for (size_t row = 0; row < std::size(cases); ++row) {
    const Case &c = cases[row];
    SCOPED_TRACE("row " + std::to_string(row));
    std::deque<LockRequest> reqs;  // requests point into themselves: never copied
    std::vector<QMELMLHndlp> handles;
    int rc = 0;
    for (QMMemSize t : c.held) {
      handles.push_back(
          host.lock(reqs.emplace_back(dir.file(std::to_string(row))), t | c.ext, &rc));
      ASSERT_EQ(rc, 0);
    }
    host.clearJournal();
    LockRequest &last = reqs.emplace_back(dir.file(std::to_string(row)));
    QMELMLHndlp h = host.lock(last, c.request | c.ext, &rc);
    EXPECT_STATUS(c.expect, rc);
    EXPECT_EQ(last.parms.AcquiredLockType, c.expect == 0 ? (c.request | c.ext) : 0u);
    const std::vector<QMMemSize> got = counts(handles.front());
    EXPECT_EQ(std::vector<QMMemSize>(got.begin(), got.begin() + 4), c.after);
    if (c.expect != 0) {
      EXPECT_CODES(host.lastCodes(),
                   {c.expect, c.expect == SHARE ? QMELM_M_PATH : QMELM_M_INT_LOCK_CONFLICT,
                    QMELM_M_TRAILER});
      EXPECT_NE(host.entries().back().text.find(dir.file(std::to_string(row))), std::string::npos);
    } else {
      EXPECT_EQ(host.entryCount(), 0u);
      handles.push_back(h);
    }
    for (QMELMLHndlp held : handles) EXPECT_EQ(host.release(held), 0);
  }
}

// A change of a holder's internal lock is a release of the old type and a
// request for the new one: whenever a change is granted, the release and
// the request, made on the same counters, are granted too and leave the same
// counts. (A change may refuse more than they would: the sharing rules look
// at the node's type, which the counters alone do not carry.)
TEST(LockArbitration, AGrantedChangeEqualsAReleaseAndARequestOnTheCounters) {
  using namespace xvelm::detail;
  const QMMemSize types[] = {X, X | SH, NX, NX | SH};
  int granted = 0;
  for (QMMemSize O : types) {
    for (QMMemSize T : types) {
      if (O == T) continue;
      for (QMMemSize x = 0; x <= 1; ++x) {
        for (QMMemSize s = 0; s <= 3; ++s) {
          for (uint32_t u = 0; u <= s; ++u) {
            // The counters must hold the changing holder itself.
            if (((O & X) && x == 0) || (O == NX && u == 0) || (O == (NX | SH) && s - u == 0))
              continue;
            SCOPED_TRACE(hex(O) + " to " + hex(T) + " with X=" + std::to_string(x) +
                         " S=" + std::to_string(s) + " U=" + std::to_string(u));
            QMELMResLock node{};
            node.int_exclusive = x;
            node.int_nonexclusive = s;
            node.int_nonshared_nonexclusive = u;
            InternalCounts changed = InternalCounts::of(node);
            if (recountInternal(O, T, changed) != 0) continue;
            ++granted;
            uncountInternal(node, O, NodeTypeAfter::Unchanged);
            EXPECT_EQ(countInternal(node, T), 0);
            EXPECT_EQ(node.int_exclusive, changed.exclusive);
            EXPECT_EQ(node.int_nonexclusive, changed.nonexclusive);
            EXPECT_EQ(node.int_nonshared_nonexclusive, changed.nonshared);
          }
        }
      }
    }
  }
  EXPECT_GT(granted, 20);

  // Through the entries: beside an exclusive-shared holder, a non-shared
  // reader may not become a second exclusive holder.
  TestHost host;
  TempDir dir;
  const std::string path = dir.file("f");
  LockRequest a(path), b(path), c(path);
  int rc = 0;
  QMELMLHndlp ha = host.lock(a, NX | SH | NOE, &rc);
  QMELMLHndlp hb = host.lock(b, NX | NOE, &rc);
  QMELMLHndlp hc = host.lock(c, X | SH | NOE, &rc);
  ASSERT_TRUE(ha && hb && hc) << hex(rc);
  EXPECT_STATUS(QMELM_E_INT_LOCKED_EXCLUSIVE, host.fn().LockChange(hb, b.get(), X | SH, nullptr));
  EXPECT_EQ(counts(hb), (std::vector<QMMemSize>{1, 2, 1, 0, 0, 0, 3}));
  for (QMELMLHndlp h : {hc, hb, ha}) EXPECT_EQ(host.release(h), 0);
}

// Threads lock, change and release on two files while a model of the
// holders, kept beside them, checks every grant: never two exclusive
// holders, never an exclusive non-shared holder beside a non-shared one.
TEST(LockArbitration, ThreadsNeverBreakInternalExclusionAgainstAModel) {
  TestHost host;
  TempDir dir;
  const std::string files[2] = {dir.file("a"), dir.file("b")};
  std::mutex modelMutex;
  std::vector<QMMemSize> model[2];  // internal types of the holders, per file
  std::atomic<int> violations{0}, grants{0};
  auto admits = [](const std::vector<QMMemSize> &held, QMMemSize t) {
    for (QMMemSize h : held) {
      if ((h & X) && (t & X)) return false;
      if ((h & X) && !(h & SH) && !(t & SH)) return false;
      if ((t & X) && !(t & SH) && !(h & SH)) return false;
    }
    return true;
  };
  auto drop = [&](int f, QMMemSize t) {
    std::lock_guard<std::mutex> g(modelMutex);
    auto it = std::find(model[f].begin(), model[f].end(), t & (X | NX | SH));
    if (it != model[f].end()) model[f].erase(it);
  };
  auto add = [&](int f, QMMemSize t) {
    std::lock_guard<std::mutex> g(modelMutex);
    if (!admits(model[f], t)) ++violations;
    model[f].push_back(t & (X | NX | SH));
    ++grants;
  };
  const QMMemSize types[] = {X | EX, X | SH | EX, NX | ENX, NX | SH | ENX, X | NOE, NX | NOE};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rnd(static_cast<unsigned>(t) + 11u);
      for (int i = 0; i < 1500; ++i) {
        const int f = static_cast<int>(rnd() % 2);
        LockRequest r(files[f]);
        int rc = 0;
        QMMemSize type = types[rnd() % 6];
        QMELMLHndlp h =
            host.fn().LockGet(host.ext, r.get(), QMELM_RESOURCE_FILE, type, nullptr, &rc);
        if (h == nullptr) continue;
        add(f, type);
        if (rnd() % 2) {
          // Another internal type, with the same external part. The model
          // never holds more than the threads do: the old type leaves it
          // before the change, the new one joins it as a grant, and a
          // refused change puts the old one back (held all along).
          const QMMemSize internal[] = {X, X | SH, NX, NX | SH};
          const QMMemSize want = internal[rnd() % 4];
          drop(f, type);
          const int st = host.fn().LockChange(h, r.get(), want, nullptr);
          if (st == 0) {
            type = h->Private.LockType;
            add(f, type);
          } else {
            std::lock_guard<std::mutex> g(modelMutex);
            model[f].push_back(type & (X | NX | SH));
          }
        }
        drop(f, type);
        host.fn().LockRelease(h, nullptr, nullptr);
      }
    });
  }
  for (std::thread &th : threads) th.join();
  EXPECT_EQ(violations.load(), 0);
  EXPECT_GT(grants.load(), 1000);
}
