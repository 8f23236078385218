// test_cxx_api.cpp - the header-only C++ API (qmelm.hpp) over libqmelm.so
// loaded by name: FileLock's ownership (destructor, moves, change, outliving
// its manager), what a Result carries (as an std::error_code too), each
// thread's own journal text under concurrent calls, file_mutex under the
// standard's lock types against threads and other processes, names refused
// before anything is opened, and the option and I/O calls giving back
// everything they borrow.
#include <dirent.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <system_error>
#include <thread>

#include "qmelm.hpp"
#include "test_lock_support.h"

using namespace locktest;
namespace elm = qm::elm;

namespace {

size_t liveBlocks(elm::Host &host) {
  QMHostStats s{};
  qmhost_stats(host.get(), &s);
  return s.pool_blocks;
}

// The names in directory dir, "." and ".." left out.
std::vector<std::string> entries(const std::string &dir) {
  std::vector<std::string> out;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (std::string_view(e->d_name) != "." && std::string_view(e->d_name) != "..")
        out.emplace_back(e->d_name);
    closedir(d);
  }
  return out;
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
  // The text names the holder as qmlock does; the Result is an error_code.
  const std::string holder =
      " Holder: process " + std::to_string(python.pid) + " (python3) holds a write lock.";
  EXPECT_EQ(r.text(), r.to_string() + holder);
  const std::error_code ec = r;
  EXPECT_EQ(&ec.category(), &elm::error_category());
  EXPECT_EQ(ec, elm::Status::QMELM_E_EXT_LOCKED_EXCLUSIVE);
  EXPECT_EQ(ec, std::errc::resource_unavailable_try_again);
  EXPECT_NE(ec, std::errc::permission_denied);
  EXPECT_EQ(ec.message(), elm::status_text(QMELM_E_EXT_LOCKED_EXCLUSIVE));
  EXPECT_FALSE(std::error_code(elm::Result()));

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

  // An upgrade refused by another process's reader names that process: the
  // out fields are read after the change that writes them.
  const std::string h = d.file("read");
  close(open(h.c_str(), O_RDWR | O_CREAT, 0644));
  Holder reader(h, NX | ENX);
  ASSERT_EQ(reader.line, "locked");
  auto [c, rc] = lm.lock(h, elm::LockType::read);
  ASSERT_TRUE(rc) << rc.to_string();
  const elm::Result upgrade = c.change(elm::LockType::write);
  EXPECT_TRUE(upgrade.conflict()) << upgrade.to_string();
  EXPECT_EQ(upgrade.locker_pid(), reader.pid);

