// test_qmlock_api.cpp - the header-only C++ API (qmhost/qmelm.hpp) over
// libqmelm.so loaded by name: FileLock's ownership (destructor, moves,
// change), what a Result carries, each thread's own journal text under
// concurrent calls, a lock manager that could not be loaded, and the option
// and I/O calls giving back everything they borrow.
#include <atomic>
#include <thread>

#include "qmhost/qmelm.hpp"
#include "test_lock_support.h"

using namespace locktest;
namespace elm = qm::elm;

namespace {

size_t liveBlocks(elm::Host &host) {
  QMHostStats s{};
  qmhost_stats(host.get(), &s);
  return s.pool_blocks;
}

TEST(CppApi, FileLockIsReleasedByItsDestructorAndByMoveAssignment) {
  TempDir d;
  const std::string f = d.file("f"), g = d.file("g");
  elm::Host host;
  elm::LockManager lm(host);
  ASSERT_TRUE(lm) << lm.status().to_string();
  {
    auto [lock, r] = lm.lock(f, elm::LockType::exclusive);
    ASSERT_TRUE(r) << r.to_string();
    EXPECT_GE(lock.fd(), 0);
    EXPECT_TRUE(lock.type().has(elm::LockType::exclusive));
    EXPECT_FALSE(otherProcessCanLock(f, F_RDLCK));

    elm::FileLock moved = std::move(lock);
    EXPECT_FALSE(lock);
    EXPECT_EQ(lock.fd(), -1);
    EXPECT_FALSE(otherProcessCanLock(f, F_RDLCK)) << "a move keeps the lock";
    auto [other, r2] = lm.lock(g, elm::LockType::exclusive);
    ASSERT_TRUE(r2);
    moved = std::move(other);  // gives f back, takes over g
    EXPECT_TRUE(otherProcessCanLock(f, F_WRLCK));
    EXPECT_FALSE(otherProcessCanLock(g, F_RDLCK));
    EXPECT_EQ(moved.path(), g);
  }
  EXPECT_TRUE(otherProcessCanLock(g, F_WRLCK)) << "the destructor gives the lock back";

  // release() reports, deletes on close when asked, and empties the FileLock.
  auto [lock, r] = lm.lock(f, elm::LockType::exclusive, {O_RDWR | O_CREAT, 0600, true});
  ASSERT_TRUE(r);
  EXPECT_TRUE(lock.release());
  EXPECT_FALSE(lock);
  EXPECT_NE(access(f.c_str(), F_OK), 0);
  EXPECT_EQ(lock.release().status(), QMELM_E_NULL_HANDLE);
}

TEST(CppApi, ResultsCarryStatusNameJournalTextAndHolder) {
  TempDir d;
  const std::string f = d.file("held"), g = d.file("g");
  close(open(f.c_str(), O_RDWR | O_CREAT, 0644));
  Holder python(f);
  ASSERT_EQ(python.line, "locked");
  elm::Host host;
  elm::LockManager lm(host);

  auto [none, r] = lm.lock(f, elm::LockType::nonexclusive);
  EXPECT_FALSE(none);
  EXPECT_EQ(r.status(), QMELM_E_EXT_LOCKED_EXCLUSIVE);
  EXPECT_EQ(r.name(), "QMELM_E_EXT_LOCKED_EXCLUSIVE");
  EXPECT_EQ(r.locker_pid(), python.pid);
  EXPECT_TRUE(r.conflict());
  EXPECT_FALSE(r.internal_conflict());
  EXPECT_NE(r.message().find("Resource: '" + f + "'"), std::string::npos) << r.message();
  EXPECT_EQ(
      r.to_string().rfind("error 0x80ffe011 QMELM_E_EXT_LOCKED_EXCLUSIVE: Another process", 0), 0u)
      << r.to_string();

  // A refused change changes nothing; once the other holder goes it succeeds.
  auto [a, ra] = lm.lock(g, elm::LockType::nonexclusive);
  auto [b, rb] = lm.lock(g, elm::LockType::nonexclusive);
  ASSERT_TRUE(ra && rb);
  const elm::LockType before = a.type();
  const elm::Result refused = a.change(elm::LockType::exclusive);
  EXPECT_EQ(refused.status(), QMELM_E_INT_LOCKED_SHARED);
  EXPECT_TRUE(refused.internal_conflict());
  EXPECT_EQ(a.type(), before);
  EXPECT_TRUE(otherProcessCanLock(g, F_RDLCK));
  EXPECT_TRUE(b.release());
  EXPECT_TRUE(a.change(elm::LockType::exclusive));
  EXPECT_TRUE(a.type().has(elm::LockType::int_exclusive | elm::LockType::ext_exclusive));
  EXPECT_FALSE(otherProcessCanLock(g, F_RDLCK));

  const elm::Result invalid = lm.lock(g, elm::LockType::int_exclusive).result;
  EXPECT_EQ(invalid.status(), QMELM_E_INVALID_LOCKTYPE);
  EXPECT_NE(invalid.message().find("[internal exclusive]"), std::string::npos);
  EXPECT_FALSE(invalid.conflict());

  // Names both ways, for every bit and for bits without a name.
  const elm::LockType all{0x3ff | 0x1000};
  EXPECT_EQ(to_string(all),
            "int-excl,int-nonexcl,ext-excl,ext-nonexcl,no-int,no-ext,shared,opt-none,opt-fail,"
            "opt-continue,0x1000");
  EXPECT_EQ(elm::LockType::parse(to_string(all)), all);
  EXPECT_EQ(elm::LockType::parse("int-excl|0x4+shared"), elm::LockType{0x45});
  EXPECT_EQ(elm::LockType::parse("none"), elm::LockType{});
  EXPECT_FALSE(elm::LockType::parse("int-excl,"));
  EXPECT_FALSE(elm::LockType::parse("exclusive"));
  EXPECT_EQ(elm::parse_status("QMELM_E_DEAD_NODE"), QMELM_E_DEAD_NODE);
  EXPECT_EQ(elm::parse_status("0x80010012"), QM_E_BAD_PATH);
  EXPECT_FALSE(elm::parse_status("0x180010012"));
}

// Many threads lock, are refused and change at once; every refusal's text
// must name the thread's own file: a journal is lent to one call at a time.
TEST(CppApi, ConcurrentCallsEachGetTheirOwnJournalText) {
  TempDir d;
  elm::Host host;
  elm::LockManager lm(host);
  constexpr int kThreads = 4, kRounds = 150;
  std::atomic<int> wrong{0}, failed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string mine = d.file("t" + std::to_string(t));
      for (int i = 0; i < kRounds; ++i) {
        auto [held, r] = lm.lock(mine, elm::LockType::exclusive);
        if (!r) ++failed;
        const elm::Result refused = lm.lock(mine, elm::LockType::nonexclusive).result;
        if (refused.status() != QMELM_E_INT_LOCKED_EXCLUSIVE ||
            refused.message().find("'" + mine + "'") == std::string::npos)
          ++wrong;
        if (!held.change(elm::LockType::nonexclusive)) ++failed;
      }
    });
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(wrong, 0);
  QMHostStats s{};
  qmhost_stats(host.get(), &s);
  EXPECT_LE(s.journals, static_cast<size_t>(kThreads) + 1) << "journals are reused, not piled up";
}

