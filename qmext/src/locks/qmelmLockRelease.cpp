// Public entry of lock release: forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmlockrelease(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept {
  return xvelmLockRelease(lock, lockParms, jnl);
}