  const elm::Result invalid = lm.lock(g, elm::LockType::int_exclusive).result;
  EXPECT_EQ(invalid.status(), QMELM_E_INVALID_LOCKTYPE);
  EXPECT_NE(invalid.message().find("[internal exclusive]"), std::string::npos);
  EXPECT_FALSE(invalid.conflict());
  EXPECT_EQ(invalid.holder(), "");
  EXPECT_EQ(invalid.code(), std::errc::invalid_argument);

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

// The standard's lock types over file_mutex: exclusive holds keep other
// threads and processes out, shared holds let readers in and writers wait,
// std::lock and std::scoped_lock take two files without deadlock.
TEST(CppApi, FileMutexWorksWithTheStandardLockTypes) {
  TempDir d;
  const std::string f = d.file("f"), g = d.file("g");
  elm::LockManager lm(elm::Host{});
  ASSERT_TRUE(lm) << lm.status().text();
  elm::file_mutex a(lm, f), b(lm, std::filesystem::path(g));
  {
    std::scoped_lock both(a, b);
    EXPECT_FALSE(otherProcessCanLock(f, F_RDLCK));
    EXPECT_FALSE(otherProcessCanLock(g, F_RDLCK));
    bool tried = true;
    std::thread([&] { tried = a.try_lock() || b.try_lock_shared(); }).join();
    EXPECT_FALSE(tried) << "another thread is kept out";
  }
  EXPECT_TRUE(otherProcessCanLock(f, F_WRLCK));
  EXPECT_TRUE(otherProcessCanLock(g, F_WRLCK));

  std::lock(b, a);  // the order reversed: std::lock backs off and retries
  std::unique_lock ua(a, std::adopt_lock), ub(b, std::adopt_lock);
  ub.unlock();
  EXPECT_TRUE(otherProcessCanLock(g, F_WRLCK));
  EXPECT_FALSE(otherProcessCanLock(f, F_RDLCK));
  ua.unlock();

  // Two readers at once; a writer waits for both, then has the file alone.
  std::shared_lock r1(a);
  std::shared_lock r2(a, std::try_to_lock);
  ASSERT_TRUE(r2.owns_lock());
  EXPECT_TRUE(otherProcessCanLock(f, F_RDLCK));
  EXPECT_FALSE(otherProcessCanLock(f, F_WRLCK));
  std::atomic<bool> written{false};
  std::thread writer([&] {
    std::unique_lock w(a);
    written = !otherProcessCanLock(f, F_RDLCK);
  });
  EXPECT_FALSE(a.try_lock()) << "readers hold it";
  r1.unlock();
  r2.unlock();
  writer.join();
  EXPECT_TRUE(written);
  std::unique_lock timed(a, std::chrono::seconds(30));
  EXPECT_TRUE(timed.owns_lock());
}

// Timed waits against a holder in another process: they give up once the
// time asked has passed (and not before); a waiter gets the lock once the
// holder goes.
TEST(CppApi, FileMutexWaitsForAnotherProcessAsLongAsAsked) {
  TempDir d;
  const std::string f = d.file("held");
  touch(f);
  auto python = std::make_unique<Holder>(f);
  ASSERT_EQ(python->line, "locked");
  elm::LockManager lm(elm::Host{});
  elm::file_mutex m(lm, f);

  using Clock = std::chrono::steady_clock;
  constexpr auto kWait = std::chrono::milliseconds(300);
  const auto start = Clock::now();
  EXPECT_FALSE(m.try_lock_for(kWait));
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, kWait);
  EXPECT_LT(waited, std::chrono::seconds(20)) << "failure guard only";
  EXPECT_FALSE(m.try_lock_shared_until(std::chrono::system_clock::now() + kWait));
  EXPECT_FALSE(m.try_lock_shared_for(std::chrono::seconds(-1))) << "one attempt, no wait";

  std::atomic<bool> locked{false};
  std::thread waiter([&] {
    std::lock_guard g(m);
    locked = !otherProcessCanLock(f, F_RDLCK);
  });
  python.reset();  // kills the holder
  waiter.join();
  EXPECT_TRUE(locked);
  EXPECT_TRUE(otherProcessCanLock(f, F_WRLCK)) << "the lock_guard gave it back";

  // Failures other than a conflict are exceptions, with the status as code.
  elm::file_mutex missing(lm, d.file("no/such/dir/f"));
  try {
    missing.lock();
    ADD_FAILURE() << "locked a file in a missing directory";
  } catch (const std::system_error &e) {
    EXPECT_EQ(e.code(), std::errc::no_such_file_or_directory) << e.what();
    EXPECT_NE(std::string(e.what()).find("no/such/dir/f"), std::string::npos) << e.what();
  }
  EXPECT_THROW((void)missing.try_lock_shared(), std::system_error);
}

