// Public entry of the option table: QMELM_Reset removes a path and what lies
// below it, every other option is stored. The choice is made on the option
// alone; an absent path does not select removal.
#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "options/xvelmOptions.h"

int qmelmsetlockoption(QMELMExtensionp ext, QMELMSetOptionParms *parms, QMJnlh jnl) noexcept {
  if (ext == nullptr) return xvelm::detail::journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (parms == nullptr) return xvelm::detail::journaled(jnl, QMELM_E_NULL_PARMS);
  // The option is read as the 32-bit number a C caller may have put there.
  if (xvelm::detail::requestedOption(parms->option) == QMELM_Reset)
    return xvelmRemoveOption(ext, parms, jnl);
  return xvelmAddOption(ext, parms, jnl);
}
