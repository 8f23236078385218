// manager.cpp - qmlock-manager, the helper executable that qmlock execs for
// the faces that drive the lock manager: `qmlock shell` and `qmlock demo`.
// It is given qmlock's own command line (argv[1] is the face) and takes the
// name qmlock as its command name, so that ps, /proc/PID/comm and the lock
// tables name it as the user started it.
#include "manager.h"

#include <sys/prctl.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace qmlock {

std::string holderDescription(const elm::Result &r) {
  switch (r.status()) {
    case QMELM_E_INT_LOCKED_EXCLUSIVE:
      return "another thread of this process holds it exclusively";
    case QMELM_E_INT_LOCKED_SHARED:
      return "another thread of this process holds it non-exclusively";
    case QMELM_E_INT_SHARE_CONFLICT:
      return "another thread of this process holds it (shared and non-shared holders cannot mix)";
    case QMELM_E_EXT_LOCKED_EXCLUSIVE:
      return processDescription(r.locker_pid()) + " holds a write lock";
    case QMELM_E_EXT_LOCKED_SHARED:
      return processDescription(r.locker_pid()) + " holds a read lock";
    default:
      if (r.locker_pid() != 0) return processDescription(r.locker_pid()) + " holds a lock";
      return "its holder went away or the file was replaced while it was being locked";
  }
}

}  // namespace qmlock

int main(int argc, char **argv) {
  using namespace qmlock;
  prctl(PR_SET_NAME, "qmlock", 0, 0, 0);
  if (argc >= 2 && std::strcmp(argv[1], "shell") == 0) return shellMain(argc - 1, argv + 1);
  if (argc >= 2 && std::strcmp(argv[1], "demo") == 0) return demoMain(argc - 1, argv + 1);
  std::fprintf(stderr,
               "usage: qmlock shell [SCRIPT]\n"
               "       qmlock demo\n"
               "(qmlock-manager is the part of qmlock that drives the lock manager; run qmlock)\n");
  return kExitUsage;
}
