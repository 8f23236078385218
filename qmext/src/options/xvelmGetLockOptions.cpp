// xvelmGetLockOptions: a deep copy of the lock option table, in table order,
// made under a shared hold of OptionMutex so that it is one state of the table
// (copies do not wait for each other, only for a change). Allocates the
// pointer array, the entries and their strings from the extension's pool; the
// caller owns them until ReleaseLockOptions. Returns 0 or QMELM_E_NO_MEMORY.
#include <cstring>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "options/xvelmOptions.h"

using namespace xvelm::detail;

namespace {

// Makes the copy into parms. Expects OptionMutex held. On a failed allocation
// whatever was already copied is left in the pool on purpose, not handed out
// and not freed: it goes with the pool. That is why the blocks here are not
// held by PoolPtr.
[[nodiscard]] QMStatus copyTable(const QMELMExtension *ext, QMELMGetOptionsParms *parms) {
  QMPoolh pool = ext->Pool;
  const QMMemSize n = ext->NumOptions;
  // An empty table still yields an array (of one unused slot), handed out
  // with NumOptions 0.
  auto *table = static_cast<QMELMLockOptions *>(
      pool->memAlloc(pool, (n > 0 ? n : 1) * sizeof(QMELMLockOptions), QM_POOL_ZERO_FILL));
  if (table == nullptr) return QMELM_E_NO_MEMORY;
  for (QMMemSize i = 0; i < n; ++i) {
    const QMELM_LOCK_OPTION_S *from = ext->Options[i];
    auto *to = static_cast<QMELM_LOCK_OPTION_S *>(
        pool->memAlloc(pool, sizeof(QMELM_LOCK_OPTION_S), QM_POOL_ZERO_FILL));
    if (to == nullptr) return QMELM_E_NO_MEMORY;
    table[i] = to;
    to->path = copyText(pool, from->path, from->pathlen).release();
    if (to->path == nullptr) return QMELM_E_NO_MEMORY;
    to->fullpath = copyText(pool, from->fullpath, from->fullpathlen).release();
    if (to->fullpath == nullptr) return QMELM_E_NO_MEMORY;
    to->pathlen = from->pathlen;
    to->fullpathlen = from->fullpathlen;
    to->option = from->option;
  }
  parms->optionTable = table;
  parms->NumOptions = n;
  return 0;
}

}  // namespace

int xvelmGetLockOptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  MutexGuard guard(ext->OptionMutex, Rank::Option, LockMode::Shared);
  if (!guard) return journaled(jnl, guard.status());
  const QMStatus rc = copyTable(ext, parms);
  guard.unlock();
  if (rc != 0) journalStatus(jnl, rc);
  return rc;
}
