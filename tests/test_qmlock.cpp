// test_qmlock.cpp - the built qmlock, run as a user runs it: `run` on free and
// held files (a Python fcntl.lockf holder), --wait, the descriptor form, the
// descriptors and signals COMMAND gets, the flock(1) personality against
// util-linux flock itself, `probe`, `shell` with a script of every command and
// on a terminal, and `demo`.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
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

// The descriptors of a process and what they refer to.
std::map<int, std::string> descriptorsOf(pid_t pid) {
  std::map<int, std::string> out;
  std::error_code ec;
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto &e : std::filesystem::directory_iterator(dir, ec)) {
    std::error_code ec2;
    out[std::stoi(e.path().filename())] = std::filesystem::read_symlink(e.path(), ec2).string();
  }
  return out;
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

// ---- run ------------------------------------------------------------------------

TEST(QmlockRun, FreeFilePassesTheCommandsStatusThroughWhileHoldingTheLock) {
  TempDir d;
  const std::string f = d.file("free.lock");
  Done r = run({kQmlock, "run", f, "sh", "-c", "exit 7"});
  EXPECT_EQ(r.status, 7);
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(exists(f)) << "the file is created, as by flock(1)";
  EXPECT_EQ(run({kQmlock, "run", "-s", f, "-c", "exit 3"}).status, 3);
  EXPECT_EQ(run({kQmlock, "run", f, "sh", "-c", "kill -KILL $$"}).status, 128 + SIGKILL);
  EXPECT_EQ(run({kQmlock, "run", f, "sh", "-c", "kill -USR1 $$"}).status, 128 + SIGUSR1);

  // COMMAND, a child of qmlock, sees its parent hold the lock: a write lock
  // with -x, a read lock with -s; afterwards nobody holds it.
  r = run({kQmlock, "run", "-x", f, kQmlock, "probe", f});
  EXPECT_EQ(r.status, 1);
  EXPECT_MATCHES(r.out, f + ": held (write) by process {*} (qmlock)\n");
  r = run({kQmlock, "run", "--shared", f, kQmlock, "probe", f});
  EXPECT_MATCHES(r.out, f + ": held (read) by process {*} (qmlock)\n");
  EXPECT_EQ(recordLockHolder(f), 0);

  r = run({kQmlock, "run", "--verbose", f, "true"});
  EXPECT_EQ(r.status, 0);
  EXPECT_MATCHES(r.out, "qmlock: getting lock took {*}.{*} seconds\nqmlock: executing true\n");

  // A directory can be locked shared (it can only be opened for reading).
  EXPECT_EQ(run({kQmlock, "run", "-s", d.path(), "true"}).status, 0);
  r = run({kQmlock, "run", "-x", d.path(), "true"});
  EXPECT_EQ(r.status, 65);
  EXPECT_MATCHES(r.err, "qmlock: " + d.path() + ": an exclusive record lock needs {*}--shared\n");
  r = run({kQmlock, "run", d.file("no/such/dir"), "true"});
  EXPECT_EQ(r.status, 66);
  EXPECT_EQ(r.err, "qmlock: cannot open lock file " + d.file("no/such/dir") +
                       ": No such file or directory\n");
  r = run({kQmlock, "run", "--start", "0", "--length", "10", f, "true"});
  EXPECT_EQ(r.status, 64);
  EXPECT_EQ(r.err,
            "qmlock: byte ranges (--start, --length) are not supported: the lock manager locks "
            "whole files\n");
  EXPECT_EQ(run({kQmlock, "run", "--fcntl", "-n", f, "true"}).status, 0);
  r = run({kQmlock, "run", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_MATCHES(r.out,
                 "usage: qmlock run [options] FILE|DIR COMMAND [ARG...]\n{*}Exit status:{*}");
  EXPECT_EQ(run({kQmlock, "frobnicate"}).status, 64);
  r = run({kQmlock, "run", f, d.file("no-such-command")});
  EXPECT_EQ(r.status, 69);
  EXPECT_EQ(r.err, "qmlock: failed to execute " + d.file("no-such-command") +
                       ": No such file or directory\n");
}

TEST(QmlockRun, AgainstAnotherProcessExitsWithTheConflictCodeAndNamesIt) {
  TempDir d;
  const std::string f = touch(d.file("held.lock")), ran = d.file("ran");
  Holder python(f);  // fcntl.lockf in a Python process
  ASSERT_EQ(python.line, "locked");
  const std::string holder = "process " + std::to_string(python.pid) + " (python3)";

  Done r = run({kQmlock, "run", "-n", f, "touch", ran});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "qmlock: cannot lock " + f + " exclusively: " + holder + " holds a write lock\n");
  EXPECT_FALSE(exists(ran)) << "COMMAND must not run without the lock";
  r = run({kQmlock, "run", "--nb", "-E", "9", "-s", f, "touch", ran});
  EXPECT_EQ(r.status, 9);
  EXPECT_EQ(r.err, "qmlock: cannot lock " + f + " shared: " + holder + " holds a write lock\n");
  EXPECT_EQ(run({kQmlock, "run", "-w", "0", "--conflict-exit-code=0", f, "true"}).status, 0)
      << "-w 0 is --nonblock, and -E 0 is allowed";

  const Clock::time_point start = Clock::now();
  r = run({kQmlock, "run", "--timeout", "0.3", f, "touch", ran});
  EXPECT_GE(Clock::now() - start, 300ms);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qmlock: cannot lock " + f + " exclusively within 0.3 seconds: " + holder +
                       " holds a write lock\n");
  EXPECT_FALSE(exists(ran));

  // probe names the holder too, and takes nothing itself.
  r = run({kQmlock, "probe", f});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, f + ": held (write) by " + holder + "\n");
}