TEST(CppApi, WithoutTheLockManagerEveryCallSaysWhy) {
  elm::Host::Options o;
  o.extension_path = "/nonexistent/qmelm/extensions";
  elm::Host host(o);
  ASSERT_TRUE(host);
  elm::LockManager lm(host);
  EXPECT_FALSE(lm);
  EXPECT_EQ(lm.status().status(), QM_E_EXT_NOT_FOUND);
  EXPECT_EQ(lm.lock("/tmp/x", elm::LockType::exclusive).result.status(), QM_E_EXT_NOT_FOUND);
  EXPECT_EQ(lm.set_option("/tmp", QMELM_None).status(), QM_E_EXT_NOT_FOUND);
  EXPECT_EQ(lm.io_report().result.status(), QM_E_EXT_NOT_FOUND);
}

// Options, matches and I/O records cross the API as copies; whatever the C
// calls lent (snapshots, matches, lists) is given back: the pool's block
// count returns to where it was.
TEST(CppApi, OptionAndIOCallsGiveBackWhatTheyBorrow) {
  TempDir d;
  const std::string dir = d.file(
                        "donn\xc3\xa9"
                        "es"),
                    f = dir + "/f";  // "données"
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  elm::Host::Options o;
  o.iobytecount = QMIO_ByteCount_External;
  elm::Host host(o);
  elm::LockManager lm(host);
  // Warm up: the journal lent to calls, and the first node's bookkeeping.
  (void)lm.lock(d.file("warm"), elm::LockType::exclusive);
  EXPECT_TRUE(lm.io_reset());
  const size_t baseline = liveBlocks(host);

  ASSERT_TRUE(lm.set_option(dir, QMELM_Continue));
  auto [entries, r] = lm.options();
  ASSERT_TRUE(r);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1].fullpath, dir);
  EXPECT_EQ(entries[1].option, QMELM_Continue);
  auto [m, rm] = lm.match(f);
  EXPECT_TRUE(rm);
  EXPECT_EQ(m.option, QMELM_Continue);
  EXPECT_EQ(m.matchpath, dir);
  {
    auto [lock, rl] = lm.lock(f, elm::LockType::exclusive);
    ASSERT_TRUE(rl);
    EXPECT_TRUE(lock.type().has(elm::LockType::opt_continue));
    elm::IOCounts c;
    c.reads = 2;
    c.bytes_read = 4096;
    EXPECT_TRUE(lock.update_io(c));
    auto [totals, rt] = lm.io_totals({f, {}, true});
    EXPECT_TRUE(rt);
    EXPECT_EQ(totals.records, 1u);
    EXPECT_EQ(totals.counts.bytes_read, 4096);
    auto [records, rr] = lm.io_records({{}, dir, false});
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].file, f);
    EXPECT_TRUE(records[0].is_open());
    EXPECT_EQ(records[0].counts.reads, 2);
    auto [report, rp] = lm.io_report();
    EXPECT_TRUE(rp);
    EXPECT_EQ(report.size(), 7u) << "a header and six lines for the record";
  }
  EXPECT_TRUE(lm.reset_option(dir));
  EXPECT_EQ(lm.reset_option(dir).status(), QMELM_E_OPTION_NOT_FOUND);
  (void)lm.lock(d.file("warm"), elm::LockType::exclusive);  // removes the dead node of f
  EXPECT_TRUE(lm.io_reset());
  EXPECT_EQ(liveBlocks(host), baseline);
}

}  // namespace
