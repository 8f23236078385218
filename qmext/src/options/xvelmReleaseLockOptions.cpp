// xvelmReleaseLockOptions: frees a snapshot made by GetLockOptions (each
// entry's path, full path and the entry, then the array). Takes no mutex: the
// snapshot is the caller's alone. Returns 0, QMELM_E_NO_OPTIONS for a null or
// empty snapshot, or the status of the first free that failed.
#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmPool.h"
#include "options/xvelmOptions.h"

using namespace xvelm::detail;

int xvelmReleaseLockOptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  // The array GetLockOptions hands out for an empty table is refused here as
  // well, and so stays in the pool until it goes: intentional.
  if (parms == nullptr || parms->optionTable == nullptr || parms->NumOptions == 0) {
    journalStatus(jnl, QMELM_E_NO_OPTIONS);
    return QMELM_E_NO_OPTIONS;
  }
  // The first failing free (journaled by freeBlock) stops the release where
  // it is: the rest of the snapshot is left alone.
  QMPoolh pool = ext->Pool;
  for (QMMemSize i = 0; i < parms->NumOptions; ++i) {
    QMELM_LOCK_OPTION_S *e = parms->optionTable[i];
    if (QMStatus rc = freeBlock(pool, e->path, jnl); rc != 0) return rc;
    if (QMStatus rc = freeBlock(pool, e->fullpath, jnl); rc != 0) return rc;
    if (QMStatus rc = freeBlock(pool, e, jnl); rc != 0) return rc;
  }
  // optionTable and NumOptions keep their values: releasing twice is the
  // caller's mistake to avoid, as for any block given back.
  return freeBlock(pool, parms->optionTable, jnl);
}
