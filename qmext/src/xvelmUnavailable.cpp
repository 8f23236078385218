// Workers of operations this build does not provide yet: lock change and
// the I/O queries and report. Each answers QMELM_E_NOT_AVAILABLE and says so
// in the journal it was given (or, for lock change, the one verbose errors
// choose), so a host that calls them learns it at once.
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

int xvelmGetIOInfo(QMELMExtensionp, QMELMQueryIOInfoParms *, QMELMGetIOInfoParms *,
                   QMJnlh jnl) noexcept {
  return notAvailable(jnl);
}

int xvelmListIOInfo(QMELMExtensionp, QMELMQueryIOInfoParms *, QMELMListIOInfoParms *,
                    QMJnlh jnl) noexcept {
  return notAvailable(jnl);
}

int xvelmListIOInfoFree(QMELMExtensionp, QMELMListIOInfoParms *, QMJnlh jnl) noexcept {
  return notAvailable(jnl);
}

int xvelmJnlIOInfo(QMELMExtensionp, QMELMJnlIOInfoParms *, QMJnlh jnl) noexcept {
  return notAvailable(jnl);
}
