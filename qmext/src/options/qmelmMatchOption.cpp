// Public entry of option matching: forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmmatchoption(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl) noexcept {
  return xvelmMatchOption(ext, parms, jnl);
}
