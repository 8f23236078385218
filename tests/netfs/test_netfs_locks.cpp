// The lock manager between machines that share a GlusterFS volume: this
// process locks through mount m1 with the public C interface, a peer process
// (netfs_peer) through m2 on this machine or through m3 on the other machine
// (its own PIDs). Exclusion both ways for every external type, lock change,
// delete on close, a name renamed over while the mounts' caches still show
// the old file, a killed client, and what the refusal message says.
#include <sys/stat.h>

#include <cinttypes>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>

#include "netfs_env.h"
#include "test_lock_support.h"

using namespace locktest;
using namespace netfs;

namespace {

const std::string kPeer = NETFS_PEER;

std::string hexType(QMMemSize t) {
  char b[16];
  std::snprintf(b, sizeof b, "%x", static_cast<unsigned>(t));
  return b;
}

// A peer process and the path of the shared file as its mount names it.
struct Peer {
  Peer(const Volume &v, Machine where, const std::string &name)
      : program(v, where, {kPeer}),
        path((where == Machine::Here ? v.m2 : v.m3) + "/" + name),
        where(where),
        volume(v) {
    pid = std::atoi(program.ask("pid").c_str());
  }
  std::string lock(QMMemSize type) { return program.ask("lock " + hexType(type) + " " + path); }
  std::string change(QMMemSize type) { return program.ask("change " + hexType(type)); }
  std::string release(bool deleteOnClose = false) {
    return program.ask(deleteOnClose ? "release delete" : "release");
  }
  // SIGKILL, sent on its machine; waits for its end.
  void kill() {
    if (where == Machine::Here) {
      ::kill(pid, SIGKILL);
    } else {
      Program k(volume, Machine::Other, {"kill", "-KILL", std::to_string(pid)});
      k.wait();
    }
    program.wait();
  }
  Program program;
  std::string path;
  Machine where;
  const Volume &volume;
  pid_t pid = 0;  // on its own machine
};

const char *machineName(Machine m) {
  return m == Machine::Here ? "second mount, this machine" : "other machine";
}

// The refusal of a request by this process: the status, and a message that
// names a process on another machine with the PID the server gave.
void expectRefusedByRemote(TestHost &host, const LockRequest &r, int rc, QMStatus status) {
  EXPECT_STATUS(status, rc);
  EXPECT_EQ(r.parms.Errno, EAGAIN);
  EXPECT_EQ(r.parms.AcquiredLockType, 0u);
  ASSERT_GE(host.entryCount(), 1u);
  const std::string text = host.entries().back().text;
  const std::string says =
      "a process on another machine (PID " + std::to_string(r.parms.LockerPID) + " there)";
  EXPECT_NE(text.find(says), std::string::npos) << text;
  EXPECT_CODES(host.lastCodes(), fileLockMessage(status));
}

// "refused STATUS ..." from a peer: the status.
QMStatus peerStatus(const std::string &answer) {
  if (answer.rfind("refused ", 0) != 0) return 0;
  return static_cast<QMStatus>(std::stoul(answer.substr(8, 8), nullptr, 16));
}

// Whether a process on mount `mount` can take a record lock of type on name now.
bool canLockThrough(const std::string &mount, const std::string &name, short type) {
  return otherProcessCanLock(mount + "/" + name, type);
}

}  // namespace

