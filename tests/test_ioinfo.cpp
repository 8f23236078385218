// I/O records: when they are made, which record an update or a close lands
// in, what a reset forgets and frees, handles and extensions that are not
// there, and children forked while updates, resets and lock traffic run on
// several threads.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "test_lock_support.h"

using namespace locktest;

TEST(IOInfo, NewestRecordTakesUpdatesAndClosesResetForgets) {
  for (QMIOByteCountKind kind : {QMIO_ByteCount_Default, QMIO_ByteCount_None}) {
    TestHost host(HostOptions{.iobytecount = kind});
    TempDir dir;
    LockRequest r(dir.file("f"));
    int rc = 0;
    QMELMIOStats s = ioIncrement(5);
    QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
    EXPECT_EQ(host.fn().UpdateIOInfo(h, &s, nullptr) + host.release(h), 0);
    EXPECT_EQ(host.ext->IOInfo, nullptr);
  }
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  const auto before = footprint(host, dir.file("other"));
  LockRequest a(dir.file("f")), b(dir.file("f")), c(dir.file("f")), d(dir.file("g"));
  int rc = 0;
  QMELMLHndlp h1 = host.lock(a, NX | ENX, &rc), h2 = host.lock(b, NX | ENX, &rc);
  QMELMIOInfop newer = host.ext->IOInfo, older = newer->next;
  ASSERT_EQ(host.ext->numIOInfo, 2u);
  EXPECT_EQ(utf8(older->Name, older->NameLen), dir.file("f"));
  QMELMIOStats s = ioIncrement(10);
  EXPECT_EQ(host.fn().UpdateIOInfo(h1, &s, nullptr), 0);  // any handle: the newest record
  EXPECT_EQ(newer->numBytesWritten + older->numReads, 20);
  EXPECT_EQ(host.release(h1), 0);
  EXPECT_GE(newer->closeTime, 0.0);  // the first release stamps the newest record
  EXPECT_EQ(older->closeTime, -1.0);

  // The closed record leaves the list but stays with its living node.
  EXPECT_EQ(resetIO(host), 0);
  EXPECT_EQ(host.ext->IOInfo, older);
  EXPECT_EQ(host.ext->numIOInfo, 1u);
  EXPECT_EQ(host.fn().UpdateIOInfo(h2, &s, nullptr), 0);
  EXPECT_EQ(older->numBytesRead, 0);
  QMELMLHndlp h3 = host.lock(c, NX | ENX, &rc);  // takes the forgotten record again
  EXPECT_EQ(host.ext->IOInfo, newer);
  EXPECT_EQ(host.ext->numIOInfo, 2u);
  EXPECT_EQ(newer->numBytesRead + newer->openTime, 0.0);  // h1's parked descriptor: no open
  EXPECT_EQ(newer->closeTime, -1.0);

  // The last holder's release closes the file for every record of it.
  for (QMELMLHndlp h : {h2, h3}) EXPECT_EQ(host.release(h), 0);
  EXPECT_GE(newer->closeTime, 0.0);
  EXPECT_GE(older->closeTime, newer->closeTime);
  QMELMLHndlp hg = host.lock(d, NX | ENX, &rc);  // destroys the dead node
  older->closeTime = 0.0;                        // exactly 0.0 counts as closed
  EXPECT_EQ(resetIO(host), 0);
  EXPECT_EQ(host.ext->numIOInfo, 1u);
  EXPECT_EQ(utf8(host.ext->IOInfo->Name, host.ext->IOInfo->NameLen), dir.file("g"));
  EXPECT_EQ(host.release(hg), 0);
  EXPECT_EQ(footprint(host, dir.file("other")), before);
  EXPECT_EQ(host.stats().bad_frees, 0u);
}

// An update through a handle that is not live touches nothing and says so;
// so does one through a handle inherited from the parent of a fork. Every
// I/O entry answers a null extension with a status.
TEST(IOInfo, UpdateChecksItsHandleAndEveryEntryItsExtension) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  LockRequest a(dir.file("f")), b(dir.file("f"));
  int rc = 0;
  QMELMLHndlp gone = host.lock(a, NX | ENX, &rc), h = host.lock(b, NX | ENX, &rc);
  ASSERT_EQ(rc, 0);
  QMELMIOInfop r = host.ext->IOInfo;
  ASSERT_EQ(host.release(gone), 0);
  QMELMIOStats s = ioIncrement(1);
  alignas(64) unsigned char neverIssued[512] = {};
  auto *fake = reinterpret_cast<QMELMLHndlp>(neverIssued);
  EXPECT_STATUS(QMELM_E_DEAD_NODE, host.fn().UpdateIOInfo(gone, &s, host.jnl));
  EXPECT_CODES(host.lastCodes(), {QMELM_E_DEAD_NODE});
  EXPECT_STATUS(QMELM_E_DEAD_NODE, host.fn().UpdateIOInfo(fake, &s, nullptr));
  EXPECT_STATUS(QMELM_E_NULL_HANDLE, host.fn().UpdateIOInfo(nullptr, &s, nullptr));
  EXPECT_STATUS(QMELM_E_NULL_PARMS, host.fn().UpdateIOInfo(h, nullptr, nullptr));
  EXPECT_EQ(r->numReads, 0);

  QMELMResetIOInfoParms rp{};
  QMELMQueryIOInfoParms q{};
  QMELMGetIOInfoParms g{};
  QMELMListIOInfoParms l{};
  QMELMJnlIOInfoParms jp{};
  EXPECT_STATUS(QMELM_E_NULL_EXTENSION, host.fn().ResetIOInfo(nullptr, &rp, nullptr));
  EXPECT_STATUS(QMELM_E_NULL_EXTENSION, host.fn().GetIOInfo(nullptr, &q, &g, nullptr));
  EXPECT_STATUS(QMELM_E_NULL_EXTENSION, host.fn().ListIOInfo(nullptr, &q, &l, nullptr));
  EXPECT_STATUS(QMELM_E_NULL_EXTENSION, host.fn().ListIOInfoFree(nullptr, &l, nullptr));
  EXPECT_STATUS(QMELM_E_NULL_EXTENSION, host.fn().JnlIOInfo(nullptr, &jp, host.jnl));
  EXPECT_EQ(g.numEntries + l.numEntries, 0u);

  const pid_t pid = fork();
  if (pid == 0) {
    const bool refused = host.fn().UpdateIOInfo(h, &s, nullptr) == QMELM_E_FORKED_HANDLE;
    _exit(refused && r->numReads == 0 ? 0 : 1);
  }
  int st = -1;
  ASSERT_EQ(waitpid(pid, &st, 0), pid);
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "child status " << st;
  EXPECT_EQ(host.fn().UpdateIOInfo(h, &s, nullptr), 0);
  EXPECT_EQ(r->numReads, 1);
  EXPECT_EQ(host.release(h), 0);
}

