// Whether a refused lock's holder is a process on another machine: the file
// system's statfs magic, then the kernel's lock table read line by line
// through a stack buffer (no allocation: the refusal path may be the one
// that ran out of memory).
#include "locks/xvelmRemoteHolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace xvelm::detail {
namespace {

// File systems whose record locks a server (or a user-space daemon that may
// forward them to one) arbitrates.
constexpr unsigned long kRemoteMagics[] = {
    0x6969UL,      // NFS
    0xFF534D42UL,  // CIFS
    0xFE534D42UL,  // SMB2
    0x517BUL,      // SMB
    0x00C36400UL,  // Ceph
    0x65735546UL,  // FUSE (GlusterFS among others)
    0x5346414FUL,  // AFS
    0x0BD00BD0UL,  // Lustre
    0x7461636FUL,  // OCFS2
    0x01161970UL,  // GFS2
};

// One line of /proc/locks: "N: KIND ADVISORY MODE PID MAJ:MIN:INO START END";
// a waiter's line has "->" after the number and is not a holder.
bool lineShows(const char *line, unsigned maj, unsigned min, unsigned long ino, long pid) {
  if (std::strstr(line, "->") != nullptr) return false;
  char kind[16], advisory[16], mode[16];
  long linePid = 0;
  unsigned lmaj = 0, lmin = 0;
  unsigned long lino = 0;
  if (std::sscanf(line, "%*[^:]: %15s %15s %15s %ld %x:%x:%lu", kind, advisory, mode, &linePid,
                  &lmaj, &lmin, &lino) != 7)
    return false;
  return linePid == pid && lmaj == maj && lmin == min && lino == ino;
}

}  // namespace

bool locksArbitratedRemotely(int fd) noexcept {
  struct statfs s {};
  if (fstatfs(fd, &s) != 0) return false;
  const auto magic = static_cast<unsigned long>(s.f_type) & 0xFFFFFFFFUL;
  for (unsigned long m : kRemoteMagics)
    if (m == magic) return true;
  return false;
}

bool localLockTableShows(dev_t dev, ino_t ino, pid_t pid) noexcept {
  const int fd = ::open("/proc/locks", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[4096];
  size_t have = 0;
  bool found = false;
  for (;;) {
    const ssize_t n = ::read(fd, buf + have, sizeof buf - 1 - have);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    have += static_cast<size_t>(n);
    buf[have] = '\0';
    char *start = buf;
    for (char *nl; (nl = std::strchr(start, '\n')) != nullptr; start = nl + 1) {
      *nl = '\0';
      found = found || lineShows(start, major(dev), minor(dev), ino, pid);
    }
    // Keep the unfinished line; a line longer than the buffer is dropped.
    have = static_cast<size_t>(buf + have - start);
    if (have == sizeof buf - 1) have = 0;
    std::memmove(buf, start, have);
  }
  ::close(fd);
  return found;
}

const char *lockServiceFailure(int err) noexcept {
  switch (err) {
    case ENOLCK:
      return "; the file system's lock service has no lock records left";
    case ETIMEDOUT:
      return "; the lock server did not answer in time";
    case EIO:
      return "; the lock request failed with an I/O error (on a network file system: the "
             "connection to the server may be lost)";
    case EBADFD:  // a FUSE client whose server went away
    case ECONNREFUSED:
    case ECONNRESET:
    case ENOTCONN:
    case EHOSTUNREACH:
    case ENETUNREACH:
      return "; the lock server could not be reached";
    case ESTALE:
      return "; the file is stale: it was replaced or removed on the server";
    default:
      return nullptr;
  }
}

bool holderIsRemote(int fd, pid_t pid) noexcept {
  if (!locksArbitratedRemotely(fd)) return false;
  struct stat st {};
  if (fstat(fd, &st) != 0) return false;
  return pid <= 0 || !localLockTableShows(st.st_dev, st.st_ino, pid);
}

}  // namespace xvelm::detail
