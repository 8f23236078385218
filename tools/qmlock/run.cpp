// run.cpp - qmlock run, which is flock(1)'s command line on the lock
// manager's record locks, and flock(1) itself when invoked under that name.
//
// FILE|DIR COMMAND: the file is locked through the lock manager and held by
// qmlock while COMMAND runs as its child; SIGINT, SIGTERM and SIGHUP sent to
// qmlock are passed on to COMMAND. With --no-fork qmlock execs COMMAND, and
// the descriptor it keeps open carries the lock. COMMAND inherits no
// descriptor of ours but the lock's (none with --close).
// FD: the caller's open descriptor gets an open-file-description lock
// (F_OFD_SETLK), which belongs to that descriptor and so outlives qmlock.
// The lock manager never waits: --wait retries with a back-off that starts
// at 1 ms and grows to 2 ms, so a waiter sees a release within milliseconds.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qmlock.h"

namespace qmlock {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

enum class Mode { exclusive, shared, unlock };

// What the command line asks for.
struct Request {
  Mode mode = Mode::exclusive;
  bool nonblock = false;
  std::optional<Clock::duration> timeout;  // --wait; zero means --nonblock
  const char *timeoutText = nullptr;       // as given, for messages
  int conflictExit = 1;
  bool closeFd = false, noFork = false, verbose = false;
  const char *file = nullptr;   // the FILE|DIR form
  int fd = -1;                  // the FD form
  std::vector<char *> command;  // COMMAND's argv, null-terminated; empty: none
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
      "\n"
      "Holds a lock on FILE or DIR (created when missing) while COMMAND runs, or\n"
      "locks the open descriptor FD until it is closed or unlocked. Locks are POSIX\n"
      "record locks on the whole file, taken through the QM lock manager; FD gets an\n"
      "open-file-description lock, which outlives qmlock.\n"
      "\n"
      "  -x, -e, --exclusive   an exclusive (write) lock (default); FILE is opened\n"
      "                        for writing, so a directory can only be locked -s\n"
      "  -s, --shared          a shared (read) lock\n"
      "  -u, --unlock          give FD's lock back (with FILE: take no lock)\n"
      "  -n, --nb, --nonblock  fail at once when the lock is held\n"
      "  -w, --wait, --timeout SECONDS\n"
      "                        fail when not locked within SECONDS (fractions\n"
      "                        allowed; 0 is --nonblock); without -n or -w, wait\n"
      "  -E, --conflict-exit-code N\n"
      "                        exit status after a conflict or timeout (default 1)\n"
      "  -o, --close           COMMAND does not inherit the lock's descriptor\n"
      "  -F, --no-fork         exec COMMAND in place; its inherited descriptor\n"
      "                        keeps the lock until COMMAND ends\n"
      "  -c, --command LINE    run LINE with $SHELL -c (default /bin/sh)\n"
      "      --verbose         say how long locking took and what is executed\n"
      "      --fcntl           accepted: the locks always are record locks\n"
      "  -h, --help, -V, --version\n"
      "\n"
      "Exit status: COMMAND's own, 128+N when it dies of signal N, or 0 for FD;\n"
      "the conflict code (-E, default 1) when the lock is held (one line on standard\n"
      "error names the holder's PID and command); 64 usage, 65 the lock call failed,\n"
      "66 or 73 the file cannot be opened or created, 69 COMMAND cannot be executed,\n"
      "71 out of memory, descriptors or locks, 78 the lock manager cannot be loaded.\n");
}

