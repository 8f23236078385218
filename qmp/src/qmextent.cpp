// Loader entries: the host calls qmextent and qmextver after it has opened
// the shared object and before it calls the factory. Both remember the host
// handle for the code that has no extension object at hand (the clock).
#include <atomic>

#include "qmp.h"

QMHndlp qmp_hndl = nullptr;

namespace {
// The handle is written by whichever thread loads the extension and read by
// the clock on any thread: keep the accesses atomic.
void remember(QMHndlp h) {
  __atomic_store_n(&qmp_hndl, h, __ATOMIC_RELEASE);
}
}  // namespace

QMStatus qmextent(QMHndlp hndl) noexcept {
  remember(hndl);
  return 0;
}

QMStatus qmextver(QMHndlp hndl, int *major, int *minor) noexcept {
  *major = 7;
  *minor = 1;
  remember(hndl);
  return 0;
}
