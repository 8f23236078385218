// run.cpp - qmlock run, flock(1)'s command line for scripts, and flock(1)
// itself when invoked under that name.
//
// The lock belongs to an open file description, never to a process: the
// FILE form opens FILE without close-on-exec, so that COMMAND inherits the
// descriptor, and the lock lasts as long as any process (COMMAND, or whatever
// it hands the descriptor to) keeps it open, whatever happens to qmlock. The
// FD form locks the caller's descriptor the same way.
//
// Which locks: qmlock run takes two on the same descriptor, an
// open-file-description record lock (F_OFD_SETLK), which conflicts with
// every process's POSIX record locks (lockf, fcntl, the lock manager) and
// OFD locks, and a flock(2) lock, which on local Linux file systems is
// independent of record locks and is what util-linux flock(1) takes. It
// never holds one while it waits for the other: it waits for one in the
// kernel, tries the other, and when that is refused gives the first back and
// waits for the other instead. Under the name flock it takes one lock, as
// util-linux flock(1) does: flock(2), or OFD with --fcntl/--start/--length.
//
// Waiting sleeps in the kernel (F_OFD_SETLKW, flock without LOCK_NB); --wait
// arms a timer whose signal interrupts the wait. qmlock catches no other
// signal and passes none on: a signal sent to the process group reaches
// COMMAND from its sender, once; one sent to qmlock alone ends qmlock, and
// COMMAND runs on with the lock.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "locktable.h"
#include "qmlock.h"

namespace qmlock {
namespace {

using Clock = std::chrono::steady_clock;

enum class Mode { exclusive, shared, unlock };
// The locks taken: both kinds (qmlock run), or one (flock's personality,
// or --fcntl).
enum class Api { both, flock, ofd };

// What the command line asks for.
struct Request {
  Mode mode = Mode::exclusive;
  Api api = Api::both;
  bool nonblock = false;
  std::optional<Clock::duration> timeout;  // --wait; zero means --nonblock
  const char *timeoutText = nullptr;       // as given, for messages
  int conflictExit = 1;
  bool closeFd = false, noFork = false, verbose = false;
  off_t start = 0, length = 0;      // the byte range of an OFD lock; length 0: to the end
  const char *file = nullptr;       // the FILE|DIR form
  int fd = -1;                      // the FD form (positional, or --fd)
  const char *shellLine = nullptr;  // -c LINE given as an option
  std::vector<char *> command;      // COMMAND's argv, null-terminated; empty: none
};

// How the face speaks: as flock(1) under its name (silent about conflicts
// unless --verbose), or as qmlock.
struct Voice {
  std::string name;       // the prefix of messages
  std::string usageName;  // in "Try '... --help'"
  bool flock = false;

