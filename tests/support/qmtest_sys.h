// qmtest_sys.h - swaps entries of the lock manager's system-call table for a
// test's scope and counts the calls that went through it.
#ifndef QMTEST_SYS_H
#define QMTEST_SYS_H

#include "host/xvelmSys.h"

namespace qmtest {

// Restores libc's table when it goes out of scope. Entries are replaced
// directly: xvelm::detail::sys().open = ...; only while no other thread is
// inside the lock manager.
class SyscallScope {
 public:
  SyscallScope() { xvelm::detail::resetSyscalls(); }
  ~SyscallScope() { xvelm::detail::resetSyscalls(); }
  SyscallScope(const SyscallScope &) = delete;
  SyscallScope &operator=(const SyscallScope &) = delete;
  xvelm::detail::Syscalls &table() { return xvelm::detail::sys(); }
};

}  // namespace qmtest

#endif  // QMTEST_SYS_H
