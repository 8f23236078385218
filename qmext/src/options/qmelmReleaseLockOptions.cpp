// Public entry that gives a snapshot back: forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmreleaselockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept {
  return xvelmReleaseLockOptions(ext, parms, jnl);
}
