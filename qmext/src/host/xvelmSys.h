/*
 * xvelmSys.h - the system-call seam: every system call on a locked file goes
 * through one table (xvelmSys.cpp), which tests may swap entries of.
 */
#ifndef XVELM_SYS_H
#define XVELM_SYS_H

#include <sys/stat.h>
#include <sys/types.h>

namespace xvelm::detail {

// Every system call on a locked file goes through this table, so that tests
// can make any of them fail on demand. The defaults are libc's. fcntl's third
// argument is a struct flock* for the record-lock commands and the flag value
// (cast to a pointer) for F_SETFD.
struct Syscalls {
  int (*open)(const char *path, int flags, mode_t mode);
  int (*close)(int fd);
  int (*fcntl)(int fd, int cmd, void *arg);
  int (*stat)(const char *path, struct stat *st);
  int (*fstat)(int fd, struct stat *st);
  off_t (*lseek)(int fd, off_t offset, int whence);
  int (*unlink)(const char *path);
  int (*ftruncate)(int fd, off_t length);
};

// The table in use. Tests may overwrite entries while no other thread is in
// the extension, and restore them with resetSyscalls().
Syscalls &sys() noexcept;
void resetSyscalls() noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_SYS_H
