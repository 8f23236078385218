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

// Frees an entry with its two strings; every failing free is journaled, the
// entry's own free decides the status.
[[nodiscard]] QMStatus freeEntry(QMPoolh pool, QMELM_LOCK_OPTION_S *e, QMJnlh jnl) {
  (void)freeBlock(pool, e->path, jnl);
  (void)freeBlock(pool, e->fullpath, jnl);
  return freeBlock(pool, e, jnl);
}

// The slots a reset of full path f (flen) removes, found by binary search:
// the entry of f itself; with a trailing slash ("/x/") also the entry of f
// without it ("/x"); and every entry below f, that is whose key continues
// with "/" right after f. A request with a trailing slash therefore removes
// "/x" but not "/x/y/z" (whose key does not continue "/x/" with "/"). The
// root entry survives every reset but that of "/". The ranges come back in
// table order and do not overlap: f without its slash sorts before f, and f
// before the keys below it.
struct Doomed {
  SlotRange ranges[3];
  int count = 0;
  void single(const QMELMExtension *ext, const QMChar *key, QMStrSize len) {
    const QMMemSize i = firstNotBefore(ext, key, len);
    if (slotHolds(ext, i, key, len) && !isRootKey(key, len)) ranges[count++] = {i, i + 1};
  }
};

Doomed selectForReset(const QMELMExtension *ext, const QMChar *f, QMStrSize flen) {
  Doomed d;
  if (flen > 1 && f[flen - 1] == '/') d.single(ext, f, flen - 1);
  d.single(ext, f, flen);
  const SlotRange below = prefixRange(ext, f, flen, '/');
  if (below.first < below.last) d.ranges[d.count++] = below;
  return d;
}

// Removes the selected entries (all of them for the whole reset but a root
// entry in slot 0, which is set back to QMELM_Fail) and closes the gaps,
// keeping the order. Expects OptionMutex held. Returns whether anything was
// selected; *result receives the status of the last entry freed.
//
// The whole reset keeps the root entry in place instead of freeing it and
// storing a new one: the table then never looks empty to a concurrent match
// or snapshot, which rely on the root being in slot 0.
bool removeEntries(QMELMExtension *ext, const QMChar *f, QMStrSize flen, QMJnlh jnl,
                   QMStatus *result) {
  QMELMLockOptions *slots = ext->Options;
  const QMMemSize n = ext->NumOptions;
  Doomed doomed;
  const bool whole = isRootKey(f, flen);
  if (whole) {
    const bool root = n > 0 && isRootKey(slots[0]->fullpath, slots[0]->fullpathlen);
    if (root) slots[0]->option = QMELM_Fail;
    doomed.ranges[doomed.count++] = {root ? QMMemSize{1} : QMMemSize{0}, n};
  } else {
    doomed = selectForReset(ext, f, flen);
    if (doomed.count == 0) return false;
  }
  // Free each range, then move the survivors after it down over the gap.
  QMMemSize kept = doomed.ranges[0].first;
  for (int r = 0; r < doomed.count; ++r) {
    const SlotRange &range = doomed.ranges[r];
    for (QMMemSize i = range.first; i < range.last; ++i)
      *result = freeEntry(ext->Pool, slots[i], jnl);
    const QMMemSize next = r + 1 < doomed.count ? doomed.ranges[r + 1].first : n;
    std::memmove(slots + kept, slots + range.last, (next - range.last) * sizeof(QMELMLockOptions));
    kept += next - range.last;
  }
  for (QMMemSize i = kept; i < n; ++i) slots[i] = nullptr;
  ext->NumSlotsLeft += n - kept;
  ext->NumOptions = kept;
  return true;
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