TEST(NetfsLocks, EveryExternalTypeExcludesAcrossMachinesBothWays) {
  NETFS_VOLUME(v);
  TestHost host;
  for (Machine where : {Machine::Here, Machine::Other}) {
    SCOPED_TRACE(machineName(where));
    const std::string name = std::string("both-ways-") + (where == Machine::Here ? "2" : "3");
    const std::string path = v->m1 + "/" + name;
    touch(path);
    Peer peer(*v, where, name);
    ASSERT_GT(peer.pid, 0);

    // The peer's writer keeps out both of this process's types; its reader
    // only the writer.
    struct Case {
      QMMemSize peerType;
      QMStatus exclusive, nonexclusive;
    };
    for (const Case &c : {Case{X | EX, QMELM_E_EXT_LOCKED_EXCLUSIVE, QMELM_E_EXT_LOCKED_EXCLUSIVE},
                          Case{NX | ENX, QMELM_E_EXT_LOCKED_SHARED, 0}}) {
      ASSERT_EQ(peer.lock(c.peerType), "granted");
      for (auto [type, expect] :
           {std::pair{X | EX, c.exclusive}, std::pair{NX | ENX, c.nonexclusive}}) {
        LockRequest r(path, O_RDWR);
        host.clearJournal();
        int rc = 0;
        QMELMLHndlp h = host.lock(r, type, &rc);
        if (expect == 0) {
          ASSERT_NE(h, nullptr) << hex(rc);
          EXPECT_EQ(host.release(h), 0);
          continue;
        }
        EXPECT_EQ(h, nullptr);
        expectRefusedByRemote(host, r, rc, expect);
        // On the other machine the server names the holder by its PID there.
        if (where == Machine::Other) {
          EXPECT_TRUE(r.parms.LockerPID == peer.pid || r.parms.LockerPID == 0)
              << r.parms.LockerPID << " vs " << peer.pid;
        }
      }
      EXPECT_EQ(peer.release(), "released 00000000");
      EXPECT_EQ(openDescriptorsOf(path), 0);
    }

    // And the other way: this process's writer keeps out both of the peer's
    // types, its reader only the writer; released, the peer has both.
    for (auto [mine, peerExclusive, peerShared] :
         {std::tuple<QMMemSize, QMStatus, QMStatus>{X | EX, QMELM_E_EXT_LOCKED_EXCLUSIVE,
                                                    QMELM_E_EXT_LOCKED_EXCLUSIVE},
          std::tuple<QMMemSize, QMStatus, QMStatus>{NX | ENX, QMELM_E_EXT_LOCKED_SHARED, 0}}) {
      LockRequest r(path, O_RDWR);
      int rc = 0;
      QMELMLHndlp h = host.lock(r, mine, &rc);
      ASSERT_NE(h, nullptr) << hex(rc);
      const std::string ex = peer.lock(X | EX);
      EXPECT_STATUS(peerExclusive, peerStatus(ex)) << ex;
      EXPECT_NE(ex.find("a process on another machine"), std::string::npos) << ex;
      const std::string sh = peer.lock(NX | ENX);
      EXPECT_STATUS(peerShared, peerStatus(sh)) << sh;
      if (sh == "granted") {
        EXPECT_EQ(peer.release(), "released 00000000");
      }
      EXPECT_EQ(host.release(h), 0);
      ASSERT_EQ(peer.lock(X | EX), "granted");
      EXPECT_EQ(peer.release(), "released 00000000");
    }
  }
}

TEST(NetfsLocks, UpgradeIsRefusedWhileTheOtherMachineReadsAndGrantedAfter) {
  NETFS_VOLUME(v);
  TestHost host;
  const std::string path = v->m1 + "/upgrade";
  touch(path);
  Peer peer(*v, Machine::Other, "upgrade");
  ASSERT_EQ(peer.lock(NX | ENX), "granted");
  LockRequest r(path, O_RDWR);
  int rc = 0;
  QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
  ASSERT_NE(h, nullptr) << hex(rc);

  host.clearJournal();
  EXPECT_STATUS(QMELM_E_EXT_LOCKED_SHARED, host.fn().LockChange(h, r.get(), X | EX, host.jnl));
  ASSERT_GE(host.entryCount(), 1u);
  EXPECT_NE(host.entries().back().text.find("a process on another machine (PID " +
                                            std::to_string(r.parms.LockerPID) + " there)"),
            std::string::npos)
      << host.entries().back().text;
  // Still a reader: the other machine's second reader is let in, its writer not.
  EXPECT_EQ(h->Private.LockType & (X | EX), 0u);
  EXPECT_FALSE(canLockThrough(v->m2, "upgrade", F_WRLCK));
  EXPECT_TRUE(canLockThrough(v->m2, "upgrade", F_RDLCK));

  EXPECT_EQ(peer.release(), "released 00000000");
  EXPECT_EQ(host.fn().LockChange(h, r.get(), X | EX, host.jnl), 0);
  EXPECT_STATUS(QMELM_E_EXT_LOCKED_EXCLUSIVE, peerStatus(peer.lock(NX | ENX)));
  // Down again: the other machine's reader gets in, its writer does not.
  EXPECT_EQ(host.fn().LockChange(h, r.get(), NX | ENX, host.jnl), 0);
  EXPECT_EQ(peer.lock(NX | ENX), "granted");
  EXPECT_EQ(peer.release(), "released 00000000");
  EXPECT_STATUS(QMELM_E_EXT_LOCKED_SHARED, peerStatus(peer.lock(X | EX)));
  EXPECT_EQ(host.release(h), 0);
  EXPECT_EQ(openDescriptorsOf(path), 0);
}

