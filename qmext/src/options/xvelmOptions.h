/*
 * xvelmOptions.h - helpers of the lock option table's workers (add, remove,
 * match): a full path resolved through qmioe and held until given back, pool
 * copies of QMChar text, and the root key "/". Internal to the extension.
 */
#ifndef XVELM_OPTIONS_H
#define XVELM_OPTIONS_H

#include <cstring>

#include "host/xvelmPool.h"
#include "qmioe.h"

namespace xvelm::detail {

// The full path of a request. A path resolves through qmioe into memory that
// qmioe owns until giveBack() (or the destructor) hands it back; a null path
// means the root "/" and does not call qmioe. qmioe is never called with
// OptionMutex held: resolve before taking it, give back after releasing it.
class FullPath {
 public:
  FullPath(const QMELMExtension *ext, QMJnlh jnl, NLScei enc) noexcept;
  ~FullPath() { (void)giveBack(); }
  FullPath(const FullPath &) = delete;
  FullPath &operator=(const FullPath &) = delete;

  // Resolves path (len QMChars), or the root for a null path. Returns qmioe's
  // status unchanged (not journaled: each caller decides).
  [[nodiscard]] QMStatus resolve(const QMChar *path, QMStrSize len) noexcept;
  const QMChar *data() const { return text_; }
  QMStrSize size() const { return len_; }
  // Hands qmioe's memory back (0 when nothing is held); a failure is journaled
  // at severity 4 and returned. data() is not valid afterwards.
  [[nodiscard]] QMStatus giveBack() noexcept;

 private:
  const QMELMExtension *ext_;
  QMExtensionh qmioe_;
  QMJnlh jnl_;
  QMIOEParms parms_{};       // the block handed to both qmioe calls
  QMChar *owned_ = nullptr;  // qmioe's memory, until given back
  const QMChar *text_ = nullptr;
  QMStrSize len_ = 0;
};

// A pool copy of n QMChars (allocation flags 0); null when the pool has no
// memory or n is negative.
PoolPtr<QMChar> copyText(QMPoolh pool, const QMChar *s, QMStrSize n) noexcept;

// True for the key "/" of the root entry.
// The first n code units of a and b are equal (exact, case-sensitive).
[[nodiscard]] inline bool sameText(const QMChar *a, const QMChar *b, QMStrSize n) {
  return n <= 0 || std::memcmp(a, b, static_cast<std::size_t>(n) * sizeof(QMChar)) == 0;
}

inline bool isRootKey(const QMChar *s, QMStrSize n) {
  return n == 1 && s[0] == '/';
}

// Binary searches of the sorted table (OptionMutex held). firstNotBefore:
// the first slot whose key is not before key (NumOptions when every key is).
// prefixRange: the slots whose key starts with prefix followed by tail, as
// [first, last); the table keeps them side by side because a common start
// sorts together.
[[nodiscard]] QMMemSize firstNotBefore(const QMELMExtension *ext, const QMChar *key,
                                       QMStrSize len) noexcept;
struct SlotRange {
  QMMemSize first = 0;
  QMMemSize last = 0;
};
[[nodiscard]] SlotRange prefixRange(const QMELMExtension *ext, const QMChar *prefix, QMStrSize len,
                                    QMChar tail) noexcept;
// Whether slot i holds exactly key.
[[nodiscard]] bool slotHolds(const QMELMExtension *ext, QMMemSize i, const QMChar *key,
                             QMStrSize len) noexcept;

// The option that governs path, as MatchOption finds it, without the two
// copies MatchOption hands its callers: a lock request needs only the
// option. Failures are journaled as MatchOption journals them, and leave
// *option QMELM_Unknown.
[[nodiscard]] QMStatus matchedOption(QMELMExtension *ext, const QMChar *path, QMStrSize len,
                                     NLScei enc, QMJnlh jnl, QMELMLockOption *option) noexcept;

// The option of a request as stored by a C caller, who may pass any 32-bit
// value: read without assuming it is one of the enumerators.
int32_t requestedOption(const QMELMLockOption &option) noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_OPTIONS_H