// Parses the command line into req; returns an exit code when there is
// nothing more to do (help, version, a usage error).
std::optional<int> parse(int argc, char **argv, const Voice &v, Request &req) {
  enum { kVerbose = 256, kFcntl, kStart, kLength };
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
  optind = 0;  // a fresh scan
  for (int opt; (opt = getopt_long(argc, argv, "+sexnoFuw:E:hV?", longOptions, nullptr)) != -1;) {
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
      case 'w': {
        char *end = nullptr;
        errno = 0;
        const long double s = *optarg != '\0' ? std::strtold(optarg, &end) : -1;
        if (errno != 0 || end == optarg || (end != nullptr && *end != '\0') || !(s >= 0) ||
            s > 1e9) {
          v.warnx("invalid timeout value: '%s'", optarg);
          return kExitUsage;
        }
        req.timeout =
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<long double>(s));
        req.timeoutText = optarg;
        break;
      }
      case 'E': {
        char *end = nullptr;
        errno = 0;
        const long n = std::strtol(optarg, &end, 10);
        if (errno != 0 || end == optarg || *end != '\0' || n < INT32_MIN || n > INT32_MAX) {
          v.warnx("invalid exit code: '%s'", optarg);
          return kExitUsage;
        }
        if (n < 0 || n > 255) {
          v.warnx("exit code out of range (expected 0 to 255)");
          return kExitUsage;
        }
        req.conflictExit = static_cast<int>(n);
        break;
      }
      case kVerbose:
        req.verbose = true;
        break;
      case kFcntl:
        break;  // every lock here is a record lock
      case kStart:
      case kLength:
        v.warnx(
            "byte ranges (--start, --length) are not supported: the lock manager locks "
            "whole files");
        return kExitUsage;
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
  if (argc > optind + 1) {
    req.file = argv[optind];
    const char *next = argv[optind + 1];
    if (std::strcmp(next, "-c") == 0 || std::strcmp(next, "--command") == 0) {
      if (argc != optind + 3) {
        v.warnx("%s requires exactly one command argument", next);
        return kExitUsage;
      }
      const char *shell = std::getenv("SHELL");
      req.command = {const_cast<char *>(shell != nullptr && *shell != '\0' ? shell : "/bin/sh"),
                     const_cast<char *>("-c"), argv[optind + 2]};
    } else {
      req.command.assign(argv + optind + 1, argv + argc);
    }
    req.command.push_back(nullptr);
  } else if (optind < argc) {
    char *end = nullptr;
    errno = 0;
    const long n = std::strtol(argv[optind], &end, 10);
    if (errno != 0 || end == argv[optind] || *end != '\0' || n < INT32_MIN || n > INT32_MAX) {
      v.warnx("bad file descriptor: '%s'", argv[optind]);
      return kExitUsage;
    }
    req.fd = static_cast<int>(n);
  } else {
    v.warnx("requires file descriptor, file or directory");
    return kExitUsage;
  }
  if (req.timeout && *req.timeout == Clock::duration::zero()) {
    req.timeout.reset();
    req.nonblock = true;
  }
  return std::nullopt;
}

// Descriptors 0 to 2 that are closed get /dev/null, close-on-exec, for the
// time qmlock runs: no descriptor the lock manager opens can then become
// COMMAND's standard input or output, and COMMAND still finds them closed.
void coverStandardDescriptors() {
  for (int want = 0; want < 3; ++want) {
    if (fcntl(want, F_GETFD) != -1 || errno != EBADF) continue;
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd >= 0 && fd != want) close(fd);
  }
}

// ---- waiting ------------------------------------------------------------------

// Calls attempt until it succeeds, fails otherwise than by a conflict, or the
// deadline passes: at once with --nonblock, never without --wait. Between
// tries it sleeps 1 ms, then half as long again each time up to 2 ms.
template <class Attempt>
auto retry(const Request &req, Attempt attempt) {
  const Clock::time_point deadline =
      req.timeout ? Clock::now() + *req.timeout : Clock::time_point::max();
  Clock::duration pause = 1ms;
  for (;;) {
    auto out = attempt();
    if (!out.conflict() || req.nonblock) return out;
    const Clock::time_point now = Clock::now();
    if (now >= deadline) return out;
    std::this_thread::sleep_for(std::min(pause, deadline - now));
    pause = std::min<Clock::duration>(pause * 3 / 2, 2ms);
  }
}