  void say(const char *fmt, va_list ap, int err) const {
    std::string line = name + ": ";
    char buf[1024];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    line += buf;
    if (err != 0) line += std::string(": ") + std::strerror(err);
    line += '\n';
    std::fflush(stdout);
    std::fputs(line.c_str(), stderr);
  }
  __attribute__((format(printf, 2, 3))) void warnx(const char *fmt, ...) const {
    va_list ap;
    va_start(ap, fmt);
    say(fmt, ap, 0);
    va_end(ap);
  }
  __attribute__((format(printf, 3, 4))) void warn(int err, const char *fmt, ...) const {
    va_list ap;
    va_start(ap, fmt);
    say(fmt, ap, err);
    va_end(ap);
  }
  int tryHelp() const {
    std::fprintf(stderr, "Try '%s --help' for more information.\n", usageName.c_str());
    return kExitUsage;
  }
};

// flock(1)'s help, word for word.
void flockUsage(const char *name) {
  std::printf(
      "\nUsage:\n"
      " %1$s [options] <file>|<directory> <command> [<argument>...]\n"
      " %1$s [options] <file>|<directory> -c <command>\n"
      " %1$s [options] <file descriptor number>\n"
      "\nManage file locks from shell scripts.\n"
      "\nOptions:\n"
      " -s, --shared             get a shared lock\n"
      " -x, --exclusive          get an exclusive lock (default)\n"
      " -u, --unlock             remove a lock\n"
      " -n, --nonblock           fail rather than wait\n"
      " -w, --timeout <secs>     wait for a limited amount of time\n"
      " -E, --conflict-exit-code <number>  exit code after conflict or timeout\n"
      " -o, --close              close file descriptor before running command\n"
      " -c, --command <command>  run a single command string through the shell\n"
      " -F, --no-fork            execute command without forking\n"
      "     --fcntl              use fcntl(F_OFD_SETLK) rather than flock()\n"
      "     --start <offset>     starting offset for lock (implies --fcntl)\n"
      "     --length <number>    number of bytes to lock (implies --fcntl)\n"
      "     --verbose            increase verbosity\n"
      "\n"
      "%2$-26s%3$s\n"
      "%4$-26s%5$s\n"
      "\nFor more details see flock(1).\n",
      name, " -h, --help", "display this help", " -V, --version", "display version");
}

void runUsage() {
  std::printf(
      "usage: qmlock run [options] FILE|DIR COMMAND [ARG...]\n"
      "       qmlock run [options] FILE|DIR -c COMMANDLINE\n"
      "       qmlock run [options] FD\n"
      "       qmlock run [options] --fd FD [COMMAND [ARG...] | -c COMMANDLINE]\n"
      "\n"
      "Holds a lock on FILE or DIR (created when missing) while COMMAND runs, or\n"
      "locks the open descriptor FD until it is closed or unlocked.\n"
      "\n"
      "The locks belong to the open file description that COMMAND inherits (or FD),\n"
      "not to qmlock: they last while COMMAND, or anything it passes the descriptor\n"
      "to, keeps it open, even when qmlock itself is killed, and COMMAND opening\n"
      "and closing the file does not drop them. Two locks are taken on the one\n"
      "descriptor, so that every kind of locker is kept out:\n"
      "  - a flock(2) lock, which util-linux flock(1) users take;\n"
      "  - an open-file-description record lock (F_OFD_SETLK), which conflicts with\n"
      "    POSIX record locks (lockf, fcntl F_SETLK, the QM lock manager) and OFD\n"
      "    locks; on Linux the two kinds do not see each other.\n"
      "qmlock never holds one of them while it waits for the other.\n"
      "\n"
      "  -x, -e, --exclusive   an exclusive (write) lock (default); FILE is opened\n"
      "                        for reading and writing, except a directory, a file\n"
      "                        with an execute bit (COMMAND may run it) or one that\n"
      "                        cannot be written: those are opened read-only, and\n"
      "                        the record lock is then a read lock, which keeps\n"
      "                        out record-lock writers but not readers\n"
      "  -s, --shared          a shared (read) lock; FILE is opened read-only\n"
      "  -u, --unlock          give FD's locks back (with FILE: take no lock)\n"
      "  -n, --nb, --nonblock  fail at once when a lock is held\n"
      "  -w, --wait, --timeout SECONDS\n"
      "                        fail when not locked within SECONDS (fractions\n"
      "                        allowed; 0 is --nonblock); without -n or -w, wait\n"
      "  -E, --conflict-exit-code N\n"
      "                        exit status after a conflict or timeout (default 1)\n"
      "  -o, --close           COMMAND does not inherit the lock's descriptor; the\n"
      "                        lock is then qmlock's and ends with it\n"
      "  -F, --no-fork         exec COMMAND in place of qmlock\n"
      "  -c, --command LINE    run LINE with $SHELL -c (default /bin/sh)\n"
      "      --fd FD           lock descriptor FD, then run COMMAND if one is given\n"
      "      --fcntl           take the OFD record lock only (no flock(2) lock)\n"
      "      --start OFFSET, --length N\n"
      "                        lock bytes OFFSET to OFFSET+N-1 (N 0: to the end);\n"
      "                        imply --fcntl, since flock(2) locks whole files\n"
      "      --verbose         say how long locking took and what is executed\n"
      "  -h, --help, -V, --version\n"
      "\n"
      "Signals: qmlock passes none on. One sent to the process group (^C, systemd\n"
      "stopping a unit, kill -- -PGID) reaches COMMAND once, from its sender; one\n"
      "sent to qmlock alone ends qmlock, and COMMAND runs on, holding the lock.\n"
      "\n"
      "Exit status: COMMAND's own, 128+N when it dies of signal N, or 0 without\n"
      "COMMAND; the conflict code (-E, default 1) when the lock is held (one line on\n"
      "standard error names each holder's PID and command); 64 usage, 65 the lock\n"
      "call failed, 66 or 73 the file cannot be opened or created, 69 COMMAND\n"
      "cannot be executed, 71 out of memory, descriptors or locks.\n");
}

// A byte count as util-linux reads one: digits, then an optional binary
// suffix (K, M, G, T, P, E, with or without "iB") or a decimal one (KB, MB...).
std::optional<off_t> parseSize(const char *text) {
  char *end = nullptr;
  errno = 0;
  const unsigned long long n = std::strtoull(text, &end, 10);
  if (errno != 0 || end == text || *text == '-') return std::nullopt;
  const std::string suffix = end;
  unsigned long long scale = 1;
  if (!suffix.empty()) {
    const size_t power = std::string("KMGTPE").find(suffix[0]);
    const std::string rest = suffix.substr(1);
    if (power == std::string::npos || !(rest.empty() || rest == "iB" || rest == "B"))
      return std::nullopt;
    for (size_t i = 0; i <= power; ++i) scale *= rest == "B" ? 1000 : 1024;
  }
  if (n > static_cast<unsigned long long>(INT64_MAX) / scale) return std::nullopt;
  return static_cast<off_t>(n * scale);
}

std::optional<int> parseDescriptor(const Voice &v, const char *text, int &fd) {
  char *end = nullptr;
  errno = 0;
  const long n = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || n < INT32_MIN || n > INT32_MAX) {
    v.warnx("bad file descriptor: '%s'", text);
    return kExitUsage;
  }
  fd = static_cast<int>(n);
  return std::nullopt;
}

// $SHELL -c LINE, as COMMAND.
void shellCommand(Request &req, const char *line) {
  const char *shell = std::getenv("SHELL");
  req.command = {const_cast<char *>(shell != nullptr && *shell != '\0' ? shell : "/bin/sh"),
                 const_cast<char *>("-c"), const_cast<char *>(line)};
}

// -w SECONDS: fractions allowed, 0 to 1e9.
std::optional<int> parseTimeout(const Voice &v, const char *text, Request &req) {
  char *end = nullptr;
  errno = 0;
  const long double s = *text != '\0' ? std::strtold(text, &end) : -1;
  if (errno != 0 || end == text || (end != nullptr && *end != '\0') || !(s >= 0) || s > 1e9) {
    v.warnx("invalid timeout value: '%s'", text);
    return kExitUsage;
  }
  req.timeout = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<long double>(s));
  req.timeoutText = text;
  return std::nullopt;
}

