// xvelmAddOption: stores or replaces the lock option of one path in the sorted
// option table; xvelmLexicalCompare: the table's order. Resolves the full path
// through qmioe before taking OptionMutex, then changes the table under it.
// Allocates the entry and its two strings (owned by the table from then on)
// and grows the slot array when it is full. Returns 0, QMELM_E_INVALID_OPTION,
// QMELM_E_NO_MEMORY, qmioe's status, or the status of freeing the old array.
#include <cstring>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "host/xvelmQMChar.h"
#include "options/xvelmOptions.h"

using namespace xvelm::detail;

int64_t xvelmLexicalCompare(const QMChar *a, QMStrSize alen, const QMChar *b,
                            QMStrSize blen) noexcept {
  // One pass does both the equality test and the ordering: equal lengths with
  // equal code units compare 0, otherwise the first differing code unit
  // decides (as a signed 32-bit value), and a common start puts the shorter
  // string first.
  const QMStrSize common = alen < blen ? alen : blen;
  for (QMStrSize i = 0; i < common; ++i) {
    const auto x = static_cast<int32_t>(a[i]);
    const auto y = static_cast<int32_t>(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  if (alen == blen) return 0;
  return alen < blen ? -1 : 1;
}

namespace {

bool isStorable(int32_t option) {
  return option == QMELM_Fail || option == QMELM_None || option == QMELM_Continue;
}

// Doubles the slot array (16 slots the first time). Expects OptionMutex held.
// The old array's free status is what the whole call returns in the end (it
// is journaled by freeBlock); the new array is installed either way.
[[nodiscard]] QMStatus growSlots(QMELMExtension *ext, QMJnlh jnl, QMStatus *freeStatus) {
  const QMMemSize count = ext->NumSlots == 0 ? 16 : 2 * ext->NumSlots;
  auto slots = PoolPtr<QMELMLockOptions>::alloc(ext->Pool, count * sizeof(QMELMLockOptions),
                                                QM_POOL_ZERO_FILL);
  if (!slots) return QMELM_E_NO_MEMORY;
  if (ext->Options != nullptr) {
    std::memcpy(slots.get(), ext->Options, ext->NumSlots * sizeof(QMELMLockOptions));
    *freeStatus = freeBlock(ext->Pool, ext->Options, jnl);
  }
  ext->Options = slots.release();
  ext->NumSlots = count;
  ext->NumSlotsLeft = count - ext->NumOptions;
  return 0;
}

}  // namespace

int xvelmAddOption(QMELMExtensionp ext, QMELMSetOptionParms *parms, QMJnlh jnl) noexcept {
  JournalDeferral deferral;  // no journal write while a mutex is held
  const int32_t option = requestedOption(parms->option);
  if (!isStorable(option)) {
    // A null path is the root, and the message names it so.
    const QMChar *shown = parms->path != nullptr ? parms->path : kRootPath.data();
    const QMStrSize shownLen = parms->path != nullptr ? parms->pathlen : kRootPath.size();
    Message msg(ext, jnl);
    msg.status(QMELM_E_INVALID_OPTION).status(QMELM_M_PATH).text(shown, shownLen);
    (void)msg.status(QMELM_M_TRAILER).journal();
    return QMELM_E_INVALID_OPTION;
  }

  // The key: a pool copy of the full path, made before the table is entered.
  // qmioe's failure to resolve is returned as it is, without a message.
  FullPath resolved(ext, jnl, parms->enc_pathname);
  if (QMStatus rc = resolved.resolve(parms->path, parms->pathlen); rc != 0) return rc;
  const QMStrSize keyLen = resolved.size();
  PoolPtr<QMChar> key = copyText(ext->Pool, resolved.data(), keyLen);
  if (!key) {
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    return QMELM_E_NO_MEMORY;
  }
  if (QMStatus rc = resolved.giveBack(); rc != 0) return rc;

  MutexGuard guard(ext->OptionMutex, Rank::Option);
  if (!guard) return journaled(jnl, guard.status());

  // An entry with the same key only takes the new option. Its path text stays
  // the one it was first stored with: intentional, the first caller's spelling
  // of the path is what snapshots show. Otherwise pos is where the new key
  // keeps the table sorted (a grown slot array keeps the order).
  const QMMemSize pos = firstNotBefore(ext, key.get(), keyLen);
  if (slotHolds(ext, pos, key.get(), keyLen)) {
    ext->Options[pos]->option = static_cast<QMELMLockOption>(option);
    return 0;
  }

  // A slot array grown here stays grown even if the entry cannot be made.
  QMStatus result = 0;
  if (ext->NumSlotsLeft == 0) {
    if (QMStatus rc = growSlots(ext, jnl, &result); rc != 0) {
      journalStatus(jnl, rc);
      return rc;
    }
  }

  auto entry = PoolPtr<QMELM_LOCK_OPTION_S>::alloc(ext->Pool, 0, QM_POOL_ZERO_FILL);
  if (!entry) {
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    return QMELM_E_NO_MEMORY;
  }
  const bool root = parms->path == nullptr;
  const QMStrSize pathLen = root ? kRootPath.size() : parms->pathlen;
  PoolPtr<QMChar> path = copyText(ext->Pool, root ? kRootPath.data() : parms->path, pathLen);
  if (!path) {
    journalStatus(jnl, QMELM_E_NO_MEMORY);
    return QMELM_E_NO_MEMORY;
  }

  entry->pathlen = pathLen;
  entry->fullpathlen = keyLen;
  entry->option = static_cast<QMELMLockOption>(option);
  entry->path = path.release();
  entry->fullpath = key.release();
  QMELMLockOptions *slots = ext->Options;
  std::memmove(slots + pos + 1, slots + pos, (ext->NumOptions - pos) * sizeof(QMELMLockOptions));
  slots[pos] = entry.release();
  ++ext->NumOptions;
  --ext->NumSlotsLeft;
  return result;
}
