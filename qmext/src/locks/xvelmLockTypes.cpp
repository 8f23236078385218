// The lock-type rules: which bit combinations are acceptable,
// and the readable description of a type used in error messages. No mutex is
// taken. Validation allocates one message buffer from the extension's pool
// only when it reports to a journal, and frees it before returning.
#include "locks/xvelmLockTypes.h"

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"

using namespace xvelm::detail;

namespace {

constexpr QMMemSize kInternalExclusive = QMELM_INT_EXCLUSIVE;
constexpr QMMemSize kInternalPart = QMELM_INT_NONEXCLUSIVE | QMELM_NOINTERNAL_LOCK;
constexpr QMMemSize kExternalPart = QMELM_EXT_NONEXCLUSIVE | QMELM_NOEXTERNAL_LOCK;

bool acceptable(QMMemSize t) {
  // Bits that no lock type defines are refused: granting them as given
  // would let a caller's typo pass for a lock.
  if (t & ~kDefinedLockTypeBits) return false;
  // Internal part. Exclusive beside QMELM_NOINTERNAL_LOCK passes: the
  // exclusive bit alone decides here, and callers rely on that combination
  // being accepted.
  if (t & kInternalExclusive) {
    if (t & QMELM_INT_NONEXCLUSIVE) return false;
  } else if ((t & kInternalPart) == 0) {
    return false;
  }
  // External part; QMELM_NOEXTERNAL_LOCK beside the exclusive bit is accepted.
  if (t & QMELM_EXT_EXCLUSIVE) {
    if (t & QMELM_EXT_NONEXCLUSIVE) return false;
  } else if ((t & kExternalPart) == 0) {
    return false;
  }
  // At most one lock option.
  if (t & QMELM_OPT_NONE) return (t & (QMELM_OPT_FAIL | QMELM_OPT_CONTINUE)) == 0;
  return (t & (QMELM_OPT_FAIL | QMELM_OPT_CONTINUE)) != (QMELM_OPT_FAIL | QMELM_OPT_CONTINUE);
}

// The pieces of a description, in the order they are written. The order is
// not that of the bit values (shared before no-external before no-internal,
// Fail before None): support staff compare these texts, so it stays fixed.
struct Piece {
  QMMemSize bit;
  QMStatus text;
};
constexpr Piece kPieces[] = {
    {QMELM_SHARED, QMELM_M_SHARED},
    {QMELM_NOEXTERNAL_LOCK, QMELM_M_NOEXTERNAL_LOCK},
    {QMELM_NOINTERNAL_LOCK, QMELM_M_NOINTERNAL_LOCK},
    {QMELM_OPT_FAIL, QMELM_M_OPT_FAIL},
    {QMELM_OPT_NONE, QMELM_M_OPT_NONE},
    {QMELM_OPT_CONTINUE, QMELM_M_OPT_CONTINUE},
};

}  // namespace

int xvelmBuildLockTypeMsg(QMELMExtensionp /*hndl*/, QMMemSize LockType, QMChar *msg,
                          QMStrSize msglen, QMJnlh jnl) noexcept {
  QMStrSize used = 0;
  auto put = [&](QMStatus piece) -> QMStatus {
    QMStrSize len = 0;
    QMStatus rc = qmlStatusToBuf(jnl, piece, msg + used, msglen - used, &len);
    if (rc == 0) used += len;
    return rc;
  };
  QMStatus rc = 0;
  // Of two bits of one part only the exclusive one is described.
  if (LockType & QMELM_INT_EXCLUSIVE) {
    rc = put(QMELM_M_INT_EXCLUSIVE);
  } else if (LockType & QMELM_INT_NONEXCLUSIVE) {
    rc = put(QMELM_M_INT_NONEXCLUSIVE);
  }
  if (rc != 0) return rc;
  if (LockType & QMELM_EXT_EXCLUSIVE) {
    rc = put(QMELM_M_EXT_EXCLUSIVE);
  } else if (LockType & QMELM_EXT_NONEXCLUSIVE) {
    rc = put(QMELM_M_EXT_NONEXCLUSIVE);
  }
  if (rc != 0) return rc;
  for (const Piece &p : kPieces) {
    if ((LockType & p.bit) == 0) continue;
    if ((rc = put(p.text)) != 0) return rc;
  }
  msg[used] = 0;
  return 0;
}

int xvelmValidateLockType(QMELMExtensionp hndl, QMMemSize LockType, QMJnlh jnl) noexcept {
  if (acceptable(LockType)) return 0;
  // The report: the failure's text, then the description of the type. A
  // failure to render drops the report; the status stays the same.
  Message msg(hndl, jnl);
  if (!msg.active()) return QMELM_E_INVALID_LOCKTYPE;
  QMChar description[1024];
  if (msg.status(QMELM_E_INVALID_LOCKTYPE).abandoned()) return QMELM_E_INVALID_LOCKTYPE;
  if (xvelmBuildLockTypeMsg(hndl, LockType, description, 1024, jnl) != 0)
    return QMELM_E_INVALID_LOCKTYPE;
  msg.status(QMELM_M_LOCKTYPE_IS, description);
  msg.journal();
  return QMELM_E_INVALID_LOCKTYPE;
}
