// xvelmRemoveOption: the QMELM_Reset request of SetLockOption. Removes the
// entry of a path and every entry below it, or, for "/", every entry but the
// root, which goes back to QMELM_Fail. Resolves through qmioe before taking
// OptionMutex; frees the removed entries and their strings. Returns 0,
// QMELM_E_OPTION_NOT_FOUND, qmioe's status, or a failing free's status.
#include <cstring>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "options/xvelmOptions.h"

using namespace xvelm::detail;

namespace {

// Whether a reset of full path f (flen) removes the entry e: the entry itself
// (also when the request adds a trailing slash), or any entry below it, that
// is whose path continues with "/" right after the request's. A request with
// a trailing slash ("/x/") therefore removes "/x" but not "/x/y/z" (whose
// character after "/x/" is "y"). The root entry survives every reset but
// that of "/".
bool resetRemoves(const QMChar *f, QMStrSize flen, const QMELM_LOCK_OPTION_S *e) {
  const QMChar *r = e->fullpath;
  const QMStrSize rlen = e->fullpathlen;
  if (isRootKey(r, rlen) && flen > 1) return false;
  if (flen == rlen) return sameText(f, r, flen);
  if (flen == rlen + 1) return f[flen - 1] == '/' && sameText(f, r, rlen);
  if (flen < rlen) return r[flen] == '/' && sameText(f, r, flen);
  return false;
}

// Frees an entry with its two strings; every failing free is journaled, the
// entry's own free decides the status.
[[nodiscard]] QMStatus freeEntry(QMPoolh pool, QMELM_LOCK_OPTION_S *e, QMJnlh jnl) {
  (void)freeBlock(pool, e->path, jnl);
  (void)freeBlock(pool, e->fullpath, jnl);
  return freeBlock(pool, e, jnl);
}

// Removes the entries resetRemoves selects (all of them for the whole reset
// but a root entry in slot 0, which is set back to QMELM_Fail) and closes the
// gaps, keeping the order. Expects OptionMutex held. Returns whether anything
// was selected; *result receives the status of the last entry freed.
//
// The whole reset keeps the root entry in place instead of freeing it and
// storing a new one: the table then never looks empty to a concurrent match
// or snapshot, which rely on the root being in slot 0.
bool removeEntries(QMELMExtension *ext, const QMChar *f, QMStrSize flen, QMJnlh jnl,
                   QMStatus *result) {
  const bool whole = isRootKey(f, flen);
  QMELMLockOptions *slots = ext->Options;
  const QMMemSize n = ext->NumOptions;
  QMMemSize kept = 0;
  bool any = whole;
  for (QMMemSize i = 0; i < n; ++i) {
    QMELM_LOCK_OPTION_S *e = slots[i];
    const bool keepRoot = whole && i == 0 && isRootKey(e->fullpath, e->fullpathlen);
    if (keepRoot) e->option = QMELM_Fail;
    if (keepRoot || (!whole && !resetRemoves(f, flen, e))) {
      slots[kept++] = e;
      continue;
    }
    *result = freeEntry(ext->Pool, e, jnl);
    any = true;
  }
  for (QMMemSize i = kept; i < n; ++i) slots[i] = nullptr;
  ext->NumSlotsLeft += n - kept;
  ext->NumOptions = kept;
  return any;
}

}  // namespace

int xvelmRemoveOption(QMELMExtensionp ext, QMELMSetOptionParms *parms, QMJnlh jnl) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  // The full path is used in place and handed back to qmioe when this
  // function returns, after OptionMutex is released (a failing give-back is
  // journaled and does not change the result).
  FullPath full(ext, jnl, parms->enc_pathname);
  if (QMStatus rc = full.resolve(parms->path, parms->pathlen); rc != 0) {
    journalStatus(jnl, rc);
    return rc;
  }

  QMStatus result = 0;
  bool removed = false;
  bool empty = false;
  {
    MutexGuard guard(ext->OptionMutex, Rank::Option);
    if (!guard) return journaled(jnl, guard.status());
    removed = removeEntries(ext, full.data(), full.size(), jnl, &result);
    empty = ext->NumOptions == 0;
  }

  if (!removed) {
    // Only a note: resetting a path that has no option is harmless.
    Message msg(ext, jnl);
    msg.status(QMELM_E_OPTION_NOT_FOUND).status(QMELM_M_PATH).text(parms->path, parms->pathlen);
    msg.status(QMELM_M_FULLPATH).text(full.data(), full.size()).status(QMELM_M_TRAILER);
    (void)msg.journal(QMSeverityNote);
    return QMELM_E_OPTION_NOT_FOUND;
  }

  // A table left without entries (it had no root entry) gets the root entry
  // "/" -> QMELM_Fail through the extension's own entry, without the mutex
  // (it is not re-entrant).
  if (empty) {
    QMELMSetOptionParms seed{};
    seed.path = nullptr;
    seed.pathlen = 0;
    seed.option = QMELM_Fail;
    result = ext->Functions.SetLockOption(ext, &seed, jnl);
  }
  return result;
}
