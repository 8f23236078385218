// locktable.h - the machine's file locks as the kernel shows them, with the
// processes that hold them: /proc/locks lists every lock (flock(2), POSIX
// record locks, open-file-description locks), and /proc/PID/fdinfo shows
// which descriptors carry each one, which is the only way to find who holds
// an open-file-description lock (/proc/locks gives it no process ID). Used
// by probe, locks, and run's conflict line.
#ifndef QMLOCK_LOCKTABLE_H
#define QMLOCK_LOCKTABLE_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace qmlock {

enum class LockKind { flock, posix, ofd };

// One lock as held by one process: a lock that several processes share
// (an open file description inherited by a child) gives one row each.
struct LockRow {
  LockKind kind = LockKind::posix;
  bool write = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t start = 0;
  off_t end = -1;       // the last byte; -1 for "to the end of the file"
  pid_t pid = 0;        // the holder; 0 when no holder could be found
  int fd = -1;          // the holder's descriptor that carries it; -1 unknown
  std::string command;  // the holder's /proc/PID/comm
  std::string path;     // what the descriptor names; empty when unknown
};

// What to list: the locks on one file, the locks of one process, or all.
struct LockQuery {
  std::optional<std::pair<dev_t, ino_t>> file;
  pid_t pid = 0;  // 0: any
};

// The locks the query selects, in /proc/locks order. A lock whose holder
// cannot be found through /proc (another user's process, without the right
// to read its descriptors) keeps the process ID /proc/locks gives (0 for an
// open-file-description lock).
std::vector<LockRow> kernelLocks(const LockQuery &q);

// "flock", "POSIX", "OFD": the kinds as the tool names them.
const char *kindName(LockKind k);
// "FLOCK", "POSIX", "OFDLCK": the kinds as /proc/locks names them.
const char *kernelKindName(LockKind k);

// The network or cluster file system that holds fd's file and arbitrates its
// locks on a server ("NFS", "CIFS", "Ceph", "GlusterFS", ...), or empty for
// a local one. There a lock's holder may be a process on another machine,
// which /proc/locks does not show.
std::string remoteFileSystem(int fd);

// The PID F_GETLK reports for a holder of fd's file over [start, start+len)
// (ofdPid when it reports none): on a file system whose server arbitrates
// locks, the holder's PID as the server has it.
pid_t serverNamedPid(int fd, short type, off_t start, off_t len, pid_t ofdPid);

// s as a JSON string, quoted, for probe --json and locks --json.
std::string jsonString(const std::string &s);

// Whether two byte ranges (end -1: to the end of the file) overlap.
bool rangesOverlap(off_t aStart, off_t aEnd, off_t bStart, off_t bEnd);

// "process 123 (flock) holds a flock write lock", "... an OFD read lock on
// bytes 1 to 2", "a holder that no process shows holds ..." for a row whose
// holder was not found.
std::string describeRow(const LockRow &r);

// A lock that could be wanted on an open descriptor: of which kinds it
// conflicts with, write or read, on which bytes.
struct WantedLock {
  bool flock = true;   // conflicts with flock(2) locks
  bool record = true;  // conflicts with POSIX and OFD record locks
  bool write = true;
  off_t start = 0;
  off_t end = -1;
};

// Who holds what keeps `want` from being granted on fd's file, one
// description of each conflicting lock joined with "; ": the processes
// that /proc shows, or else, when the file lives on a file system that
// arbitrates locks on a server, the holder the server names (a process on
// another machine, with its PID there). Locks carried by fd itself in this
// process are not conflicts. "its holder went away ..." when none is found.
std::string conflictingHolders(int fd, const WantedLock &want);

}  // namespace qmlock

#endif  // QMLOCK_LOCKTABLE_H