// -E N: an integer, then 0 to 255.
std::optional<int> parseExitCode(const Voice &v, const char *text, Request &req) {
  char *end = nullptr;
  errno = 0;
  const long n = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || n < INT32_MIN || n > INT32_MAX) {
    v.warnx("invalid exit code: '%s'", text);
    return kExitUsage;
  }
  if (n < 0 || n > 255) {
    v.warnx("exit code out of range (expected 0 to 255)");
    return kExitUsage;
  }
  req.conflictExit = static_cast<int>(n);
  return std::nullopt;
}

// --start OFFSET or --length N (a byte count); either implies --fcntl. The
// misspelt message is util-linux's own.
std::optional<int> parseRange(const Voice &v, const char *text, bool start, Request &req) {
  const std::optional<off_t> n = parseSize(text);
  if (!n) {
    v.warnx("%s: '%s'", start ? "invalid as start offset" : "invalid as lenght of lock range",
            text);
    return kExitUsage;
  }
  (start ? req.start : req.length) = *n;
  req.api = Api::ofd;
  return std::nullopt;
}

// The operands after the options: with --fd, COMMAND (or -c's line); else
// FILE with -c LINE, FILE COMMAND..., FILE -c LINE, or a descriptor number.
std::optional<int> parseOperands(int argc, char **argv, const Voice &v, bool fdOption,
                                 Request &req) {
  if (fdOption) {
    // --fd FD [COMMAND...]: the descriptor, then what runs while it is locked.
    if (req.shellLine != nullptr && optind < argc) {
      v.warnx("--command cannot be given with a command");
      return kExitUsage;
    }
    if (req.shellLine != nullptr)
      shellCommand(req, req.shellLine);
    else
      req.command.assign(argv + optind, argv + argc);
  } else if (req.shellLine != nullptr && argc == optind + 1) {
    req.file = argv[optind];
    shellCommand(req, req.shellLine);
  } else if (argc > optind + 1) {
    req.file = argv[optind];
    const char *next = argv[optind + 1];
    if (std::strcmp(next, "-c") == 0 || std::strcmp(next, "--command") == 0) {
      if (argc != optind + 3) {
        v.warnx("%s requires exactly one command argument", next);
        return kExitUsage;
      }
      shellCommand(req, argv[optind + 2]);
    } else {
      req.command.assign(argv + optind + 1, argv + argc);
    }
  } else if (optind < argc) {
    if (std::optional<int> bad = parseDescriptor(v, argv[optind], req.fd)) return bad;
  } else {
    v.warnx("requires file descriptor, file or directory");
    return kExitUsage;
  }
  return std::nullopt;
}

