// Public entries of the I/O statistics: each forwards unchanged to its worker.
#include "frame/xvelm.h"

int qmelmupdateioinfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh jnl) noexcept {
  return xvelmUpdateIOInfo(lock, parms, jnl);
}

int qmelmresetioinfo(QMELMExtensionp ext, QMELMResetIOInfoParms *parms, QMJnlh jnl) noexcept {
  return xvelmResetIOInfo(ext, parms, jnl);
}

int qmelmgetioinfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMGetIOInfoParms *result,
                   QMJnlh jnl) noexcept {
  return xvelmGetIOInfo(ext, query, result, jnl);
}

int qmelmlistioinfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMListIOInfoParms *result,
                    QMJnlh jnl) noexcept {
  return xvelmListIOInfo(ext, query, result, jnl);
}

int qmelmlistioinfofree(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed, QMJnlh jnl) noexcept {
  return xvelmListIOInfoFree(ext, toBeFreed, jnl);
}

int qmelmjnlioinfo(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms, QMJnlh jnl) noexcept {
  return xvelmJnlIOInfo(ext, parms, jnl);
}