// A NUL in a name, or bytes that are not UTF-8, are refused before anything
// is opened: the lock manager would otherwise lock (and create, and delete)
// another file. Valid multi-byte names are locked as given.
TEST(CppApi, NamesWithNulOrMalformedUtf8AreRefused) {
  TempDir d;
  elm::LockManager lm(elm::Host{});
  const std::string withNul = d.file(std::string("a\0b", 3));
  auto [none, r] = lm.lock(withNul, elm::LockType::write, {O_RDWR | O_CREAT, 0644, true});
  EXPECT_FALSE(none);
  EXPECT_EQ(r.status(), QMELM_E_NAME_HAS_NUL);
  EXPECT_EQ(r.code(), std::errc::invalid_argument);
  EXPECT_EQ(lm.set_option(withNul, QMELM_None).status(), QMELM_E_NAME_HAS_NUL);
  elm::file_mutex m(lm, std::filesystem::path(withNul));
  try {
    m.lock();
    ADD_FAILURE() << "locked a name with a NUL";
  } catch (const std::system_error &e) {
    EXPECT_EQ(e.code(), elm::Status::QMELM_E_NAME_HAS_NUL);
  }
  for (const char *bad :
       {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xe2\x82", "\xf4\x90\x80\x80", "x\x80"}) {
    const std::string name = d.file(bad);
    EXPECT_EQ(lm.lock(name, elm::LockType::write).result.status(), QM_E_INVALID_SEQUENCE) << name;
    EXPECT_EQ(lm.match(name).result.status(), QM_E_INVALID_SEQUENCE);
    EXPECT_EQ(lm.io_totals({name, {}, true}).result.status(), QM_E_INVALID_SEQUENCE);
  }
  EXPECT_EQ(entries(d.path()), std::vector<std::string>{}) << "nothing was created";

  const std::string wide =
      "donn\xc3\xa9"
      "es-\xe2\x82\xac-\xf0\x9f\x94\x92";  // é, €, a lock
  auto [lock, ok] = lm.lock(d.file(wide), elm::LockType::write);
  ASSERT_TRUE(ok) << ok.text();
  EXPECT_EQ(entries(d.path()), std::vector<std::string>{wide});
}

// Locks and mutexes share their lock manager: destroying the Host and the
// LockManager first is harmless (and clean under AddressSanitizer), and both
// move without touching the locks made through them.
TEST(CppApi, LocksOutliveTheirManagerAndHost) {
  TempDir d;
  const std::string f = d.file("f"), g = d.file("g");
  elm::FileLock lock;
  std::unique_ptr<elm::file_mutex> m;
  {
    elm::Host host;
    elm::LockManager first(host);
    auto [l, r] = first.lock(f, elm::LockType::write);
    ASSERT_TRUE(r);
    elm::Host moved_host = std::move(host);
    EXPECT_FALSE(host);
    EXPECT_EQ(elm::LockManager(host).status().status(), QM_E_NO_MEMORY);
    elm::LockManager lm = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_EQ(first.lock(g, elm::LockType::write).result.status(), QM_E_EXT_NOT_FOUND);
    EXPECT_EQ(lm.lock(f, elm::LockType::read).result.status(), QMELM_E_INT_LOCKED_EXCLUSIVE)
        << "the moved manager still counts the lock taken before the move";
    lock = std::move(l);
    m = std::make_unique<elm::file_mutex>(lm, g);
    m->lock();
  }
  EXPECT_FALSE(otherProcessCanLock(f, F_RDLCK));
  EXPECT_FALSE(otherProcessCanLock(g, F_RDLCK));
  EXPECT_TRUE(lock.held());
  EXPECT_TRUE(lock.change(elm::LockType::read));
  EXPECT_TRUE(otherProcessCanLock(f, F_RDLCK));
  EXPECT_FALSE(otherProcessCanLock(f, F_WRLCK));
  EXPECT_TRUE(lock.release());
  EXPECT_TRUE(otherProcessCanLock(f, F_WRLCK));
  m->unlock();
  EXPECT_TRUE(otherProcessCanLock(g, F_WRLCK));
  m->lock_shared();
  m.reset();  // releases what it still holds, then the lock manager goes
  EXPECT_TRUE(otherProcessCanLock(g, F_WRLCK));
}

// LockManager::process() is one manager for the whole program, so its
// threads exclude each other; two managers of their own do not. Closing any
// descriptor of the locked file drops the record lock: held() sees it,
// type() does not.
TEST(CppApi, ProcessManagerArbitratesAndHeldSeesADroppedRecordLock) {
  TempDir d;
  const std::string f = d.file("f");
  elm::LockManager &lm = elm::LockManager::process();
  ASSERT_TRUE(lm) << lm.status().text();
  elm::LockManager *other = nullptr;
  std::thread([&] { other = &elm::LockManager::process(); }).join();
  EXPECT_EQ(other, &lm);

  auto [lock, r] = lm.lock(f, elm::LockType::write);
  ASSERT_TRUE(r);
  std::thread([&] {
    EXPECT_EQ(elm::LockManager::process().lock(f, elm::LockType::read).result.status(),
              QMELM_E_INT_LOCKED_EXCLUSIVE);
    elm::LockManager separate(elm::Host{});
    auto [unexcluded, r2] = separate.lock(f, elm::LockType::write);
    EXPECT_TRUE(r2) << "a separate manager does not see the process manager's holders";
  }).join();

  EXPECT_TRUE(lock.held());
  { std::ifstream read(f); }  // opens and closes another descriptor of f
  EXPECT_FALSE(lock.held());
  EXPECT_TRUE(lock.type().has(elm::LockType::write)) << "the counts still say write";
  EXPECT_TRUE(otherProcessCanLock(f, F_WRLCK)) << "the record lock is gone";
  EXPECT_TRUE(lock.release());
  EXPECT_FALSE(lock.held());
}

}  // namespace