TEST(NetfsLocks, DeleteOnCloseNeverDeletesWhatAnotherMachineHolds) {
  NETFS_VOLUME(v);
  TestHost host;
  for (Machine where : {Machine::Here, Machine::Other}) {
    SCOPED_TRACE(machineName(where));
    const std::string name = std::string("doomed-") + (where == Machine::Here ? "2" : "3");
    const std::string path = v->m1 + "/" + name;
    touch(path);
    Peer peer(*v, where, name);
    LockRequest r(path, O_RDWR, QMELM_FLAG_DELETE_ON_CLOSE);
    int rc = 0;
    QMELMLHndlp h = host.lock(r, NX | ENX, &rc);
    ASSERT_NE(h, nullptr) << hex(rc);
    ASSERT_EQ(peer.lock(NX | ENX), "granted");
    // The other machine reads it: the close does not delete it, and says so.
    host.clearJournal();
    EXPECT_STATUS(QMELM_E_UNLINK_FAILED, host.release(h, &r));
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(openDescriptorsOf(path), 0);

    // Its reader gone, the last holder's close deletes it, for every mount.
    EXPECT_EQ(peer.release(), "released 00000000");
    h = host.lock(r, X | EX, &rc);
    ASSERT_NE(h, nullptr) << hex(rc);
    EXPECT_EQ(host.release(h, &r), 0);
    EXPECT_NE(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(eventually([&] { return access((v->m2 + "/" + name).c_str(), F_OK) != 0; }));
    // The peer on the other mount, asking after the delete, makes a new file.
    EXPECT_TRUE(eventually([&] { return peer.lock(X | EX) == "granted"; }));
    EXPECT_EQ(peer.release(true), "released 00000000");
  }
}

// The other machine renames a new file over the name while this machine's
// mount still has the old one cached (about a second): a request through it
// must be refused, or granted with a lock on the file the name now leads to,
// never granted on the replaced file.
TEST(NetfsLocks, ANameRenamedOverByTheOtherMachineIsNeverGrantedWithoutItsLock) {
  NETFS_VOLUME(v);
  TestHost host;
  int granted = 0;
  std::map<std::string, int> refused;  // by status
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string path = v->m1 + "/renamed", fresh = v->m2 + "/renamed.new";
    touch(path);
    touch(fresh);
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);  // m1 caches the old file
    // Odd rounds: the old file stays open (unlocked) on the other machine, so
    // the server still has it when this machine opens the cached name.
    std::optional<Program> keepOpen;
    if (round % 2 == 1) {
      keepOpen.emplace(*v, Machine::Other,
                       std::vector<std::string>{"sh", "-c", "exec 3<\"$1\"; echo open; cat", "sh",
                                                v->m3 + "/renamed"});
      ASSERT_EQ(keepOpen->readLine(), "open");
    }
    // The other machine locks the new file and renames it over the name.
    Peer holder(*v, Machine::Other, "renamed.new");
    ASSERT_EQ(holder.lock(X | EX), "granted");
    Program mv(*v, Machine::Other, {"mv", v->m3 + "/renamed.new", v->m3 + "/renamed"});
    ASSERT_EQ(mv.wait(), 0);

    LockRequest r(path, O_RDWR);
    int rc = 0;
    QMELMLHndlp h = host.lock(r, X | EX, &rc);
    if (h == nullptr) {
      ++refused[hex(rc)];
      EXPECT_NE(rc, 0);
    } else {
      // Granted: then the holder of the file the name leads to must have
      // gone, and nobody else may lock that file now.
      ++granted;
      ADD_FAILURE() << "granted while the other machine holds the file the name leads to";
      EXPECT_FALSE(canLockThrough(v->m2, "renamed", F_RDLCK));
      EXPECT_EQ(host.release(h), 0);
    }
    EXPECT_EQ(holder.release(), "released 00000000");
    EXPECT_EQ(openDescriptorsOf(path), 0);
    std::this_thread::sleep_for(1200ms);  // the caches catch up before the next round
  }
  std::printf("renamed over under the cache: %d granted, refused:", granted);
  for (const auto &[status, n] : refused) std::printf(" %s %d times", status.c_str(), n);
  std::printf("\n");
}

TEST(NetfsLocks, AKilledClientsLocksGoAtOnceToTheOtherMachine) {
  NETFS_VOLUME(v);
  TestHost host;
  for (Machine where : {Machine::Here, Machine::Other}) {
    SCOPED_TRACE(machineName(where));
    const std::string name = std::string("killed-") + (where == Machine::Here ? "2" : "3");
    const std::string path = v->m1 + "/" + name;
    touch(path);
    Peer peer(*v, where, name);
    ASSERT_EQ(peer.lock(X | EX), "granted");
    LockRequest r(path, O_RDWR);
    int rc = 0;
    EXPECT_EQ(host.lock(r, NX | ENX, &rc), nullptr);
    EXPECT_STATUS(QMELM_E_EXT_LOCKED_EXCLUSIVE, rc);
    peer.kill();
    QMELMLHndlp h = nullptr;
    const auto killed = Clock::now();
    EXPECT_TRUE(eventually([&] { return (h = host.lock(r, X | EX, &rc)) != nullptr; }, 5s));
    std::printf("%s: locked %.0f ms after the holder's kill\n", machineName(where),
                std::chrono::duration<double, std::milli>(Clock::now() - killed).count());
    if (h != nullptr) {
      EXPECT_EQ(host.release(h), 0);
    }
  }
}