TEST(QmlockRun, WaitSucceedsOnceTheHolderExits) {
  TempDir d;
  const std::string f = touch(d.file("wait.lock"));
  auto python = std::make_unique<Holder>(f);
  ASSERT_EQ(python->line, "locked");
  Proc waiter({kQmlock, "run", "--wait", "60", f, "sh", "-c", "echo got it"});
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(waiter.running()) << "the waiter must wait for the holder";
  const Clock::time_point released = Clock::now();
  python.reset();  // killed: the kernel releases its lock
  const Done r = waiter.wait();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "got it\n");
  EXPECT_LT(Clock::now() - released, 20s);

  // Without --wait and without --nonblock, qmlock waits as long as it takes.
  auto again = std::make_unique<Holder>(f);
  Proc patient({kQmlock, "run", f, "true"});
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(patient.running());
  again.reset();
  EXPECT_EQ(patient.wait().status, 0);
}

TEST(QmlockRun, DescriptorFormHoldsAfterQmlockExitsAndUnlockGivesItBack) {
  TempDir d;
  const std::string f = d.file("fd.lock");
  const int fd = open(f.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  const RunOptions inherit{{}, {}, {}, {fd}};
  const std::string n = std::to_string(fd);

  Done r = run({kQmlock, "run", "-n", n}, inherit);
  ASSERT_EQ(r.status, 0) << r.err;
  // qmlock has gone; the lock stays with the open file description.
  EXPECT_FALSE(otherProcessCanLock(f, F_RDLCK));
  r = run({kQmlock, "run", "-n", f, "true"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qmlock: cannot lock " + f +
                       " exclusively: a lock owned by an open file description (no process ID) "
                       "holds a write lock\n");
  EXPECT_EQ(run({kQmlock, "probe", f}).out,
            f + ": held (write) by a lock owned by an open file description (no process ID)\n");

  r = run({kQmlock, "run", "--unlock", n}, inherit);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(otherProcessCanLock(f, F_WRLCK));

  // Shared on the descriptor: readers may join, writers not; a record lock
  // of the lock manager's conflicts with it like any other.
  ASSERT_EQ(run({kQmlock, "run", "-s", "-n", n}, inherit).status, 0);
  EXPECT_TRUE(otherProcessCanLock(f, F_RDLCK));
  EXPECT_FALSE(otherProcessCanLock(f, F_WRLCK));
  EXPECT_EQ(run({kQmlock, "run", "-n", "-s", f, "true"}).status, 0);
  EXPECT_EQ(run({kQmlock, "run", "-n", "-E", "3", f, "true"}).status, 3);
  ASSERT_EQ(run({kQmlock, "run", "-u", n}, inherit).status, 0);

  // A write lock needs the descriptor open for writing; a closed one is an error.
  const int ro = open(f.c_str(), O_RDONLY | O_CLOEXEC);
  r = run({kQmlock, "run", "-n", std::to_string(ro)}, {{}, {}, {}, {ro}});
  EXPECT_EQ(r.status, 65);
  EXPECT_EQ(r.err, "qmlock: " + std::to_string(ro) +
                       ": an exclusive record lock needs the descriptor open for writing\n");
  r = run({kQmlock, "run", "-n", "77"});
  EXPECT_EQ(r.status, 65);
  EXPECT_EQ(r.err, "qmlock: 77: Bad file descriptor\n");
  close(ro);
  close(fd);
}

TEST(QmlockRun, CommandInheritsTheLocksDescriptorOnlyAndIsSentSignals) {
  TempDir d;
  const std::string f = d.file("inherit.lock");
  const int extra = open("/dev/null", O_RDONLY | O_CLOEXEC);  // the caller's own, passed on
  const RunOptions o{{}, {}, {}, {extra}};
  // COMMAND reports its PID, then waits to be signalled: it ends with 40, 41
  // or 42 for SIGINT, SIGTERM or SIGHUP (a process that forks nothing, so no
  // signal can land in a child between its fork and its exec).
  const std::string wait =
      "import os, signal, time\n"
      "for n, s in enumerate((signal.SIGINT, signal.SIGTERM, signal.SIGHUP)):\n"
      "    signal.signal(s, lambda sig, frame, n=n: os._exit(40 + n))\n"
      "print(os.getpid(), flush=True)\n"
      "time.sleep(60)\n";

  struct Case {
    std::vector<std::string> options;
    bool lockDescriptor;  // COMMAND has it
    int signal, status;
  };
  for (const Case &c : {Case{{}, true, SIGTERM, 41}, Case{{"--close"}, false, SIGINT, 40},
                        Case{{"-o", "-s"}, false, SIGHUP, 42}}) {
    std::vector<std::string> argv = {kQmlock, "run"};
    argv.insert(argv.end(), c.options.begin(), c.options.end());
    argv.insert(argv.end(), {f, "python3", "-c", wait});
    Proc p(argv, o);
    const pid_t command = std::stoi("0" + p.readLine());
    ASSERT_GT(command, 0);
    std::map<int, std::string> fds = descriptorsOf(command);
    EXPECT_EQ(fds[extra], "/dev/null");
    std::vector<std::string> others;
    for (const auto &[fd, target] : fds)
      if (fd > 2 && fd != extra) others.push_back(target);
    EXPECT_EQ(others, c.lockDescriptor ? std::vector<std::string>{f} : std::vector<std::string>{});
    EXPECT_EQ(recordLockHolder(f), p.pid) << "qmlock itself holds the lock";
    kill(p.pid, c.signal);
    EXPECT_EQ(p.wait().status, c.status) << "the signal is passed on to COMMAND";
    EXPECT_EQ(recordLockHolder(f), 0);
  }

  // --no-fork: COMMAND replaces qmlock and keeps the lock through the descriptor.
  Proc p({kQmlock, "run", "--no-fork", f, "python3", "-c", wait}, o);
  const pid_t command = std::stoi("0" + p.readLine());
  EXPECT_EQ(command, p.pid);
  std::map<int, std::string> fds = descriptorsOf(command);
  std::string shown;
  for (const auto &[fd, target] : fds) shown += " " + std::to_string(fd) + "->" + target;
  EXPECT_EQ(fds.size(), 5u) << "0 to 2, the caller's and the lock's; found" << shown;
  EXPECT_EQ(recordLockHolder(f), p.pid);
  kill(p.pid, SIGTERM);
  EXPECT_EQ(p.wait().status, 41);
  EXPECT_EQ(recordLockHolder(f), 0);
  close(extra);
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

  // Conflicts: silent, or flock's words with --verbose. Each is held by its
  // own kind of lock (util-linux flock(1) takes flock(2) locks).
  Proc mineHeld({kQmlock, "run", ours.file("held"), "sh", "-c", "echo ready; exec sleep 60"});
  Proc utilHeld({kUtilLinuxFlock, theirs.file("held"), "sh", "-c", "echo ready; exec sleep 60"});
  ASSERT_EQ(mineHeld.readLine(), "ready");
  ASSERT_EQ(utilHeld.readLine(), "ready");
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
}

// ---- probe ------------------------------------------------------------------------

TEST(QmlockProbe, TellsFreeFromHeldAndNamesTheHolder) {
  TempDir d;
  const std::string free = touch(d.file("free")), written = touch(d.file("written")),
                    read = touch(d.file("read")), missing = d.file("missing");
  Holder python(written);
  ASSERT_EQ(python.line, "locked");
  Proc reader({kQmlock, "run", "-s", read, "sh", "-c", "echo ready; exec sleep 60"});
  ASSERT_EQ(reader.readLine(), "ready");

  Done r = run({kQmlock, "probe", free});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, free + ": free\n");
  r = run({kQmlock, "probe", free, written, read});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, free + ": free\n" + written + ": held (write) by process " +
                       std::to_string(python.pid) + " (python3)\n" + read +
                       ": held (read) by process " + std::to_string(reader.pid) + " (qmlock)\n");
  r = run({kQmlock, "probe", missing, free});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "qmlock: " + missing + ": No such file or directory\n");
  EXPECT_EQ(r.out, free + ": free\n");
  EXPECT_EQ(run({kQmlock, "probe"}).status, 2);
  EXPECT_TRUE(otherProcessCanLock(free, F_WRLCK)) << "probing takes no lock";
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
