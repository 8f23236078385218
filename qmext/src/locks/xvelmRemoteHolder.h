/*
 * xvelmRemoteHolder.h - whether the holder of a refused record lock may be a
 * process on another machine: on a file system whose record locks are
 * arbitrated by a server (network file systems, FUSE), F_GETLK reports the
 * holder's PID as numbered on the holder's own machine, which may name an
 * unrelated local process or none. A holder is taken to be remote when the
 * file system arbitrates remotely and the kernel's lock table (/proc/locks)
 * shows no lock of that PID on the file. Takes no mutex; used only on the
 * refusal path.
 */
#ifndef XVELM_REMOTEHOLDER_H
#define XVELM_REMOTEHOLDER_H

#include <sys/types.h>

namespace xvelm::detail {

// Whether the file system of fd may arbitrate record locks away from this
// machine's kernel (known by its statfs magic).
[[nodiscard]] bool locksArbitratedRemotely(int fd) noexcept;

// Whether the kernel's lock table shows a lock on the file (dev, ino) held
// by pid. False when the table cannot be read.
[[nodiscard]] bool localLockTableShows(dev_t dev, ino_t ino, pid_t pid) noexcept;

// Whether the holder pid of a lock on fd's file, as F_GETLK reported it, is
// a process on another machine (then pid is its number there).
[[nodiscard]] bool holderIsRemote(int fd, pid_t pid) noexcept;

// What a lock request's errno says about the file system's lock service
// (no lock records left, no answer in time, a lost connection, an I/O
// error), as a text closing the refusal message; null for any other errno.
[[nodiscard]] const char *lockServiceFailure(int err) noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_REMOTEHOLDER_H