// Parses the command line into req; returns an exit code when there is
// nothing more to do (help, version, a usage error).
std::optional<int> parse(int argc, char **argv, const Voice &v, Request &req) {
  enum { kVerbose = 256, kFcntl, kStart, kLength, kFd };
  static const option longOptions[] = {
      {"shared", no_argument, nullptr, 's'},
      {"exclusive", no_argument, nullptr, 'x'},
      {"unlock", no_argument, nullptr, 'u'},
      {"nonblocking", no_argument, nullptr, 'n'},
      {"nb", no_argument, nullptr, 'n'},
      {"timeout", required_argument, nullptr, 'w'},
      {"wait", required_argument, nullptr, 'w'},
      {"conflict-exit-code", required_argument, nullptr, 'E'},
      {"close", no_argument, nullptr, 'o'},
      {"no-fork", no_argument, nullptr, 'F'},
      {"command", required_argument, nullptr, 'c'},
      {"fd", required_argument, nullptr, kFd},
      {"verbose", no_argument, nullptr, kVerbose},
      {"fcntl", no_argument, nullptr, kFcntl},
      {"start", required_argument, nullptr, kStart},
      {"length", required_argument, nullptr, kLength},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  if (argc < 2) {
    v.warnx("not enough arguments");
    return v.tryHelp();
  }
  bool fdOption = false;
  optind = 0;  // a fresh scan
  for (int opt; (opt = getopt_long(argc, argv, "+sexnoFuw:E:c:hV?", longOptions, nullptr)) != -1;) {
    switch (opt) {
      case 's':
        req.mode = Mode::shared;
        break;
      case 'e':
      case 'x':
        req.mode = Mode::exclusive;
        break;
      case 'u':
        req.mode = Mode::unlock;
        break;
      case 'o':
        req.closeFd = true;
        break;
      case 'F':
        req.noFork = true;
        break;
      case 'n':
        req.nonblock = true;
        break;
      case 'c':
        req.shellLine = optarg;
        break;
      case 'w':
        if (std::optional<int> bad = parseTimeout(v, optarg, req)) return bad;
        break;
      case 'E':
        if (std::optional<int> bad = parseExitCode(v, optarg, req)) return bad;
        break;
      case kFd:
        if (std::optional<int> bad = parseDescriptor(v, optarg, req.fd)) return bad;
        fdOption = true;
        break;
      case kVerbose:
        req.verbose = true;
        break;
      case kFcntl:
        req.api = Api::ofd;
        break;
      case kStart:
      case kLength:
        if (std::optional<int> bad = parseRange(v, optarg, opt == kStart, req)) return bad;
        break;
      case 'V':
        std::printf("%s\n", versionLine(v.name).c_str());
        return kExitOk;
      case 'h':
        if (v.flock)
          flockUsage(v.name.c_str());
        else
          runUsage();
        return kExitOk;
      default:
        return v.tryHelp();
    }
  }
  if (req.noFork && req.closeFd) {
    v.warnx("the --no-fork and --close options are incompatible");
    return kExitUsage;
  }
  if (std::optional<int> bad = parseOperands(argc, argv, v, fdOption, req)) return bad;
  if (!req.command.empty()) req.command.push_back(nullptr);
  return std::nullopt;
}

// Descriptors 0 to 2 that are closed get /dev/null, close-on-exec, for the
// time qmlock runs: the lock file can then never become COMMAND's standard
// input or output, and COMMAND still finds them closed.
void coverStandardDescriptors() {
  for (int want = 0; want < 3; ++want) {
    if (fcntl(want, F_GETFD) != -1 || errno != EBADF) continue;
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd >= 0 && fd != want) close(fd);
  }
}

