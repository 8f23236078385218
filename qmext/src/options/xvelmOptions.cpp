// Helpers of the lock option table's workers: full-path resolution through
// qmioe (no mutex taken; the caller must not hold OptionMutex), pool copies of
// QMChar text (the caller owns the copy), the raw option value of a request.
#include "options/xvelmOptions.h"

#include <cstring>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmPool.h"
#include "host/xvelmQMChar.h"

namespace xvelm::detail {

FullPath::FullPath(const QMELMExtension *ext, QMJnlh jnl, NLScei enc) noexcept
    : ext_(ext), qmioe_(ext->qmioeh), jnl_(jnl) {
  parms_.jnl = jnl;
  parms_.enc_pathname = enc;
}

QMStatus FullPath::resolve(const QMChar *path, QMStrSize len) noexcept {
  if (path == nullptr) {
    text_ = kRootPath.data();
    len_ = kRootPath.size();
    return 0;
  }
  // A path the system would cut short at a U+0000 is refused like a name.
  if (const QMStatus rc = refuseNul(ext_, path, len > 0 ? static_cast<QMMemSize>(len) : 0, jnl_);
      rc != 0)
    return rc;
  // The factory does not hand out an extension without qmioe; this only
  // keeps a half-built object from crashing.
  if (qmioe_ == nullptr) return QM_E_EXT_NOT_FOUND;
  QMChar *full = nullptr;
  QMStrSize fullLen = 0;
  auto *ioe = reinterpret_cast<QMIOEExtension *>(qmioe_);
  QMStatus rc = ioe->Functions.getFullPath(qmioe_, path, len, nullptr, nullptr, nullptr, nullptr,
                                           &full, &fullLen, &parms_);
  if (rc != 0) return rc;
  owned_ = full;
  text_ = full;
  len_ = fullLen;
  return 0;
}

QMStatus FullPath::giveBack() noexcept {
  text_ = nullptr;
  len_ = 0;
  if (owned_ == nullptr) return 0;
  QMChar *full = std::exchange(owned_, nullptr);
  QMStatus rc =
      reinterpret_cast<QMIOEExtension *>(qmioe_)->Functions.freeFullPath(qmioe_, full, &parms_);
  if (rc != 0) journalStatus(jnl_, rc);
  return rc;
}

PoolPtr<QMChar> copyText(QMPoolh pool, const QMChar *s, QMStrSize n) noexcept {
  if (n < 0) return {};
  // A zero-length copy still gets a block of its own, so that it can be freed
  // like any other.
  const std::size_t bytes = static_cast<std::size_t>(n > 0 ? n : 1) * sizeof(QMChar);
  auto copy = PoolPtr<QMChar>::alloc(pool, bytes, 0);
  if (copy && n > 0) std::memcpy(copy.get(), s, static_cast<std::size_t>(n) * sizeof(QMChar));
  return copy;
}

int32_t requestedOption(const QMELMLockOption &option) noexcept {
  static_assert(sizeof(QMELMLockOption) == sizeof(int32_t));
  int32_t raw;
  std::memcpy(&raw, &option, sizeof raw);
  return raw;
}

namespace {

// The first slot for which before(entry) is false; before must hold for a
// leading run of the sorted slots and for no slot after it.
template <class Before>
QMMemSize partitionPoint(const QMELMExtension *ext, Before before) {
  QMMemSize lo = 0;
  QMMemSize hi = ext->NumOptions;
  while (lo < hi) {
    const QMMemSize mid = lo + (hi - lo) / 2;
    if (before(*ext->Options[mid]))
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

// Compares r with the text prefix followed by one more code unit, tail,
// in the table's order, without building that text.
int64_t compareWithTail(const QMChar *r, QMStrSize rlen, const QMChar *prefix, QMStrSize len,
                        QMChar tail) {
  const int64_t c = xvelmLexicalCompare(r, rlen < len ? rlen : len, prefix, len);
  if (c != 0 || rlen < len) return c != 0 ? c : -1;
  if (rlen == len) return -1;  // r is prefix alone: shorter, so first
  const auto x = static_cast<int32_t>(r[len]);
  const auto y = static_cast<int32_t>(tail);
  if (x != y) return x < y ? -1 : 1;
  return rlen == len + 1 ? 0 : 1;
}

}  // namespace

QMMemSize firstNotBefore(const QMELMExtension *ext, const QMChar *key, QMStrSize len) noexcept {
  auto before = [&](const QMELM_LOCK_OPTION_S &e) {
    return xvelmLexicalCompare(e.fullpath, e.fullpathlen, key, len) < 0;
  };
  // A table filled in order (a sorted list of paths) adds each key after the
  // last one: one comparison with the last slot instead of a search that
  // touches an entry on every level.
  const QMMemSize n = ext->NumOptions;
  if (n > 0 && before(*ext->Options[n - 1])) return n;
  return partitionPoint(ext, before);
}

SlotRange prefixRange(const QMELMExtension *ext, const QMChar *prefix, QMStrSize len,
                      QMChar tail) noexcept {
  auto startsWith = [&](const QMELM_LOCK_OPTION_S &e) {
    return e.fullpathlen > len && e.fullpath[len] == tail && sameText(e.fullpath, prefix, len);
  };
  SlotRange r;
  r.first = partitionPoint(ext, [&](const QMELM_LOCK_OPTION_S &e) {
    return compareWithTail(e.fullpath, e.fullpathlen, prefix, len, tail) < 0;
  });
  // Before the range's end: keys before the prefix, and keys that start with it.
  r.last = partitionPoint(ext, [&](const QMELM_LOCK_OPTION_S &e) {
    return startsWith(e) || compareWithTail(e.fullpath, e.fullpathlen, prefix, len, tail) < 0;
  });
  return r;
}

bool slotHolds(const QMELMExtension *ext, QMMemSize i, const QMChar *key, QMStrSize len) noexcept {
  if (i >= ext->NumOptions) return false;
  const QMELM_LOCK_OPTION_S *e = ext->Options[i];
  return e->fullpathlen == len && sameText(e->fullpath, key, len);
}

}  // namespace xvelm::detail
