// Public entry of lock change: forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmlockchange(QMELMLHndlp lock, QMMemPtr lockParms, QMMemSize newLockType,
                    QMJnlh jnl) noexcept {
  return xvelmLockChange(lock, lockParms, newLockType, jnl);
}