// ---- the locks ----------------------------------------------------------------------

// One lock call of one kind on fd: 0 when granted, else its errno. An
// exclusive record lock on a descriptor open only for reading is a read
// lock (readOnlyRecord): the kernel refuses a write lock there.
int lockOnce(int fd, Api kind, Mode m, bool block, const Request &req, bool readOnlyRecord) {
  if (kind == Api::flock) {
    const int op = m == Mode::shared ? LOCK_SH : m == Mode::exclusive ? LOCK_EX : LOCK_UN;
    return flock(fd, op | (block ? 0 : LOCK_NB)) == 0 ? 0 : errno;
  }
  struct flock fl {};
  fl.l_type = m == Mode::unlock ? F_UNLCK : m == Mode::shared || readOnlyRecord ? F_RDLCK : F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = req.start;
  fl.l_len = req.length;
  return fcntl(fd, block ? F_OFD_SETLKW : F_OFD_SETLK, &fl) == 0 ? 0 : errno;
}

bool isConflict(int e) {
  return e == EWOULDBLOCK || e == EAGAIN || e == EACCES;
}

// The timer of --wait: its signal interrupts the blocking lock call. It
// repeats every 10 ms once due, so that a signal that comes just before the
// call blocks cannot be lost. Gone (and SIGALRM's disposition restored, for
// COMMAND) when the object goes.
class WaitTimer {
 public:
  explicit WaitTimer(std::optional<Clock::duration> timeout) {
    if (!timeout) return;
    deadline_ = Clock::now() + *timeout;
    struct sigaction sa {};
    sa.sa_handler = [](int) {};  // no SA_RESTART: the lock call returns EINTR
    sigemptyset(&sa.sa_mask);
    sigaction(SIGALRM, &sa, &previous_);
    sigevent ev{};
    ev.sigev_notify = SIGEV_SIGNAL;
    ev.sigev_signo = SIGALRM;
    if (timer_create(CLOCK_MONOTONIC, &ev, &timer_) != 0) return;
    created_ = true;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(*timeout).count();
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
    when.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
    when.it_interval.tv_nsec = 10000000;
    ok_ = timer_settime(timer_, 0, &when, nullptr) == 0;
  }
  ~WaitTimer() {
    if (created_) timer_delete(timer_);
    if (deadline_) sigaction(SIGALRM, &previous_, nullptr);
  }
  WaitTimer(const WaitTimer &) = delete;
  WaitTimer &operator=(const WaitTimer &) = delete;

  bool failed() const { return deadline_ && !ok_; }
  bool expired() const { return deadline_ && Clock::now() >= *deadline_; }

 private:
  std::optional<Clock::time_point> deadline_;
  struct sigaction previous_ {};
  timer_t timer_{};
  bool created_ = false, ok_ = false;
};

enum class Got { granted, conflict, timeout, error };
struct Outcome {
  Got got = Got::granted;
  int error = 0;  // errno, for Got::error
};

// Takes req's lock(s) on fd, waiting as req says.
Outcome acquire(int fd, const Request &req, const WaitTimer &timer) {
  int flags = fcntl(fd, F_GETFL);
  const bool readOnlyRecord =
      req.api == Api::both && flags != -1 && (flags & O_ACCMODE) == O_RDONLY;
  const bool block = !req.nonblock;
  Api first = req.api == Api::both ? Api::ofd : req.api;
  for (;;) {
    const int e = lockOnce(fd, first, req.mode, block, req, readOnlyRecord);
    if (e == EINTR) {
      if (timer.expired()) return {Got::timeout};
      continue;
    }
    if (e != 0) return isConflict(e) ? Outcome{Got::conflict} : Outcome{Got::error, e};
    if (req.api != Api::both) return {};
    const Api second = first == Api::ofd ? Api::flock : Api::ofd;
    const int e2 = lockOnce(fd, second, req.mode, false, req, readOnlyRecord);
    if (e2 == 0) return {};
    // Never one without the other: give the first back, then wait for the
    // second, which is the one held elsewhere.
    (void)lockOnce(fd, first, Mode::unlock, false, req, readOnlyRecord);
    if (!isConflict(e2)) return {Got::error, e2};
    if (!block) return {Got::conflict};
    if (timer.expired()) return {Got::timeout};
    first = second;
  }
}

