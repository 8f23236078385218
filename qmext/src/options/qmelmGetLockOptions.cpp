// Public entry of the option snapshot: forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmgetlockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept {
  return xvelmGetLockOptions(ext, parms, jnl);
}
