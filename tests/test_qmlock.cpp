// test_qmlock.cpp - the built qmlock, run as a user runs it: `run` against
// util-linux flock(1), Python's lockf and OFD locks both ways, its lock
// outliving a killed qmlock, a waiter asleep in the kernel, signals, the
// descriptor forms; the flock(1) personality against util-linux flock itself
// (and util-linux's own suite when it is at hand); `probe` and `locks`;
// `shell` with a script of every command and on a terminal; `demo`.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "test_lock_support.h"

using namespace locktest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kQmlock = QMLOCK_BIN;
const std::string kTestData = QMLOCK_TESTDATA;
const std::string kUtilLinuxFlock = "/usr/bin/flock";

// Whether text matches pattern, in which "{*}" stands for any run of characters.
bool matches(std::string_view text, std::string_view pattern) {
  const size_t star = pattern.find("{*}");
  if (star == std::string_view::npos) return text == pattern;
  if (text.substr(0, star) != pattern.substr(0, star)) return false;
  text.remove_prefix(star);
  pattern.remove_prefix(star + 3);
  for (size_t skip = 0; skip <= text.size(); ++skip)
    if (matches(text.substr(skip), pattern)) return true;
  return false;
}

#define EXPECT_MATCHES(text, pattern) \
  EXPECT_TRUE(matches(text, pattern)) << "text:\n" << (text) << "\npattern:\n" << (pattern)

