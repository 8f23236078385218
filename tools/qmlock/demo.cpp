// demo.cpp - qmlock demo: the lock manager at work in a fresh temporary
// directory. Lock options; two threads sharing a file and a third request
// refused at once; a second process holding a lock, this one refused with
// that process's PID, then granted when it ends; an upgrade and a downgrade
// as another process sees them; delete on close; the I/O report. Everything
// is released and the directory removed; exit 0 when every step went as
// shown, 1 otherwise.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <string>
#include <thread>

#include "manager.h"

namespace qmlock {
namespace {

using elm::LockType;

// Prints a step's line; counts a line that reports something unexpected.
struct Narrator {
  int surprises = 0;
  void say(const std::string &line) {
    std::printf("  %s\n", line.c_str());
    std::fflush(stdout);
  }
  void step(const char *title) {
    std::printf("%s\n", title);
    std::fflush(stdout);
  }
  // r as expected (ok, or failed with `want`): says line; otherwise says why not.
  bool expect(const elm::Result &r, QMStatus want, const std::string &line) {
    if (r.status() == want) {
      say(line);
      return true;
    }
    say("unexpected: " + r.to_string());
    ++surprises;
    return false;
  }
};

// What a process other than this one finds on path: "no lock", "a read
// lock" or "a write lock" (F_GETLK in a child, which takes no lock).
std::string seenFromAnotherProcess(const std::string &path) {
  const pid_t pid = fork();
  if (pid == 0) {
    struct flock q {};
    q.l_type = F_WRLCK;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    _exit(fd < 0 || fcntl(fd, F_GETLK, &q) != 0 ? 3
          : q.l_type == F_UNLCK                 ? 0
          : q.l_type == F_RDLCK                 ? 1
                                                : 2);
  }
  int st = 0;
  if (pid < 0 || waitpid(pid, &st, 0) != pid || !WIFEXITED(st)) return "nothing (no probe)";
  switch (WEXITSTATUS(st)) {
    case 0:
      return "no lock";
    case 1:
      return "a read lock";
    case 2:
      return "a write lock";
    default:
      return "nothing (the probe failed)";
  }
}

// A second process that holds an exclusive lock on path until told to end.
class SecondProcess {
 public:
  explicit SecondProcess(const std::string &path) {
    int up[2], down[2];
    if (pipe2(up, O_CLOEXEC) != 0) return;
    if (pipe2(down, O_CLOEXEC) != 0) {
      close(up[0]);
      close(up[1]);
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(up[0]);
      close(down[1]);
      elm::Host host;
      elm::LockManager lm(host);
      auto [lock, r] = lm.lock(path, LockType::exclusive);
      const char said = r.ok() ? 'L' : 'F';
      if (write(up[1], &said, 1) == 1) {
        char c;
        while (read(down[0], &c, 1) > 0) {
        }
      }
      _exit(r.ok() ? 0 : 1);  // the process's end gives the lock back
    }
    close(up[1]);
    close(down[0]);
    toChild_ = down[1];
    char c = 0;
    locked_ = pid_ > 0 && read(up[0], &c, 1) == 1 && c == 'L';
    close(up[0]);
  }
  ~SecondProcess() { end(); }
  SecondProcess(const SecondProcess &) = delete;
  SecondProcess &operator=(const SecondProcess &) = delete;