// One try at FILE's lock through the lock manager.
struct FileAttempt {
  elm::Outcome<elm::FileLock> got;
  bool conflict() const { return got.result.conflict(); }
};

FileAttempt lockFile(elm::LockManager &lm, const Request &req) {
  const elm::LockType type =
      req.mode == Mode::shared ? elm::LockType::nonexclusive : elm::LockType::exclusive;
  // A write lock needs the file open for writing. flock(1) creates the file
  // with mode 0666 less the umask; a directory can only be opened to read.
  elm::LockOptions o;
  o.open_flags = (req.mode == Mode::shared ? O_RDONLY : O_WRONLY) | O_CREAT | O_NOCTTY;
  o.mode = 0666;
  FileAttempt a{lm.lock(req.file, type, o)};
  if (!a.got.result && a.got.result.error() == EISDIR) {
    o.open_flags = O_RDONLY | O_NOCTTY;
    a.got = lm.lock(req.file, type, o);
  }
  return a;
}

// One try at the lock of the caller's descriptor.
struct FdAttempt {
  int error = 0;  // errno of F_OFD_SETLK; 0: locked
  int holderPid = 0;
  short holderType = F_UNLCK;
  bool conflict() const { return error == EAGAIN || error == EACCES; }
};

short lockTypeOf(Mode m) {
  return m == Mode::shared ? F_RDLCK : m == Mode::exclusive ? F_WRLCK : F_UNLCK;
}

FdAttempt lockFd(int fd, Mode m) {
  struct flock fl {};
  fl.l_type = lockTypeOf(m);
  fl.l_whence = SEEK_SET;
  if (fcntl(fd, F_OFD_SETLK, &fl) == 0) return {};
  FdAttempt a{errno};
  if (a.conflict()) {
    struct flock q {};  // F_OFD_GETLK wants l_pid 0
    q.l_type = lockTypeOf(m);
    q.l_whence = SEEK_SET;
    if (fcntl(fd, F_OFD_GETLK, &q) == 0 && q.l_type != F_UNLCK) {
      a.holderPid = q.l_pid;
      a.holderType = q.l_type;
    }
  }
  return a;
}

// ---- the command --------------------------------------------------------------

int statusOf(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return kExitOsErr;
}

