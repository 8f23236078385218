// xvelmMatchOption: the lock option that governs a path, the option of the
// entry whose key is the longest directory prefix of the path's full path (the
// root entry's otherwise). Resolves through qmioe before taking OptionMutex;
// searches and copies under a shared hold of it
// (matches do not wait for each other, only for a change). Allocates the two copies handed back in
// parms (the caller frees them with ReleaseMatch). Returns 0, QMELM_E_NO_PATH, QMELM_E_NO_MEMORY,
// or qmioe's status; every failure is journaled.
#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "host/xvelmQMChar.h"
#include "options/xvelmOptions.h"

using namespace xvelm::detail;

namespace {

struct Governing {
  QMELMLockOption option;
  const QMChar *key;
  QMStrSize keyLen;
};

// The entry that governs full path f. Expects OptionMutex held.
//
// Candidates are f itself, then f cut before each "/" from the right (so a
// trailing slash goes first, and a prefix ending inside a component is never
// tried), down to the root. Each candidate is looked up by binary search;
// a shorter candidate sorts before a longer one, so each search is bounded by
// where the previous one ended: O(components x log entries) comparisons.
Governing governingEntry(const QMELMExtension *ext, const QMChar *f, QMStrSize flen) {
  QMELMLockOptions *slots = ext->Options;
  QMMemSize end = ext->NumOptions;
  for (QMStrSize len = flen; len >= 1;) {
    QMMemSize lo = 0;
    QMMemSize hi = end;
    while (lo < hi) {
      const QMMemSize mid = lo + (hi - lo) / 2;
      const QMELM_LOCK_OPTION_S *e = slots[mid];
      const int64_t c = xvelmLexicalCompare(f, len, e->fullpath, e->fullpathlen);
      if (c == 0) return {e->option, e->fullpath, e->fullpathlen};
      if (c > 0) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    end = lo;
    QMStrSize cut = len - 1;
    while (cut >= 1 && f[cut] != '/') --cut;
    len = cut;
  }
  // No prefix has an entry: the root governs. A table without its root entry
  // (only after the root could not be stored) answers as the root would.
  if (ext->NumOptions > 0 && isRootKey(slots[0]->fullpath, slots[0]->fullpathlen)) {
    return {slots[0]->option, slots[0]->fullpath, slots[0]->fullpathlen};
  }
  return {QMELM_Fail, kRootPath.data(), kRootPath.size()};
}

}  // namespace

int xvelmMatchOption(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  parms->option = QMELM_Unknown;
  parms->fullpath = nullptr;
  parms->matchpath = nullptr;
  if (parms->path == nullptr || parms->pathlen == 0) {
    journalStatus(jnl, QMELM_E_NO_PATH);
    return QMELM_E_NO_PATH;
  }

  // The caller's copy of the full path; fullpathlen is left as the caller set
  // it (the length is not reported back, intentionally).
  FullPath resolved(ext, jnl, parms->enc_pathname);
  if (QMStatus rc = resolved.resolve(parms->path, parms->pathlen); rc != 0) {
    journalStatus(jnl, rc);
    return rc;
  }
  const QMStrSize flen = resolved.size();
  PoolPtr<QMChar> full = copyText(ext->Pool, resolved.data(), flen);
  if (!full) {
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    return QMELM_E_NO_MEMORY;
  }
  if (QMStatus rc = resolved.giveBack(); rc != 0) return rc;
  const QMChar *f = full.get();
  parms->fullpath = full.release();

  MutexGuard guard(ext->OptionMutex, Rank::Option, LockMode::Shared);
  if (!guard) return journaled(jnl, guard.status());
  const Governing g = governingEntry(ext, f, flen);
  parms->option = g.option;
  PoolPtr<QMChar> match = copyText(ext->Pool, g.key, g.keyLen);
  guard.unlock();
  if (!match) {
    // fullpath and option stay set: ReleaseMatch frees what there is.
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    return QMELM_E_NO_MEMORY;
  }
  parms->matchpath = match.release();
  parms->matchpathlen = g.keyLen;
  return 0;
}

namespace xvelm::detail {

QMStatus matchedOption(QMELMExtension *ext, const QMChar *path, QMStrSize len, NLScei enc,
                       QMJnlh jnl, QMELMLockOption *option) noexcept {
  *option = QMELM_Unknown;
  if (path == nullptr || len == 0) {
    journalStatus(jnl, QMELM_E_NO_PATH);
    return QMELM_E_NO_PATH;
  }
  // Declared first, so that qmioe gets its memory back after the mutex.
  FullPath resolved(ext, jnl, enc);
  if (QMStatus rc = resolved.resolve(path, len); rc != 0) {
    journalStatus(jnl, rc);
    return rc;
  }
  MutexGuard guard(ext->OptionMutex, Rank::Option, LockMode::Shared);
  if (!guard) return journaled(jnl, guard.status());
  *option = governingEntry(ext, resolved.data(), resolved.size()).option;
  return 0;
}

}  // namespace xvelm::detail
