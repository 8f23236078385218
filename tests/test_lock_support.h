// test_lock_support.h - helpers of the locking suites: lock-type shorthands,
// a node's counters, other processes that hold or probe record locks, and
// the footprint left once dead nodes are gone.
#ifndef TEST_LOCK_SUPPORT_H
#define TEST_LOCK_SUPPORT_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "qmtest_fixture.h"
#include "qmtest_sys.h"

namespace locktest {

using namespace qmtest;

constexpr QMMemSize X = QMELM_INT_EXCLUSIVE, NX = QMELM_INT_NONEXCLUSIVE, EX = QMELM_EXT_EXCLUSIVE,
                    ENX = QMELM_EXT_NONEXCLUSIVE, NOI = QMELM_NOINTERNAL_LOCK,
                    NOE = QMELM_NOEXTERNAL_LOCK, SH = QMELM_SHARED;

inline XVELMFileLock &nodeOf(QMELMLHndlp h) {
  return *reinterpret_cast<XVELMFileLock *>(h->Private.ResLock);
}
inline XVELMFileHandle &fileOf(QMELMLHndlp h) {
  return *static_cast<XVELMFileHandle *>(h->Public.ResourceHandle);
}

// Internal: exclusive, non-exclusive, non-shared non-exclusive, none; external:
// exclusive, non-exclusive, none.
inline std::vector<QMMemSize> counts(QMELMLHndlp h) {
  const QMELMResLock &n = nodeOf(h).CommonLock;
  return {n.int_exclusive,   n.int_nonexclusive, n.int_nonshared_nonexclusive,
          n.nointernal_lock, n.ext_exclusive,    n.ext_nonexclusive,
          n.noexternal_lock};
}

// The pieces of a file-lock failure message headed by `head`.
inline std::vector<QMStatus> fileLockMessage(QMStatus head) {
  return {head, QMELM_M_INT_LOCK_CONFLICT, QMELM_M_TRAILER, QMELM_M_ERRNO};
}

// LockGet with exactly the journal given (null included).
inline QMELMLHndlp get(TestHost &host, LockRequest &r, QMMemSize type, int *rc, QMJnlh j) {
  return host.fn().LockGet(host.ext, r.get(), QMELM_RESOURCE_FILE, type, j, rc);
}

// Pool blocks and host mutexes once a lock and release of `other` destroyed
// every dead node and a reset freed their I/O records.
inline std::pair<size_t, size_t> footprint(TestHost &host, const std::string &other) {
  LockRequest r(other);
  int rc = 0;
  if (QMELMLHndlp h = get(host, r, NX | NOE, &rc, nullptr))
    host.fn().LockRelease(h, nullptr, nullptr);
  QMELMResetIOInfoParms rp{};
  host.fn().ResetIOInfo(host.ext, &rp, nullptr);
  return {host.stats().pool_blocks, host.stats().mutexes};
}

// Creates path (empty) when it does not exist.
inline void touch(const std::string &path) {
  close(open(path.c_str(), O_CREAT | O_RDWR, 0644));
}

// I/O increments that identify a record: bytesRead n (a power of two each),
// bytesWritten 2n, one read, write and seek.
inline QMELMIOStats ioIncrement(QMIOSize n) {
  QMELMIOStats s{};
  s.bytesRead = n;
  s.bytesWritten = 2 * n;
  s.reads = s.writes = s.seeks = 1;
  return s;
}

// ResetIOInfo of every record.
inline int resetIO(TestHost &host) {
  QMELMResetIOInfoParms p{};
  return host.fn().ResetIOInfo(host.ext, &p, nullptr);
}

// Another process holding a record lock on path until this object goes: this
// library in a forked child (the parent is single-threaded here), or with
// type 0 an independent Python client. Returns once the child said "locked".
class Holder {
 public:
  explicit Holder(const std::string &path, QMMemSize type = 0) {
    int p[2];
    if (pipe(p) != 0 || (pid = fork()) < 0) return;
    if (pid == 0) {
      if (type == 0) {
        dup2(p[1], 1);
        execlp("python3", "python3", "-c",
               "import fcntl,os,sys,time; f=open(sys.argv[1],\"r+\"); fcntl.lockf(f, "
               "fcntl.LOCK_EX); print(\"locked\",flush=True); time.sleep(30)",
               path.c_str(), static_cast<char *>(nullptr));
        _exit(127);
      }
      TestHost h;
      LockRequest r(path, O_RDWR);
      int rc = 0;
      const std::string msg = h.lock(r, type, &rc) != nullptr ? "locked\n" : "failed\n";
      (void)!write(p[1], msg.data(), msg.size());
      pause();
      _exit(0);
    }
    close(p[1]);
    for (char c; read(p[0], &c, 1) == 1 && c != '\n';) line += c;
    close(p[0]);
  }
  ~Holder() {
    if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
  std::string line;
};

// Whether another process can take a record lock of l_type on path now.
inline bool otherProcessCanLock(const std::string &path, short type) {
  pid_t pid = fork();
  if (pid == 0) {
    struct flock fl {};
    fl.l_type = type;
    int fd = open(path.c_str(), O_RDWR);
    _exit(fd >= 0 && fcntl(fd, F_SETLK, &fl) == 0 ? 0 : 1);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) && WEXITSTATUS(st) == 0;
}

}  // namespace locktest

#endif  // TEST_LOCK_SUPPORT_H