std::vector<std::string> lines(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

std::string slurp(const std::string &path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string replaceAll(std::string s, const std::string &from, const std::string &to) {
  for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size())
    s.replace(at, from.size(), to);
  return s;
}

struct RunOptions {
  std::string cwd;               // empty: the test's
  std::string exe;               // the program file, when argv[0] is not its path
  std::vector<std::string> env;  // NAME=value, added to the test's environment
  std::vector<int> keep;         // descriptors the program inherits besides 0 to 2
};

// What a finished program left: its status (exit code, 128+N for signal N)
// and its standard output and error.
struct Done {
  int status = -1;
  std::string out, err;
};

// A program running with /dev/null as standard input and pipes as standard
// output and error; killed when the object goes while it still runs.
class Proc {
 public:
  explicit Proc(const std::vector<std::string> &argv, const RunOptions &o = {}) {
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> envText;
    for (char **e = environ; *e != nullptr; ++e) envText.emplace_back(*e);
    envText.insert(envText.end(), o.env.begin(), o.env.end());
    std::vector<char *> envp;
    for (const std::string &e : envText) envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    const std::string exe = o.exe.empty() ? argv[0] : o.exe;
    std::vector<int> keep = o.keep;
    std::sort(keep.begin(), keep.end());
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    pid = fork();
    if (pid == 0) {
      const int null = open("/dev/null", O_RDONLY);
      dup2(null, 0);
      dup2(out[1], 1);
      dup2(err[1], 2);
      int from = 3;  // close everything but 0 to 2 and keep
      for (int k : keep) {
        if (k > from) close_range(static_cast<unsigned>(from), static_cast<unsigned>(k - 1), 0);
        fcntl(k, F_SETFD, 0);
        from = k + 1;
      }
      close_range(static_cast<unsigned>(from), ~0u, 0);
      for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGCHLD}) signal(sig, SIG_DFL);
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      if (!o.cwd.empty() && chdir(o.cwd.c_str()) != 0) _exit(126);
      execve(exe.c_str(), args.data(), envp.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~Proc() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    for (int fd : {out_, err_})
      if (fd >= 0) close(fd);
  }
  Proc(const Proc &) = delete;
  Proc &operator=(const Proc &) = delete;

  // The next line of standard output (without its newline); empty when none
  // came within the limit.
  std::string readLine(std::chrono::milliseconds limit = 30s) {
    const Clock::time_point deadline = Clock::now() + limit;
    size_t nl;
    while ((nl = done_.out.find('\n', taken_)) == std::string::npos) {
      if (!pump(deadline, true)) return {};
    }
    std::string line = done_.out.substr(taken_, nl - taken_);
    taken_ = nl + 1;
    return line;
  }
  bool running() { return pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0; }

  // Everything it writes until it ends, and how it ended; a program still
  // running after the limit is killed and fails the test.
  Done wait(std::chrono::seconds limit = 120s) {
    const Clock::time_point deadline = Clock::now() + limit;
    while (out_ >= 0 || err_ >= 0) {
      if (!pump(deadline, false)) {
        ADD_FAILURE() << "still running after " << limit.count() << " s; killed";
        kill(pid, SIGKILL);
        break;
      }
    }
    int st = 0;
    waitpid(pid, &st, 0);
    pid = -1;
    done_.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    done_.out.erase(0, taken_);
    return done_;
  }

  pid_t pid = -1;

 private:
  // Reads what is there (waiting until the deadline); false at the deadline,
  // or at the end of standard output when onlyOut.
  bool pump(Clock::time_point deadline, bool onlyOut) {
    pollfd p[2] = {{out_, POLLIN, 0}, {onlyOut ? -1 : err_, POLLIN, 0}};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || poll(p, 2, static_cast<int>(left.count())) <= 0) return false;
    int *fds[2] = {&out_, &err_};
    std::string *to[2] = {&done_.out, &done_.err};
    for (int i = 0; i < 2; ++i) {
      if (p[i].revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(*fds[i], buf, sizeof buf);
      if (n > 0) {
        to[i]->append(buf, static_cast<size_t>(n));
      } else {
        close(*fds[i]);
        *fds[i] = -1;
        if (i == 0 && onlyOut) return false;
      }
    }
    return true;
  }

  int out_ = -1, err_ = -1;
  size_t taken_ = 0;  // of done_.out, by readLine
  Done done_;
};

Done run(const std::vector<std::string> &argv, const RunOptions &o = {}) {
  return Proc(argv, o).wait();
}

std::string touch(const std::string &path) {
  close(open(path.c_str(), O_RDWR | O_CREAT, 0644));
  return path;
}

bool exists(const std::string &path) {
  return access(path.c_str(), F_OK) == 0;
}

// The process holding a lock that conflicts with a write lock on path, 0 for
// none (F_GETLK from a fresh descriptor of this process, which holds none).
pid_t recordLockHolder(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct flock q {};
  q.l_type = F_WRLCK;
  const int rc = fd >= 0 ? fcntl(fd, F_GETLK, &q) : -1;
  if (fd >= 0) close(fd);
  return rc == 0 && q.l_type != F_UNLCK ? q.l_pid : 0;
}

// Which kinds of lock another process could take on path at once: bit 1 a
// flock(2) lock, bit 2 a POSIX record lock, bit 4 an OFD lock; write or read.
enum : int { kFlock = 1, kPosix = 2, kOfd = 4, kAll = 7 };
int freeKinds(const std::string &path, bool write) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(path.c_str(), write ? O_RDWR : O_RDONLY);
    if (fd < 0) _exit(64);
    int bits = 0;
    if (flock(fd, (write ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0) bits |= kFlock;
    flock(fd, LOCK_UN);
    struct flock fl {};
    fl.l_type = write ? F_WRLCK : F_RDLCK;
    if (fcntl(fd, F_SETLK, &fl) == 0) bits |= kPosix;
    fl.l_type = F_UNLCK;
    fcntl(fd, F_SETLK, &fl);
    fl.l_type = write ? F_WRLCK : F_RDLCK;
    if (fcntl(fd, F_OFD_SETLK, &fl) == 0) bits |= kOfd;
    _exit(bits);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// A Python process holding a write lock of one kind on path (flock(2),
// lockf, or an OFD lock) until the object goes; readLine() says "locked".
std::unique_ptr<Proc> pythonHolder(const std::string &kind, const std::string &path) {
  static const std::string script =
      "import fcntl, os, struct, sys, time\n"
      "kind, path = sys.argv[1], sys.argv[2]\n"
      "fd = os.open(path, os.O_RDWR | os.O_CREAT)\n"
      "if kind == 'flock': fcntl.flock(fd, fcntl.LOCK_EX)\n"
      "elif kind == 'lockf': fcntl.lockf(fd, fcntl.LOCK_EX)\n"
      "else: fcntl.fcntl(fd, 37, struct.pack('hhqqi', fcntl.F_WRLCK, 0, 0, 0, 0))\n"
      "print('locked', flush=True)\n"
      "time.sleep(120)\n";
  return std::make_unique<Proc>(
      std::vector<std::string>{"/usr/bin/env", "python3", "-c", script, kind, path});
}

// A line of /proc/PID/status, such as "voluntary_ctxt_switches", as a number.
long statusField(pid_t pid, const std::string &field) {
  std::istringstream in(slurp("/proc/" + std::to_string(pid) + "/status"));
  for (std::string l; std::getline(in, l);)
    if (l.rfind(field + ":", 0) == 0) return std::stol(l.substr(field.size() + 1));
  return -1;
}

// Waits (up to a minute) until /proc/locks shows a process blocked on a
// lock of path's file (of kind, as /proc/locks names it, when given); false
// when none came.
bool someoneWaitsOn(const std::string &path, const std::string &kind = "") {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return false;
  std::string inode = ":";  // appended, not "..." + string: g++ 12 -O3 sees a false overlap
  inode += std::to_string(st.st_ino);
  inode += ' ';
  const Clock::time_point deadline = Clock::now() + 60s;
  while (Clock::now() < deadline) {
    std::istringstream in(slurp("/proc/locks"));
    for (std::string l; std::getline(in, l);)
      if (l.find("-> " + kind) != std::string::npos && l.find(inode) != std::string::npos)
        return true;
    std::this_thread::sleep_for(5ms);
  }
  return false;
}

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Whether any line of text matches pattern.
bool anyLineMatches(const std::string &text, const std::string &pattern) {
  for (const std::string &l : lines(text))
    if (matches(l, pattern)) return true;
  return false;
}

// Waits (up to a minute) until done() holds.
template <class Pred>
bool eventually(Pred done) {
  for (const Clock::time_point deadline = Clock::now() + 60s; Clock::now() < deadline;
       std::this_thread::sleep_for(5ms))
    if (done()) return true;
  return done();
}

// A locker (qmlock run, either flock) running a COMMAND that says its PID
// and sleeps. The lock lives with COMMAND, so COMMAND is killed first; the
// locker, which reaps it, has then ended too.
class Holding {
 public:
  explicit Holding(const std::vector<std::string> &locker, const RunOptions &o = {})
      : p(concat(locker, {"sh", "-c", "echo $$; exec sleep 120"}), o),
        command(std::atoi(p.readLine().c_str())) {}
  ~Holding() { release(); }
  void release() {
    if (command <= 0) return;
    kill(command, SIGKILL);
    p.wait();
    command = 0;
  }
  Proc p;
  pid_t command;
};

// ---- run ------------------------------------------------------------------------

TEST(QmlockRun, CommandHoldsBothLocksOnItsDescriptorAndItsStatusComesBack) {
  TempDir d;
  const std::string f = d.file("free.lock");
  Done r = run({kQmlock, "run", f, "sh", "-c", "exit 7"});
  EXPECT_EQ(r.status, 7);
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(exists(f)) << "the file is created, as by flock(1)";
  EXPECT_EQ(run({kQmlock, "run", "-s", f, "-c", "exit 3"}).status, 3);
  EXPECT_EQ(run({kQmlock, "run", f, "sh", "-c", "kill -KILL $$"}).status, 128 + SIGKILL);

  // COMMAND's own descriptor carries a flock(2) and an OFD lock, write with
  // -x, read with -s; afterwards nothing is left.
  r = run({kQmlock, "run", "-x", f, "sh", "-c", "exec " + kQmlock + " probe " + f});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_MATCHES(r.out, f + ":{*}flock write 0-EOF {*} (qmlock), descriptor 3\n"
                            "{*}flock write 0-EOF {*} (qmlock), descriptor 3\n"
                            "  OFD   write 0-EOF {*} (qmlock), descriptor 3\n"
                            "  OFD   write 0-EOF {*} (qmlock), descriptor 3\n");
  r = run({kQmlock, "run", "--shared", f, kQmlock, "probe", f});
  EXPECT_MATCHES(r.out, "{*}flock read  0-EOF{*}OFD   read  0-EOF{*}");
  EXPECT_EQ(freeKinds(f, true), kAll);

  r = run({kQmlock, "run", "--verbose", f, "true"});
  EXPECT_EQ(r.status, 0);
  EXPECT_MATCHES(r.out, "qmlock: getting lock took {*}.{*} seconds\nqmlock: executing true\n");
  // A byte range is an OFD lock alone (flock(2) locks whole files).
  r = run({kQmlock, "run", "--start", "1", "--length", "2", f, kQmlock, "probe", f});
  EXPECT_MATCHES(r.out, f + ": held\n{*}OFD   write 1-2 {*}");
  EXPECT_EQ(r.out.find("flock "), std::string::npos) << r.out;

  // A directory is opened read-only, and still locked exclusively by flock(2).
  Holding dirHeld({kQmlock, "run", "-x", d.path()});
  ASSERT_GT(dirHeld.command, 0);
  EXPECT_EQ(run({kUtilLinuxFlock, "-s", "-n", d.path(), "true"}).status, 1);
  dirHeld.release();
  r = run({kQmlock, "run", d.file("no/such/dir"), "true"});
  EXPECT_EQ(r.status, 66);
  EXPECT_EQ(r.err, "qmlock: cannot open lock file " + d.file("no/such/dir") +
                       ": No such file or directory\n");
  r = run({kQmlock, "run", "--start", "x1", f, "true"});
  EXPECT_EQ(r.status, 64);
  EXPECT_EQ(r.err, "qmlock: invalid as start offset: 'x1'\n");
  r = run({kQmlock, "run", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_MATCHES(r.out, "usage: qmlock run {*}a flock(2) lock{*}F_OFD_SETLK{*}Exit status:{*}");
  EXPECT_EQ(run({kQmlock, "frobnicate"}).status, 64);
  r = run({kQmlock, "run", f, d.file("no-such-command")});
  EXPECT_EQ(r.status, 69);
  EXPECT_EQ(r.err, "qmlock: failed to execute " + d.file("no-such-command") +
                       ": No such file or directory\n");
}

// qmlock run against util-linux flock(1), Python's lockf and an OFD lock,
// each way round.
TEST(QmlockRun, ExcludesFlockRecordAndOfdLockersBothWays) {
  if (access(kUtilLinuxFlock.c_str(), X_OK) != 0) GTEST_SKIP() << "no util-linux flock";
  TempDir d;
  const std::string f = touch(d.file("both.lock")), ran = d.file("ran");
  struct Case {
    std::string kind, holds;
  };
  for (const Case &c : {Case{"flock", "a flock write lock"}, Case{"lockf", "a POSIX write lock"},
                        Case{"ofd", "an OFD write lock"}}) {
    auto holder = pythonHolder(c.kind, f);
    ASSERT_EQ(holder->readLine(), "locked");
    const Done r = run({kQmlock, "run", "-n", f, "touch", ran});
    EXPECT_EQ(r.status, 1) << c.kind;
    EXPECT_EQ(r.err, "qmlock: cannot lock " + f + " exclusively: process " +
                         std::to_string(holder->pid) + " (python3) holds " + c.holds + "\n");
    EXPECT_EQ(run({kQmlock, "run", "-s", "-n", "-E", "9", f, "true"}).status, 9) << c.kind;
    EXPECT_FALSE(exists(ran)) << "COMMAND must not run without the lock";
  }
  EXPECT_EQ(run({kQmlock, "run", "-w", "0", "--conflict-exit-code=0", f, "true"}).status, 0);

  // The other way: util-linux flock(1) and every kind of record lock are
  // kept out while COMMAND runs; readers share with readers.
  Holding held({kQmlock, "run", f});
  ASSERT_GT(held.command, 0);
  EXPECT_EQ(run({kUtilLinuxFlock, "-n", f, "true"}).status, 1);
  EXPECT_EQ(run({kUtilLinuxFlock, "-s", "-n", f, "true"}).status, 1);
  EXPECT_EQ(freeKinds(f, true), 0);
  EXPECT_EQ(freeKinds(f, false), 0);
  held.release();
  Holding reader({kQmlock, "run", "-s", f});
  ASSERT_GT(reader.command, 0);
  EXPECT_EQ(freeKinds(f, false), kAll);
  EXPECT_EQ(freeKinds(f, true), 0);
  EXPECT_EQ(run({kQmlock, "run", "-s", "-n", f, "true"}).status, 0);
}

TEST(QmlockRun, TheLockOutlivesAKilledQmlockAndCommandReopeningTheFile) {
  TempDir d;
  const std::string f = d.file("pid.lock");
  // SIGKILL (or any signal qmlock does not catch) ends qmlock; COMMAND keeps
  // running, and keeps the lock, until it ends.
  for (int sig : {SIGKILL, SIGUSR1, SIGTERM}) {
    Proc p({kQmlock, "run", f, "sh", "-c", "echo $$; exec sleep 120"});
    const pid_t command = std::atoi(p.readLine().c_str());
    ASSERT_GT(command, 0);
    kill(p.pid, sig);
    int st = 0;  // not p.wait(): COMMAND keeps qmlock's output open
    ASSERT_EQ(waitpid(p.pid, &st, 0), p.pid);
    p.pid = -1;
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == sig);
    ASSERT_EQ(kill(command, 0), 0) << "COMMAND runs on";
    const Done r = run({kQmlock, "run", "-n", f, "true"});
    EXPECT_EQ(r.status, 1);
    EXPECT_MATCHES(r.err, "{*}process " + std::to_string(command) +
                              " (sleep) holds a flock write lock and an OFD write lock\n");
    EXPECT_EQ(freeKinds(f, false), 0);
    kill(command, SIGKILL);  // now an orphan: nobody here can reap it
    EXPECT_TRUE(eventually([&] { return freeKinds(f, true) == kAll; }));
  }

  // -F: COMMAND writes its PID into the lock file (an open and a close of
  // its own) and keeps the lock all the same.
  Proc p({kQmlock, "run", "-F", f, "sh", "-c", "echo $$ > " + f + "; echo ready; exec sleep 120"});
  ASSERT_EQ(p.readLine(), "ready");
  EXPECT_EQ(slurp(f), std::to_string(p.pid) + "\n");
  EXPECT_EQ(freeKinds(f, false), 0);
  EXPECT_EQ(run({kQmlock, "run", "-n", f, "true"}).status, 1);
}

TEST(QmlockRun, AWaiterSleepsInTheKernelAndNeverHoldsOneLockWithoutTheOther) {
  if (access(kUtilLinuxFlock.c_str(), X_OK) != 0) GTEST_SKIP() << "no util-linux flock";
  TempDir d;
  const std::string f = touch(d.file("wait.lock"));
  // Held by flock(1): the waiter waits for the flock(2) lock without
  // holding its OFD lock, which others can take meanwhile.
  auto flockHolder = std::make_unique<Holding>(std::vector<std::string>{kUtilLinuxFlock, f});
  ASSERT_GT(flockHolder->command, 0);
  Proc waiter({kQmlock, "run", "--wait", "600", f, "sh", "-c", "echo got it"});
  ASSERT_TRUE(someoneWaitsOn(f));
  EXPECT_EQ(freeKinds(f, true), kPosix | kOfd);
  // Asleep: it is not woken while the holder holds.
  const long before = statusField(waiter.pid, "voluntary_ctxt_switches") +
                      statusField(waiter.pid, "nonvoluntary_ctxt_switches");
  std::this_thread::sleep_for(300ms);
  const long after = statusField(waiter.pid, "voluntary_ctxt_switches") +
                     statusField(waiter.pid, "nonvoluntary_ctxt_switches");
  EXPECT_LE(after - before, 2) << "a waiter that polls wakes up again and again";
  flockHolder.reset();
  Done r = waiter.wait();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "got it\n");

  // Waiting for the flock(2) lock, it finds the OFD lock taken meanwhile
  // when the flock(2) lock comes free: it gives the flock(2) lock back and
  // waits for the OFD lock, asleep, holding neither.
  flockHolder = std::make_unique<Holding>(std::vector<std::string>{kUtilLinuxFlock, f});
  ASSERT_GT(flockHolder->command, 0);
  Proc swapper({kQmlock, "run", f, "sh", "-c", "echo got it"});
  ASSERT_TRUE(someoneWaitsOn(f, "FLOCK"));
  auto recordHolder = pythonHolder("ofd", f);
  ASSERT_EQ(recordHolder->readLine(), "locked");
  flockHolder.reset();
  ASSERT_TRUE(someoneWaitsOn(f, "OFDLCK"));
  EXPECT_EQ(freeKinds(f, true), kFlock) << "the waiter kept the flock(2) lock";
  recordHolder.reset();
  r = swapper.wait();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "got it\n");

  // Held by an OFD lock: the waiter waits for it, holding no flock(2) lock.
  auto ofdHolder = pythonHolder("ofd", f);
  ASSERT_EQ(ofdHolder->readLine(), "locked");
  Proc patient({kQmlock, "run", f, "true"});
  ASSERT_TRUE(someoneWaitsOn(f));
  EXPECT_EQ(freeKinds(f, true), kFlock);
  // A timeout interrupts the wait, and the line names the holder.
  r = run({kQmlock, "run", "-w", "0.2", f, "true"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qmlock: cannot lock " + f + " exclusively within 0.2 seconds: process " +
                       std::to_string(ofdHolder->pid) + " (python3) holds an OFD write lock\n");
  ofdHolder.reset();
  EXPECT_EQ(patient.wait().status, 0);
}

TEST(QmlockRun, SignalsReachCommandOnceAndAreNotPassedOn) {
  TempDir d;
  const std::string f = d.file("signal.lock");
  // COMMAND counts the SIGTERMs it gets, reporting the count once no more
  // came for a while after the first.
  const std::string count =
      "import os, signal, sys, time\n"
      "got = []\n"
      "signal.signal(signal.SIGTERM, lambda s, f: got.append(s))\n"
      "print(os.getpid(), flush=True)\n"
      "while not got: time.sleep(0.01)\n"
      "time.sleep(1)\n"
      "print(len(got), flush=True)\n";
  // qmlock leads its own process group (setsid), as under a service manager.
  Proc p({"/usr/bin/setsid", kQmlock, "run", f, "python3", "-c", count});
  const pid_t command = std::atoi(p.readLine().c_str());
  ASSERT_GT(command, 0);
  ASSERT_EQ(getpgid(command), p.pid);
  kill(-p.pid, SIGTERM);
  EXPECT_EQ(p.readLine(), "1") << "the group's signal reached COMMAND once";
  EXPECT_EQ(p.wait().status, 128 + SIGTERM) << "qmlock ends of it, as flock(1)";
}

TEST(QmlockRun, DescriptorFormsLockTheCallersDescriptor) {
  TempDir d;
  const std::string f = d.file("fd.lock");
  const int fd = open(f.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  const RunOptions inherit{{}, {}, {}, {fd}};
  const std::string n = std::to_string(fd);

  Done r = run({kQmlock, "run", "-n", n}, inherit);
  ASSERT_EQ(r.status, 0) << r.err;
  // qmlock has gone; both locks stay with the open file description.
  EXPECT_EQ(freeKinds(f, false), 0);
  r = run({kQmlock, "run", "-n", f, "true"});
  EXPECT_EQ(r.status, 1);
  EXPECT_MATCHES(r.err, "qmlock: cannot lock " + f + " exclusively: process " +
                            std::to_string(getpid()) +
                            " ({*}) holds a flock write lock and an "
                            "OFD write lock\n");
  r = run({kQmlock, "run", "--unlock", n}, inherit);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(freeKinds(f, true), kAll);

  // --fd FD COMMAND: COMMAND runs with FD locked, and inherits it unless --close.
  r = run({kQmlock, "run", "-s", "--fd", n, "sh", "-c", kQmlock + " run -n -s --fd " + n}, inherit);
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({kQmlock, "run", "--close", "--fd", n, "-c", kQmlock + " run -n --fd " + n}, inherit);
  EXPECT_EQ(r.status, 65);
  EXPECT_EQ(r.err, "qmlock: " + n + ": Bad file descriptor\n");
  ASSERT_EQ(run({kQmlock, "run", "-u", n}, inherit).status, 0);
  r = run({kQmlock, "run", "-n", "77"});
  EXPECT_EQ(r.status, 65);
  EXPECT_EQ(r.err, "qmlock: 77: Bad file descriptor\n");
  close(fd);
}

// ---- flock(1) ---------------------------------------------------------------------

TEST(QmlockFlock, UnderTheNameFlockItSpeaksAsUtilLinuxFlock) {
  if (access(kUtilLinuxFlock.c_str(), X_OK) != 0) GTEST_SKIP() << "no util-linux flock";
  TempDir ours, theirs;
  const std::string link = ours.file("flock");
  ASSERT_EQ(symlink(kQmlock.c_str(), link.c_str()), 0);
  auto both = [&](const std::vector<std::string> &args) {
    std::vector<std::string> argv = {"flock"};
    argv.insert(argv.end(), args.begin(), args.end());
    return std::pair(run(argv, {ours.path(), link, {}, {}}),
                     run(argv, {theirs.path(), kUtilLinuxFlock, {}, {}}));
  };
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"-z", "x", "true"},
      {"--foo"},
      {"-w"},
      {"-E", "300", "x", "true"},
      {"-E", "nine", "x", "true"},
      {"-w", "soon", "x", "true"},
      {"x", "-c"},
      {"x", "--command", "a", "b"},
      {"-o", "-F", "x", "true"},
      {"not-a-number"},
      {"99"},
      {"no/dir/x", "true"},
      {"x", "no-such-command-q"},
      {"-n", "x", "sh", "-c", "exit 5"},
      {"--nonb", "-s", "x", "-c", "exit 4"},
  };
  for (const auto &args : cases) {
    auto [mine, util] = both(args);
    std::string shown = "flock";
    for (const std::string &a : args) shown += " " + a;
    EXPECT_EQ(mine.status, util.status) << shown;
    EXPECT_EQ(mine.err, util.err) << shown;
    EXPECT_EQ(mine.out, util.out) << shown;
  }
  auto [mine, util] = both({"--verbose", "x", "true"});
  const std::string verbose = "flock: getting lock took {*}.{*} seconds\nflock: executing true\n";
  EXPECT_MATCHES(mine.out, verbose);
  EXPECT_MATCHES(util.out, verbose);
  EXPECT_MATCHES(run({"flock", "-V"}, {{}, link, {}, {}}).out,
                 "flock from QM Resource Lock Manager {*}.{*}.{*}\n");
  EXPECT_MATCHES(run({kQmlock, "--version"}).out,
                 "qmlock (QM Resource Lock Manager) {*}\n  lock manager interface {*}");
  EXPECT_MATCHES(run({"flock", "--help"}, {{}, link, {}, {}}).out,
                 "\nUsage:\n flock [options] <file>|<directory> <command> [<argument>...]\n{*}"
                 "For more details see flock(1).\n");

  // Conflicts: silent, or flock's words with --verbose, against a holder
  // of flock(2) locks in each directory.
  Holding mineHeld({link, ours.file("held")});
  Holding utilHeld({kUtilLinuxFlock, theirs.file("held")});
  ASSERT_GT(mineHeld.command, 0);
  ASSERT_GT(utilHeld.command, 0);
  for (const auto &args : std::vector<std::vector<std::string>>{
           {"-n", "held", "true"},
           {"-n", "-E", "7", "held", "true"},
           {"-n", "--verbose", "held", "true"},
           {"-w", "0.2", "--verbose", "held", "true"},
       }) {
    auto [m, u] = both(args);
    EXPECT_EQ(m.status, u.status) << args[1];
    EXPECT_EQ(m.err, u.err) << args[1];
  }

  // One lock, of flock(1)'s kind: flock(2) by default, OFD with --fcntl.
  const std::string f = touch(ours.file("kinds"));
  auto lockf = pythonHolder("lockf", f);
  ASSERT_EQ(lockf->readLine(), "locked");
  EXPECT_EQ(run({link, "-n", f, "true"}).status, 0);
  EXPECT_EQ(run({link, "-n", "--fcntl", f, "true"}).status, 1);
  lockf.reset();
  const Done ranged = run({link, "-s", "--start", "1", "--length", "2", f, kQmlock, "probe", f});
  EXPECT_TRUE(anyLineMatches(ranged.out, "  OFD   read  1-2 {*} (flock), descriptor 3"))
      << ranged.out;
  EXPECT_EQ(ranged.out.find("flock "), std::string::npos) << ranged.out;
}

// The manual's self-locking script, as root and as a user who cannot write
// it: flock(1) opens the file read-only, so running it is not "Text file busy".
TEST(QmlockFlock, SelfLockingScriptRunsAsRootAndAsAnUnprivilegedUser) {
  TempDir d;
  ASSERT_EQ(chmod(d.path().c_str(), 0755), 0);
  const std::string bin = d.file("bin"), script = d.file("self.sh");
  ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
  ASSERT_EQ(symlink(kQmlock.c_str(), (bin + "/flock").c_str()), 0);
  std::ofstream(script)
      << "#!/bin/sh\n"
         "[ \"${FLOCKER}\" != \"$0\" ] && exec env FLOCKER=\"$0\" flock -en \"$0\" "
         "\"$0\" \"$@\" || :\n"
         "echo \"locked: $1\"\n";
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  const std::string path = "PATH=" + bin + ":/usr/bin:/bin";
  Done r = run({"/usr/bin/env", path, script, "root"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "locked: root\n");
  // qmlock run the same way: the script is opened read-only (it is executable).
  r = run({kQmlock, "run", "-xn", script, script, "run"}, {{}, {}, {"FLOCKER=" + script}, {}});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "locked: run\n");
  if (geteuid() != 0) GTEST_SKIP() << "runuser needs root to run as nobody";
  if (access("/usr/sbin/runuser", X_OK) != 0) GTEST_SKIP() << "no runuser";
  r = run({"/usr/sbin/runuser", "-u", "nobody", "--", "/usr/bin/env", path, script, "nobody"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "locked: nobody\n");
  const std::string readable = touch(d.file("readable"));
  r = run({"/usr/sbin/runuser", "-u", "nobody", "--", bin + "/flock", "-x", readable, "true"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"/usr/sbin/runuser", "-u", "nobody", "--", kQmlock, "run", "-x", readable, "true"});
  EXPECT_EQ(r.status, 0) << r.err;
}

// util-linux's own flock tests, when the shared tree that holds them is
// beside the checkout; lslocks is qmlock under that name, which sees the
// holders of OFD locks.
TEST(QmlockFlock, UtilLinuxOwnSuitePasses) {
  const std::string suite = std::string(QMLOCK_TESTDATA) + "/../../../shared/util-linux-flock/run";
  if (access(suite.c_str(), X_OK) != 0)
    GTEST_SKIP() << "util-linux's flock suite is not beside the checkout (" << suite << ")";
  TempDir d;
  ASSERT_EQ(symlink(kQmlock.c_str(), d.file("lslocks").c_str()), 0);
  const char *pathEnv = std::getenv("PATH");
  // range-lock reads the locker's PID as soon as the locker is started and
  // asks lslocks at once, without waiting for the lock to be taken: on a
  // loaded machine lslocks can run first (util-linux's own flock loses the
  // same race). A run whose only failure is range-lock is made again, up to
  // three runs; any other failure fails at once.
  Done r;
  for (int attempt = 0; attempt < 3; ++attempt) {
    r = run({suite, kQmlock},
            {{}, {}, {"PATH=" + d.path() + ":" + (pathEnv ? pathEnv : "/usr/bin:/bin")}, {}});
    const bool onlyRangeLock =
        r.out.find("util-linux flock tests: 17/18 subtests passed") != std::string::npos &&
        r.out.find("range-lock       FAILED") != std::string::npos;
    if (!onlyRangeLock) break;
  }
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_MATCHES(r.out, "{*}util-linux flock tests: 18/18 subtests passed\n");
}

// ---- probe and locks --------------------------------------------------------------

TEST(QmlockProbe, ListsEveryKindOfLockWithItsHoldersRangeAndMode) {
  TempDir d;
  const std::string free = touch(d.file("free")), missing = d.file("missing");
  const std::string f = touch(d.file("many"));
  auto byFlock = pythonHolder("flock", f);
  ASSERT_EQ(byFlock->readLine(), "locked");
  // Two readers of one OFD range, and a POSIX lock on other bytes.
  const std::string flockLink = d.file("flock");
  ASSERT_EQ(symlink(kQmlock.c_str(), flockLink.c_str()), 0);
  Holding readerA({flockLink, "-s", "--start", "10", "--length", "5", f});
  Holding readerB({flockLink, "-s", "--start", "10", "--length", "5", f});
  ASSERT_GT(readerA.command, 0);
  ASSERT_GT(readerB.command, 0);
  Proc posix(
      {"/usr/bin/env", "python3", "-c",
       "import fcntl, sys, time\nf = open(sys.argv[1], 'r+')\n"
       "fcntl.lockf(f, fcntl.LOCK_EX, 3, 20)\nprint('locked', flush=True)\ntime.sleep(120)\n",
       f});
  ASSERT_EQ(posix.readLine(), "locked");

  Done r = run({kQmlock, "probe", free, f});
  EXPECT_EQ(r.status, 1);
  EXPECT_MATCHES(r.out, free + ": free\n" + f + ": held\n{*}");
  for (const std::string &want : {"  flock write 0-EOF        process " +
                                      std::to_string(byFlock->pid) + " (python3), descriptor {*}",
                                  "  OFD   read  10-14        process " +
                                      std::to_string(readerA.p.pid) + " (flock), descriptor 3",
                                  "  OFD   read  10-14        process " +
                                      std::to_string(readerA.command) + " (sleep), descriptor 3",
                                  "  OFD   read  10-14        process " +
                                      std::to_string(readerB.command) + " (sleep), descriptor 3",
                                  "  POSIX write 20-22        process " +
                                      std::to_string(posix.pid) + " (python3), descriptor {*}"})
    EXPECT_TRUE(anyLineMatches(r.out, want)) << want << "\nin:\n" << r.out;

  r = run({kQmlock, "probe", "--json", f});
  EXPECT_MATCHES(r.out, "[{\"path\": \"" + f +
                            "\", \"held\": true, \"remote_filesystem\": null, \"locks\": [{*}"
                            "{\"kind\": \"OFD\", \"mode\": \"read\", \"start\": 10, \"end\": 14, "
                            "\"pid\": " +
                            std::to_string(readerA.command) +
                            ", \"command\": \"sleep\", \"fd\": 3, \"remote\": false}{*}]}]\n");
  r = run({kQmlock, "probe", missing, free});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "qmlock: " + missing + ": No such file or directory\n");
  EXPECT_EQ(run({kQmlock, "probe"}).status, 2);
  EXPECT_EQ(freeKinds(free, true), kAll) << "probing takes no lock";

  // qmlock locks: the same rows, as lslocks(8) lays them out.
  r = run({kQmlock, "locks", "--pid", std::to_string(readerA.command), "-o",
           "TYPE,MODE,START,END,PATH", "--noheadings", "--raw"});
  EXPECT_EQ(r.out, "OFDLCK READ 10 14 " + f + "\n");
  r = run({kQmlock, "locks", d.path()});
  EXPECT_EQ(lines(r.out).size(), 7u) << "a heading, then each holder of each lock:\n" << r.out;
  EXPECT_MATCHES(lines(r.out)[0], "COMMAND {*}PID TYPE {*}MODE  M START END PATH");
  EXPECT_EQ(run({kQmlock, "locks", "-o", "NOPE"}).status, 64);
}

// ---- the front end and its helper --------------------------------------------------

// run loads nothing of the lock manager (COMMAND reads the maps of its
// parent, the qmlock holding the lock); shell and demo are the helper beside
// qmlock, and a qmlock without it still runs and says what is missing.
TEST(QmlockFrontEnd, RunLoadsNoLockManagerAndShellAndDemoNeedTheHelper) {
  TempDir d;
  const std::string f = d.file("maps.lock");
  Done r = run({kQmlock, "run", f, "sh", "-c", "cat /proc/$PPID/maps"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_TRUE(anyLineMatches(r.out, "{*}/qmlock")) << "not qmlock's maps:\n" << r.out;
  for (const char *lib : {"libqmhost", "libqmelm", "libqmioe", "libqmhostcm"})
    EXPECT_EQ(r.out.find(lib), std::string::npos) << "qmlock run loaded " << lib;

  const std::string alone = d.file("qmlock");
  std::filesystem::copy_file(kQmlock, alone);
  r = run({alone, "run", "-n", f, "echo", "locked"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "locked\n");
  for (const char *face : {"shell", "demo"}) {
    r = run({alone, face});
    EXPECT_EQ(r.status, 78) << face;
    EXPECT_EQ(r.err, "qmlock: cannot run " + d.file("qmlock-manager") +
                         ", which drives the lock manager: No such file or directory\n");
  }
}

TEST(QmlockDemo, HelpExitsZero) {
  const Done r = run({kQmlock, "demo", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_MATCHES(r.out, "usage: qmlock demo\n{*}");
}

// ---- shell ------------------------------------------------------------------------

// A script of every command, with @DIR@ for the test's directory, against the
// lines it must print ({*}: descriptors, PIDs, times).
TEST(QmlockShell, ScriptOfEveryCommandPrintsTheExpectedLines) {
  TempDir d;
  ASSERT_EQ(mkdir(d.file("data").c_str(), 0755), 0);
  Holder python(touch(d.file("held.db")));
  ASSERT_EQ(python.line, "locked");
  const std::string script = d.file("every_command.qms");
  std::ofstream(script) << replaceAll(slurp(kTestData + "/every_command.qms"), "@DIR@", d.path());
  const std::vector<std::string> want =
      lines(replaceAll(slurp(kTestData + "/every_command.out"), "@DIR@", d.path()));

  const Done r = run({kQmlock, "shell", script});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> got = lines(r.out);
  for (size_t i = 0; i < std::max(got.size(), want.size()); ++i) {
    const std::string g = i < got.size() ? got[i] : "<none>",
                      w = i < want.size() ? want[i] : "<none>";
    EXPECT_TRUE(matches(g, w)) << "line " << i + 1 << "\n got: " << g << "\nwant: " << w;
  }
  EXPECT_FALSE(exists(d.file("data/orders.db"))) << "deleted on close";
  EXPECT_EQ(recordLockHolder(d.file("held.db")), python.pid);
}

TEST(QmlockShell, UnexpectedOutcomesMakeTheExitStatusNonZero) {
  TempDir d;
  const std::string f = d.file("f");
  auto shell = [&](const std::string &text) {
    std::ofstream(d.file("s.qms")) << text;
    return run({kQmlock, "shell", d.file("s.qms")});
  };
  Done r = shell("get a " + f + "\nrelease a\n");
  EXPECT_EQ(r.status, 0);
  r = shell("get a " + f + "\nexpect error QMELM_E_INT_LOCKED_EXCLUSIVE get b " + f + "\n");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  r = shell("get a " + f + "\nexpect error 0x80ffe011 get b " + f + "\nget c " + f + "\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "qmlock shell: line 2: expected error 0x80ffe011 QMELM_E_EXT_LOCKED_EXCLUSIVE\n");
  EXPECT_MATCHES(lines(r.out).back(), "error 0x80ffe012 QMELM_E_INT_LOCKED_EXCLUSIVE: {*}");
  r = shell("expect error QMELM_E_NO_PATH get a " + f + "\n");
  EXPECT_EQ(r.status, 1) << "a success is unexpected too";
  EXPECT_EQ(shell("frobnicate\n").out, "error usage: unknown command 'frobnicate' (try help)\n");
  EXPECT_EQ(shell("release nobody\n").status, 1);
  EXPECT_EQ(run({kQmlock, "shell", d.file("no-such-script")}).status, 2);
}

// On a terminal the shell prompts and edits: a typo mended with backspace,
// the line recalled with the up arrow, ^D to leave.
TEST(QmlockShell, OnATerminalItPromptsAndEditsLines) {
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    execl(kQmlock.c_str(), "qmlock", "shell", static_cast<char *>(nullptr));
    _exit(127);
  }
  // Waits until text appears after what earlier calls found.
  std::string seen;
  size_t mark = 0;
  auto next = [&](const std::string &text) {
    const Clock::time_point deadline = Clock::now() + 60s;
    size_t at;
    while ((at = seen.find(text, mark)) == std::string::npos && Clock::now() < deadline) {
      pollfd p{master, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[1024];
      const ssize_t n = read(master, buf, sizeof buf);
      if (n <= 0) break;
      seen.append(buf, static_cast<size_t>(n));
    }
    if (at == std::string::npos) return false;
    mark = at + text.size();
    return true;
  };
  auto type = [&](const std::string &keys) {
    ASSERT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  };
  EXPECT_TRUE(next("qmlock> ")) << seen;
  type("option lisX\x7ft\r");
  EXPECT_TRUE(next("ok 1 options")) << seen;
  EXPECT_TRUE(next("qmlock> ")) << seen;
  type("\x1b[A\r");
  EXPECT_TRUE(next("qmlock> option list")) << seen;
  EXPECT_TRUE(next("ok 1 options")) << seen;
  EXPECT_TRUE(next("qmlock> ")) << seen;  // ^D is read as a key only at the prompt
  type("\x04");
  int st = 0;
  const Clock::time_point deadline = Clock::now() + 60s;
  while (waitpid(pid, &st, WNOHANG) == 0 && Clock::now() < deadline) {
    pollfd p{master, POLLIN, 0};
    char buf[256];
    if (poll(&p, 1, 10) > 0) (void)!read(master, buf, sizeof buf);  // keep the terminal drained
  }
  if (Clock::now() >= deadline) {
    ADD_FAILURE() << "the shell did not end at ^D: " << seen;
    kill(pid, SIGKILL);
    waitpid(pid, &st, 0);
  }
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << seen;
  close(master);
}

// ---- demo -------------------------------------------------------------------------

TEST(QmlockDemo, ExitsZeroAndLeavesNothingBehind) {
  TempDir d;
  const Done r = run({kQmlock, "demo"}, {{}, {}, {"TMPDIR=" + d.path()}, {}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_MATCHES(r.out, "{*}(this one) is refused: process {*} (qmlock) holds a write lock{*}");
  EXPECT_MATCHES(r.out, "{*}upgraded to int-excl,ext-excl{*}another process sees a write lock{*}");
  EXPECT_MATCHES(r.out, "{*}I/O statistics report: {*}");
  EXPECT_EQ(r.out.find("unexpected"), std::string::npos) << r.out;
  EXPECT_TRUE(std::filesystem::is_empty(d.path())) << "the demo left files in " << d.path();
}

}  // namespace
