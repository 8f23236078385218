// Public entry of lock acquisition: forwards unchanged to its worker.
#include "frame/xvelm.h"

QMELMLHndlp qmelmlockget(QMELMExtensionp ext, QMMemPtr lockParms, QMMemSize resType,
                         QMMemSize lockType, QMJnlh jnl, int *qmrc) noexcept {
  return xvelmLockGet(ext, lockParms, resType, lockType, jnl, qmrc);
}
