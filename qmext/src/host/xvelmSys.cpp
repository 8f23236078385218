// The system-call table: libc by default, swappable by tests. Nothing else
// in the lock manager calls open, close, fcntl, stat, fstat, lseek, unlink or
// ftruncate.
#include "host/xvelmSys.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

namespace xvelm::detail {
namespace {

int sysOpen(const char *path, int flags, mode_t mode) {
  return ::open(path, flags, mode);
}
int sysClose(int fd) {
  return ::close(fd);
}
int sysFcntl(int fd, int cmd, void *arg) {
  switch (cmd) {
    case F_GETLK:
    case F_SETLK:
    case F_SETLKW:
      return ::fcntl(fd, cmd, static_cast<struct flock *>(arg));
    default:  // F_SETFD and the other integer commands
      return ::fcntl(fd, cmd, static_cast<int>(reinterpret_cast<intptr_t>(arg)));
  }
}
int sysStat(const char *path, struct stat *st) {
  return ::stat(path, st);
}
int sysFstat(int fd, struct stat *st) {
  return ::fstat(fd, st);
}
off_t sysLseek(int fd, off_t offset, int whence) {
  return ::lseek(fd, offset, whence);
}
int sysUnlink(const char *path) {
  return ::unlink(path);
}
int sysFtruncate(int fd, off_t length) {
  return ::ftruncate(fd, length);
}

constexpr Syscalls kLibc{sysOpen,  sysClose, sysFcntl,  sysStat,
                         sysFstat, sysLseek, sysUnlink, sysFtruncate};
Syscalls table = kLibc;

}  // namespace

Syscalls &sys() noexcept {
  return table;
}
void resetSyscalls() noexcept {
  table = kLibc;
}

}  // namespace xvelm::detail