// What a conflict on fd is with: the kinds the lock request excludes.
WantedLock wantedOf(const Request &req) {
  WantedLock w;
  w.flock = req.api != Api::ofd;
  w.record = req.api != Api::flock;
  w.write = req.mode == Mode::exclusive;
  w.start = req.start;
  w.end = req.length == 0 ? -1 : req.start + req.length - 1;
  return w;
}

// ---- the command --------------------------------------------------------------

int statusOf(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return kExitOsErr;
}

// Runs COMMAND as a child, with the lock's descriptor (unless --close), and
// waits for it: its exit status, or 128+N when it died of signal N.
int spawnAndWait(const Voice &v, const Request &req, int lockFd) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (req.closeFd && lockFd >= 0) posix_spawn_file_actions_addclose(&actions, lockFd);
  pid_t child = -1;
  const int err =
      posix_spawnp(&child, req.command[0], &actions, nullptr, req.command.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) {
    v.warn(err, "failed to execute %s", req.command[0]);
    return err == ENOMEM ? kExitOsErr : kExitUnavailable;
  }
  int wstatus = 0;
  pid_t w;
  while ((w = waitpid(child, &wstatus, 0)) == -1 && errno == EINTR) {
  }
  if (w == -1) {
    v.warn(errno, "waitpid failed");
    return EXIT_FAILURE;
  }
  return statusOf(wstatus);
}

// Replaces qmlock by COMMAND, which keeps the lock's descriptor open.
int execInPlace(const Voice &v, const Request &req) {
  std::fflush(stdout);
  execvp(req.command[0], req.command.data());
  const int err = errno;
  v.warn(err, "failed to execute %s", req.command[0]);
  return err == ENOMEM ? kExitOsErr : kExitUnavailable;
}

int runCommand(const Voice &v, const Request &req, int lockFd) {
  if (req.command.empty()) return kExitOk;
  signal(SIGCHLD, SIG_DFL);  // an inherited SIG_IGN would reap COMMAND for us
  if (req.verbose) {
    std::printf("%s: executing %s\n", v.name.c_str(), req.command[0]);
    std::fflush(stdout);
  }
  return req.noFork ? execInPlace(v, req) : spawnAndWait(v, req, lockFd);
}

// ---- messages -------------------------------------------------------------------

const char *how(Mode m) {
  return m == Mode::shared ? "shared" : "exclusively";
}

