// The worker of the operation this build does not provide yet: lock change.
// It answers QMELM_E_NOT_AVAILABLE and says so in the journal that verbose
// errors choose, so a host that calls it learns it at once.
#include "xvelm.h"
#include "xvelmDetail.h"

using namespace xvelm::detail;

namespace {
int notAvailable(QMJnlh jnl) noexcept {
  return journaled(jnl, QMELM_E_NOT_AVAILABLE);
}
}  // namespace

int xvelmLockChange(QMELMLHndlp, QMMemPtr, QMMemSize, QMJnlh jnl) noexcept {
  return notAvailable(chooseJournal(nullptr, jnl));
}