namespace {

// Waits for a forked child, killing it when it has not ended within the
// guard's limit (it hangs: the test fails). Returns its wait status.
int reapWithin(pid_t pid, std::chrono::seconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  int st = -1;
  while (waitpid(pid, &st, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > until) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      ADD_FAILURE() << "child " << pid << " did not end";
      return st;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return st;
}

}  // namespace

// Children forked while other threads update records of held files, reset
// them, query them with locking and lock the held files too: each child
// updates, resets, queries and locks on its own, which it cannot when a
// record's mutex came over held. The parent's list stays whole, and once the
// nodes are dead and a reset has run, no block or mutex is left.
TEST(IOInfo, ChildrenForkedDuringUpdatesResetsAndQueriesWorkOnTheirOwn) {
  TestHost host(HostOptions{.iobytecount = QMIO_ByteCount_External});
  TempDir dir;
  const std::string files[] = {dir.file("a"), dir.file("b"), dir.file("c")};
  const auto before = footprint(host, dir.file("other"));
  LockRequest ra(files[0]), rb(files[1]);
  int rc = 0;
  QMELMLHndlp held[] = {host.lock(ra, NX | ENX, &rc), host.lock(rb, NX | ENX, &rc)};
  ASSERT_EQ(rc, 0);
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};

  std::vector<std::thread> threads;
  for (QMELMLHndlp h : held)
    threads.emplace_back([&, h] {
      QMELMIOStats s = ioIncrement(1);
      while (!stop) failures += host.fn().UpdateIOInfo(h, &s, nullptr);
    });
  threads.emplace_back([&] {
    while (!stop) failures += resetIO(host);
  });
  threads.emplace_back([&] {
    QMELMQueryIOInfoParms all{};
    all.lockRequest = 1;
    while (!stop) {
      QMELMGetIOInfoParms g{};
      failures += host.fn().GetIOInfo(host.ext, &all, &g, nullptr);
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      LockRequest r(files[i % 3]);
      int st = 0;
      QMELMLHndlp h = get(host, r, NX | ENX, &st, nullptr);
      failures += h == nullptr || host.fn().LockRelease(h, nullptr, nullptr) != 0;
    }
  });

  for (int round = 0; round < 40; ++round) {
    const pid_t pid = fork();
    if (pid == 0) {
      LockRequest r(files[2]);
      int st = 0;
      QMELMLHndlp h = get(host, r, NX | ENX, &st, nullptr);
      QMELMIOStats s = ioIncrement(1);
      QMELMQueryIOInfoParms all{};
      all.lockRequest = 1;
      QMELMGetIOInfoParms g{};
      const bool ok = h != nullptr && host.fn().UpdateIOInfo(h, &s, nullptr) == 0 &&
                      resetIO(host) == 0 && host.fn().GetIOInfo(host.ext, &all, &g, nullptr) == 0 &&
                      g.numEntries == host.ext->numIOInfo &&
                      host.fn().LockRelease(h, nullptr, nullptr) == 0;
      _exit(ok ? 0 : 1);
    }
    ASSERT_GT(pid, 0);
    const int st = reapWithin(pid, std::chrono::seconds(10));
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "round " << round << ", status " << st;
  }
  stop = true;
  for (auto &t : threads) t.join();
  EXPECT_EQ(failures, 0);
  for (QMELMLHndlp h : held) EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(resetIO(host), 0);
  QMMemSize listed = 0;
  for (QMELMIOInfop r = host.ext->IOInfo; r != nullptr; r = r->next, ++listed)
    EXPECT_EQ(r->prev == nullptr, r == host.ext->IOInfo);
  EXPECT_EQ(listed, host.ext->numIOInfo);
  EXPECT_EQ(footprint(host, dir.file("other")), before);
  EXPECT_EQ(host.stats().bad_frees, 0u);
}
