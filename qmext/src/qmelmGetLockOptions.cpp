// Public entry of the option snapshot: forwards unchanged to its worker.
#include "xvelm.h"

int qmelmgetlockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept {
  return xvelmGetLockOptions(ext, parms, jnl);
}