// Runs COMMAND as a child and waits for it; its exit status, 128+N when it
// died of signal N. SIGINT, SIGTERM and SIGHUP sent to qmlock meanwhile are
// passed on to it. They are taken synchronously (blocked, and collected with
// SIGCHLD by sigwaitinfo), so no handler runs at an arbitrary moment, and
// qmlock stops passing them on before it reaps COMMAND: a signal can never
// reach a process that took COMMAND's process ID after it. They stay blocked
// until qmlock exits, so one that comes as COMMAND ends cannot replace its
// status. A signal qmlock's caller ignores is never generated for qmlock and
// stays ignored for COMMAND.
int spawnAndWait(const Voice &v, const Request &req, int lockFd) {
  sigset_t handled, previous;
  sigemptyset(&handled);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&handled, sig);
  sigprocmask(SIG_BLOCK, &handled, &previous);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (lockFd >= 0) {
    // The lock manager opened the descriptor close-on-exec; COMMAND inherits
    // it, as from flock(1), unless --close. The lock stays qmlock's: record
    // locks are the process's, and COMMAND closing it changes nothing.
    if (req.closeFd)
      posix_spawn_file_actions_addclose(&actions, lockFd);
    else
      fcntl(lockFd, F_SETFD, 0);
  }
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setsigmask(&attr, &previous);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  pid_t child = -1;
  const int err =
      posix_spawnp(&child, req.command[0], &actions, &attr, req.command.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) {
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    v.warn(err, "failed to execute %s", req.command[0]);
    return err == ENOMEM ? kExitOsErr : kExitUnavailable;
  }

  for (;;) {
    siginfo_t ended{};  // si_pid stays 0 while COMMAND runs
    const int rc = waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
    if ((rc == 0 && ended.si_pid == child) || (rc != 0 && errno != EINTR)) break;
    siginfo_t got{};
    const int sig = sigwaitinfo(&handled, &got);
    // A signal the kernel sent (SI_KERNEL: the terminal's ^C or hang-up)
    // went to the whole foreground process group, COMMAND included, and is
    // not sent twice.
    if (sig > 0 && sig != SIGCHLD && got.si_code != SI_KERNEL) kill(child, sig);
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

// Replaces qmlock by COMMAND; the lock's descriptor stays open across the
// exec and keeps the process's record lock until COMMAND closes it or ends.
int execInPlace(const Voice &v, const Request &req, int lockFd) {
  if (lockFd >= 0) fcntl(lockFd, F_SETFD, 0);
  std::fflush(stdout);
  execvp(req.command[0], req.command.data());
  const int err = errno;
  v.warn(err, "failed to execute %s", req.command[0]);
  return err == ENOMEM ? kExitOsErr : kExitUnavailable;
}

int runCommand(const Voice &v, const Request &req, int lockFd) {
  signal(SIGCHLD, SIG_DFL);  // an inherited SIG_IGN would reap COMMAND for us
  if (req.verbose) {
    std::printf("%s: executing %s\n", v.name.c_str(), req.command[0]);
    std::fflush(stdout);
  }
  return req.noFork ? execInPlace(v, req, lockFd) : spawnAndWait(v, req, lockFd);
}

// ---- messages -------------------------------------------------------------------

const char *how(Mode m) {
  return m == Mode::shared ? "shared" : "exclusively";
}

// The one line a conflict or timeout prints (under flock's name: only with
// --verbose, and flock's own words).
int conflictExit(const Voice &v, const Request &req, const std::string &what,
                 const std::string &holder) {
  if (v.flock) {
    if (req.verbose)
      v.warnx(req.nonblock ? "failed to get lock" : "timeout while waiting to get lock");
  } else if (req.nonblock) {
    v.warnx("cannot lock %s %s: %s", what.c_str(), how(req.mode), holder.c_str());
  } else {
    v.warnx("cannot lock %s %s within %s seconds: %s", what.c_str(), how(req.mode), req.timeoutText,
            holder.c_str());
  }
  return req.conflictExit;
}

// FILE could not be opened (errno e): flock(1)'s message and exit code.
int openFailure(const Voice &v, const Request &req, int e) {
  v.warn(e, "cannot open lock file %s", req.file);
  return e == ENOMEM || e == EMFILE || e == ENFILE ? kExitOsErr
         : e == EROFS || e == ENOSPC               ? kExitCantCreat
                                                   : kExitNoInput;
}

// A failure other than a conflict: flock(1)'s message and exit code.
int fileFailure(const Voice &v, const Request &req, const elm::Result &r) {
  const int e = r.error();
  switch (r.status()) {
    case QMELM_E_FILE_NOT_FOUND:
    case QMELM_E_PATH_NOT_FOUND:
    case QMELM_E_ACCESS_DENIED:
    case QMELM_E_TOO_MANY_FILES:
    case QMELM_E_OS_NO_MEMORY:
    case QMELM_E_OPEN_FAILED:
    case QMELM_E_FILE_EXISTS:
      return openFailure(v, req, e);
    case QMELM_E_EXT_LOCK_FAILED:
    case QMELM_E_EXT_LOCKED_EXCLUSIVE:
    case QMELM_E_EXT_LOCKED_SHARED:
      if (e == ETXTBSY) return openFailure(v, req, e);  // the open, not the lock, failed
      if (e != 0) {
        if (e == EBADF && !v.flock && req.mode == Mode::exclusive)
          v.warnx(
              "%s: an exclusive record lock needs the file open for writing, which a "
              "directory cannot be; lock it --shared",
              req.file);
        else
          v.warn(e, "%s", req.file);
        return e == ENOLCK || e == ENOMEM ? kExitOsErr : kExitDataErr;
      }
      break;
    default:
      break;
  }
  v.warnx("%s: %s", req.file, r.to_string().c_str());
  return r.status() == QMELM_E_NO_MEMORY || r.status() == QM_E_NO_MEMORY ? kExitOsErr
                                                                         : kExitSoftware;
}

std::string descriptorName(int fd) {
  std::string out = "descriptor " + std::to_string(fd);
  char target[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  if (n > 0) out += " (" + std::string(target, static_cast<size_t>(n)) + ")";
  return out;
}

void reportTime(const Voice &v, const Request &req, Clock::time_point start) {
  if (!req.verbose) return;
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
  std::printf("%s: getting lock took %lld.%06lld seconds\n", v.name.c_str(),
              static_cast<long long>(us.count() / 1000000),
              static_cast<long long>(us.count() % 1000000));
}

// The FD form: the descriptor's open-file-description lock.
int runFd(const Voice &v, const Request &req) {
  const Clock::time_point start = Clock::now();
  const FdAttempt a = req.mode == Mode::unlock
                          ? lockFd(req.fd, Mode::unlock)
                          : retry(req, [&] { return lockFd(req.fd, req.mode); });
  if (a.conflict()) {
    const std::string holder =
        a.holderPid == 0
            ? "its holder went away while it was being locked"
            : processDescription(a.holderPid) +
                  (a.holderType == F_WRLCK ? " holds a write lock" : " holds a read lock");
    return conflictExit(v, req, descriptorName(req.fd), holder);
  }
  if (a.error != 0) {
    if (a.error == EBADF && !v.flock && req.mode == Mode::exclusive && fcntl(req.fd, F_GETFD) != -1)
      v.warnx("%d: an exclusive record lock needs the descriptor open for writing", req.fd);
    else
      v.warn(a.error, "%d", req.fd);
    return a.error == ENOLCK || a.error == ENOMEM ? kExitOsErr : kExitDataErr;
  }
  reportTime(v, req, start);
  return kExitOk;
}

// FILE -u: flock(1) opens (and creates) the file and takes no lock.
int runUnlocked(const Voice &v, const Request &req) {
  int fd = open(req.file, O_RDONLY | O_NOCTTY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0 && errno == EISDIR) fd = open(req.file, O_RDONLY | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return openFailure(v, req, errno);
  close(fd);
  reportTime(v, req, Clock::now());
  return runCommand(v, req, -1);
}

// The FILE|DIR form: the lock manager's lock, held while COMMAND runs.
int runFile(const Voice &v, const Request &req) {
  elm::Host host;
  if (!host) {
    v.warnx("cannot create the host: out of memory");
    return kExitOsErr;
  }
  elm::LockManager lm(host);
  if (!lm) {
    v.warnx("cannot load the lock manager: %s", lm.status().to_string().c_str());
    return kExitConfig;
  }
  const Clock::time_point start = Clock::now();
  FileAttempt a = retry(req, [&] { return lockFile(lm, req); });
  if (a.conflict()) return conflictExit(v, req, req.file, holderDescription(a.got.result));
  if (!a.got.result) return fileFailure(v, req, a.got.result);
  reportTime(v, req, start);
  const int status = runCommand(v, req, a.got.value.fd());
  // COMMAND has ended: give the lock back, then leave without unloading the
  // lock manager and the host, which would take longer than all the rest of
  // qmlock's own work; the process's end frees what they hold.
  (void)a.got.value.release();
  std::fflush(stdout);
  std::fflush(stderr);
  _exit(status);
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
  if (std::optional<int> done = parse(argc, args.data(), v, req)) return *done;
  coverStandardDescriptors();
  if (req.file == nullptr) return runFd(v, req);
  if (req.mode == Mode::unlock) return runUnlocked(v, req);
  return runFile(v, req);
}

}  // namespace qmlock
