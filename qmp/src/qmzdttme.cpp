// The clock: asks the host for the time of day and an offset to subtract.
#include "qmp.h"

double qmzdttmeOf(QMHndlp hndl) noexcept {
  if (hndl == nullptr || hndl->ConfigureSystem == nullptr) return 0.0;
  double tm[2] = {0.0, 0.0};
  if (hndl->ConfigureSystem(hndl, QM_CONFIG_DATETIME, tm, QM_CONFIG_DATETIME_FLAGS) != 0)
    return 0.0;
  return tm[0] - tm[1];
}

double qmzdttme(void) noexcept {
  return qmzdttmeOf(qmpLiveHost());
}
