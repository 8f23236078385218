// xvelmReleaseMatch: gives back the two copies MatchOption handed out
// (whichever exist) and clears the request. Takes no mutex. Returns 0, or the
// status of the failing free (the second one's when both fail); failures are
// journaled.
#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "options/xvelmOptions.h"

using namespace xvelm::detail;

int xvelmReleaseMatch(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  QMPoolh pool = ext->Pool;
  const QMStatus s1 = parms->fullpath != nullptr ? pool->memFree(pool, parms->fullpath) : 0;
  const QMStatus s2 = parms->matchpath != nullptr ? pool->memFree(pool, parms->matchpath) : 0;
  // Both reports carry the first free's status, so a failure of only the
  // second free is journaled as 0. Intentional: it must stay exactly so.
  if (s1 != 0) journalStatus(jnl, s1);
  if (s2 != 0) journalStatus(jnl, s1);
  parms->fullpath = nullptr;
  parms->matchpath = nullptr;
  // QMELM_Fail, not QMELM_Unknown: intentional, a released request reads 0.
  parms->option = QMELM_Fail;
  return s2 != 0 ? s2 : s1;
}
