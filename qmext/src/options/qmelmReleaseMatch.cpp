// Public entry that gives a match result back: forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmreleasematch(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl) noexcept {
  return xvelmReleaseMatch(ext, parms, jnl);
}