std::string descriptorName(int fd) {
  std::string out = "descriptor " + std::to_string(fd);
  char target[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  if (n > 0) out += " (" + std::string(target, static_cast<size_t>(n)) + ")";
  return out;
}

// The one line a conflict or timeout prints (under flock's name: only with
// --verbose, and flock's own words).
int conflictExit(const Voice &v, const Request &req, int fd, Got got) {
  if (v.flock) {
    if (req.verbose)
      v.warnx(got == Got::conflict ? "failed to get lock" : "timeout while waiting to get lock");
    return req.conflictExit;
  }
  const std::string what = req.file != nullptr ? req.file : descriptorName(fd);
  const std::string holder = conflictingHolders(fd, wantedOf(req));
  if (got == Got::conflict)
    v.warnx("cannot lock %s %s: %s", what.c_str(), how(req.mode), holder.c_str());
  else
    v.warnx("cannot lock %s %s within %s seconds: %s", what.c_str(), how(req.mode), req.timeoutText,
            holder.c_str());
  return req.conflictExit;
}

// FILE could not be opened (errno e): flock(1)'s message and exit code.
int openFailure(const Voice &v, const Request &req, int e) {
  v.warn(e, "cannot open lock file %s", req.file);
  return e == ENOMEM || e == EMFILE || e == ENFILE ? kExitOsErr
         : e == EROFS || e == ENOSPC               ? kExitCantCreat
                                                   : kExitNoInput;
}

// Opens FILE as flock(1) does: with flags (O_RDONLY, O_WRONLY or O_RDWR),
// created with mode 0666 less the umask; a directory read-only. Not
// close-on-exec: COMMAND inherits it. -1 with errno on failure.
int openLockFile(const char *file, int &flags) {
  int fd = open(file, flags | O_NOCTTY | O_CREAT, 0666);
  if (fd < 0 && errno == EISDIR) {
    flags = O_RDONLY;
    fd = open(file, O_RDONLY | O_NOCTTY);
  }
  return fd;
}

// How qmlock run opens FILE: for an exclusive lock read-write, so that the
// record lock can be a write lock, except what must stay read-only: a file
// with an execute bit (exec fails with "Text file busy" on a file open for
// writing, and COMMAND may be FILE itself: the self-locking script), one
// that cannot be written, or a directory.
int openForRun(const char *file, Mode m, int &flags) {
  struct stat st {};
  const bool exists = stat(file, &st) == 0;
  const bool readOnly = m != Mode::exclusive || (exists && S_ISDIR(st.st_mode)) ||
                        (exists && (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0);
  flags = readOnly ? O_RDONLY : O_RDWR;
  int fd = openLockFile(file, flags);
  if (fd < 0 && flags == O_RDWR && (errno == EACCES || errno == EROFS || errno == ETXTBSY)) {
    const int first = errno;
    flags = O_RDONLY;
    fd = openLockFile(file, flags);
    if (fd < 0) errno = first;
  }
  return fd;
}

void reportTime(const Voice &v, const Request &req, Clock::time_point start) {
  if (!req.verbose) return;
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
  std::printf("%s: getting lock took %lld.%06lld seconds\n", v.name.c_str(),
              static_cast<long long>(us.count() / 1000000),
              static_cast<long long>(us.count() % 1000000));
}

// Locks (or unlocks) the descriptor, by name or opened from FILE, then runs
// COMMAND if there is one.
int lockAndRun(const Voice &v, Request req) {
  int fd = req.fd, flags = 0;
  if (req.file != nullptr) {
    if (v.flock) {
      // flock(1) opens read-only, except for an exclusive OFD lock, which
      // the kernel grants only on a descriptor open for writing.
      flags = req.api == Api::ofd && req.mode == Mode::exclusive ? O_WRONLY : O_RDONLY;
      fd = openLockFile(req.file, flags);
    } else {
      fd = openForRun(req.file, req.mode, flags);
    }
    if (fd < 0) return openFailure(v, req, errno);
  }
  if (req.timeout && *req.timeout == Clock::duration::zero()) {
    req.timeout.reset();
    req.nonblock = true;
  }
  const Clock::time_point start = Clock::now();
  Outcome out;
  {
    const WaitTimer timer(req.timeout);
    if (timer.failed()) {
      v.warn(errno, "cannot set up timer");
      return kExitOsErr;
    }
    for (;;) {
      out = acquire(fd, req, timer);
      // flock(2) emulated with record locks (NFS) needs a descriptor open
      // for writing for an exclusive lock: reopen FILE read-write, as
      // flock(1) does, when that is allowed.
      if (out.got == Got::error && (out.error == EBADF || out.error == EIO) &&
          req.file != nullptr && (flags & O_ACCMODE) != O_RDWR && req.mode != Mode::shared &&
          access(req.file, R_OK | W_OK) == 0) {
        close(fd);
        flags = O_RDWR;
        fd = openLockFile(req.file, flags);
        if (fd < 0) return openFailure(v, req, errno);
        if ((flags & O_ACCMODE) == O_RDWR) continue;
      }
      break;
    }
  }
  if (out.got == Got::conflict || out.got == Got::timeout) return conflictExit(v, req, fd, out.got);
  if (out.got == Got::error) {
    if (req.file != nullptr)
      v.warn(out.error, "%s", req.file);
    else
      v.warn(out.error, "%d", fd);
    return out.error == ENOLCK || out.error == ENOMEM ? kExitOsErr : kExitDataErr;
  }
  reportTime(v, req, start);
  return runCommand(v, req, fd);
}

}  // namespace

int runMain(int argc, char **argv, const char *flockName) {
  Voice v;
  v.flock = flockName != nullptr;
  v.name = v.flock ? flockName : "qmlock";
  v.usageName = v.flock ? flockName : "qmlock run";
  // getopt's own messages begin with argv[0]: flock's as invoked, or "qmlock run".
  std::vector<char *> args(argv, argv + argc);
  std::string runName = "qmlock run";
  if (!v.flock && !args.empty()) args[0] = runName.data();
  args.push_back(nullptr);

  Request req;
  if (v.flock) req.api = Api::flock;
  if (std::optional<int> done = parse(argc, args.data(), v, req)) return *done;
  coverStandardDescriptors();
  return lockAndRun(v, req);
}

}  // namespace qmlock