  bool locked() const { return locked_; }
  pid_t pid() const { return pid_; }
  void end() {
    if (toChild_ >= 0) close(toChild_);
    toChild_ = -1;
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int toChild_ = -1;
  bool locked_ = false;
};

// The demonstration proper, in dir.
void demonstrate(Narrator &n, elm::LockManager &lm, const std::string &dir) {
  const std::string orders = dir + "/orders.db", journal = dir + "/journal.db",
                    scratch = dir + "/scratch", tmp = scratch + "/tmp1";

  n.step("1. Lock options: the longest directory with an option governs a file.");
  n.expect(lm.set_option(dir, QMELM_Continue), 0, "set " + dir + " to Continue");
  n.expect(lm.set_option(scratch, QMELM_None), 0, "set " + scratch + " to None");
  for (const std::string &f : {orders, tmp}) {
    auto [m, r] = lm.match(f);
    n.expect(r, 0,
             f + " is governed by " + m.matchpath + " (" + std::string(elm::option_name(m.option)) +
                 ")");
  }
  if (mkdir(scratch.c_str(), 0700) != 0) n.say("unexpected: cannot make " + scratch);

  n.step(
      "2. Two threads of this process share orders.db; an exclusive request is refused at once.");
  {
    std::latch start(2);
    elm::FileLock first, second;
    elm::Result r1, r2, refused;
    std::thread t1([&] {
      start.arrive_and_wait();
      auto [l, r] = lm.lock(orders, LockType::nonexclusive);
      first = std::move(l);
      r1 = std::move(r);
    });
    std::thread t2([&] {
      start.arrive_and_wait();
      auto [l, r] = lm.lock(orders, LockType::nonexclusive);
      second = std::move(l);
      r2 = std::move(r);
    });
    t1.join();
    t2.join();
    n.expect(r1, 0, "thread 1: locked non-exclusively, type " + to_string(first.type()));
    n.expect(r2, 0, "thread 2: locked non-exclusively, type " + to_string(second.type()));
    std::thread t3([&] { refused = lm.lock(orders, LockType::exclusive).result; });
    t3.join();
    n.expect(refused, QMELM_E_INT_LOCKED_SHARED,
             "thread 3: exclusive lock refused: " + holderDescription(refused) + " (" +
                 std::string(refused.name()) + ")");
    n.expect(first.release(), 0, "thread 1's lock released");
    second.set_delete_on_close(true);
    elm::Result last = second.release();
    n.expect(last, 0,
             std::string("thread 2's lock released, the last (delete on close): orders.db ") +
                 (access(orders.c_str(), F_OK) == 0 ? "is still there" : "is gone"));
  }

  n.step("3. A second process holds journal.db; this process is refused with its PID.");
  {
    SecondProcess other(journal);
    if (!other.locked()) {
      n.say("unexpected: the second process could not lock " + journal);
      ++n.surprises;
      return;
    }
    n.say("process " + std::to_string(other.pid()) + " locked journal.db exclusively");
    auto [lock, r] = lm.lock(journal, LockType::nonexclusive);
    if (n.expect(r, QMELM_E_EXT_LOCKED_EXCLUSIVE,
                 "process " + std::to_string(getpid()) + " (this one) is refused: " +
                     holderDescription(r) + " (" + std::string(r.name()) + ")") &&
        r.locker_pid() != other.pid()) {
      n.say("unexpected: the refusal names process " + std::to_string(r.locker_pid()));
      ++n.surprises;
    }
    other.end();
    auto [again, r2] = lm.lock(journal, LockType::nonexclusive, {O_RDWR | O_CREAT, 0644, true});
    n.expect(r2, 0, "the second process ended; granted, type " + to_string(again.type()));

    n.step("4. Upgrade and downgrade, as another process sees them.");
    n.say("held " + to_string(again.type()) + ": another process sees " +
          seenFromAnotherProcess(journal));
    elm::Result up = again.change(LockType::exclusive);
    n.expect(up, 0,
             "upgraded to " + to_string(again.type()) + ": another process sees " +
                 seenFromAnotherProcess(journal));
    elm::Result down = again.change(LockType::nonexclusive);
    n.expect(down, 0,
             "downgraded to " + to_string(again.type()) + ": another process sees " +
                 seenFromAnotherProcess(journal));
    elm::Result gone = again.release();
    n.expect(gone, 0,
             std::string("released: journal.db (delete on close) ") +
                 (access(journal.c_str(), F_OK) == 0 ? "is still there" : "is gone"));
  }

  n.step("5. Delete on close, with I/O reported to the lock manager.");
  {
    auto [lock, r] = lm.lock(tmp, LockType::exclusive, {O_RDWR | O_CREAT, 0600, true});
    n.expect(r, 0, "scratch/tmp1 locked exclusively, to be deleted on close");
    if (lock) {
      const std::string data(4096, 'q');
      const ssize_t wrote = pwrite(lock.fd(), data.data(), data.size(), 0);
      elm::IOCounts io;
      io.writes = 1;
      io.bytes_written = wrote > 0 ? wrote : 0;
      n.expect(lock.update_io(io), 0,
               std::to_string(io.bytes_written) + " bytes written and reported");
      elm::Result released = lock.release();
      n.expect(released, 0,
               std::string("released: scratch/tmp1 ") +
                   (access(tmp.c_str(), F_OK) == 0 ? "is still there" : "is gone"));
    }
  }

  n.step("6. The I/O report, as the lock manager journals it.");
  auto [lines, r] = lm.io_report();
  for (const std::string &l : lines) n.say(l);
  n.expect(r, 0, "(" + std::to_string(lines.size()) + " journal lines)");
  n.expect(lm.io_reset(), 0, "I/O records of closed files forgotten");
}

}  // namespace

int demoMain(int argc, char **argv) {
  if (argc > 1) {
    const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
    std::fprintf(help ? stdout : stderr,
                 "usage: qmlock demo\n"
                 "Shows the QM lock manager at work in a fresh directory under $TMPDIR (or\n"
                 "/tmp), which it removes: lock options, threads sharing a lock, another\n"
                 "process refused and then granted, an upgrade and a downgrade, delete on\n"
                 "close, the I/O report. Exit status: 0 when every step went as shown.\n");
    return help ? kExitOk : kExitUsage;
  }
  const char *tmpdir = std::getenv("TMPDIR");
  std::string dir =
      std::string(tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp") + "/qmlock-demo.XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) {
    std::fprintf(stderr, "qmlock: cannot make a temporary directory %s: %s\n", dir.c_str(),
                 std::strerror(errno));
    return kExitCantCreat;
  }
  std::printf("qmlock demo: the QM lock manager at work in %s\n", dir.c_str());
  Narrator n;
  {
    elm::Host::Options o;
    o.iobytecount = QMIO_ByteCount_External;  // keep I/O records
    elm::Host host(o);
    elm::LockManager lm(host);
    if (!lm) {
      std::fprintf(stderr, "qmlock: cannot load the lock manager: %s\n",
                   lm.status().to_string().c_str());
      rmdir(dir.c_str());
      return kExitConfig;
    }
    demonstrate(n, lm, dir);
  }
  // Left behind only when a step went wrong: orders.db, and scratch/ itself.
  const std::string orders = dir + "/orders.db", scratch = dir + "/scratch";
  unlink(orders.c_str());
  rmdir(scratch.c_str());
  std::printf("7. Clean up: every lock released, %s removed.\n", dir.c_str());
  if (rmdir(dir.c_str()) != 0) {
    std::printf("  unexpected: %s: %s\n", dir.c_str(), std::strerror(errno));
    ++n.surprises;
  }
  return n.surprises == 0 ? kExitOk : 1;
}

}  // namespace qmlock
