// Loader entries: the host calls qmextent and qmextver after it has opened
// the shared object and before it calls the factory. Both remember the host
// handle for the code that has no extension object at hand (the clock),
// which follows it only while the extension's installed check says an
// object of that host is alive.
#include <atomic>

#include "qmp.h"

QMHndlp qmp_hndl = nullptr;

namespace {
// Installed once by the extension; read by the clock on any thread.
QMPHostCheck hostCheck = nullptr;

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

void qmpSetHostCheck(QMPHostCheck check) noexcept {
  __atomic_store_n(&hostCheck, check, __ATOMIC_RELEASE);
}

QMHndlp qmpLiveHost(void) noexcept {
  QMHndlp h = __atomic_load_n(&qmp_hndl, __ATOMIC_ACQUIRE);
  QMPHostCheck check = __atomic_load_n(&hostCheck, __ATOMIC_ACQUIRE);
  return h != nullptr && check != nullptr && check(h) != 0 ? h : nullptr;
}
