// The five journal stubs: every message of the lock manager passes through
// them. Each collects its variable arguments and hands them, with everything
// else unchanged, to the journal's own entry of the same role.
#include <cstdarg>

#include "qmp.h"

QMStatus qmlMessageToBuf(QMJnlh jnl, const QMChar *fmt, QMStrSize fmtlen, QMChar *out,
                         QMStrSize cap, QMStrSize *outlen, ...) noexcept {
  va_list ap;
  va_start(ap, outlen);
  QMStatus rc = jnl->messageToBuf(jnl, fmt, fmtlen, out, cap, outlen, ap);
  va_end(ap);
  return rc;
}

QMStatus qmlMessageToJnl(QMJnlh jnl, QMSeverity sev, const QMChar *fmt, QMStrSize fmtlen,
                         ...) noexcept {
  va_list ap;
  va_start(ap, fmtlen);
  QMStatus rc = jnl->messageToJnl(jnl, sev, fmt, fmtlen, ap);
  va_end(ap);
  return rc;
}

QMStatus qmlStatusToBuf(QMJnlh jnl, QMStatus status, QMChar *out, QMStrSize cap, QMStrSize *outlen,
                        ...) noexcept {
  va_list ap;
  va_start(ap, outlen);
  QMStatus rc = jnl->statusToBuf(jnl, status, out, cap, outlen, ap);
  va_end(ap);
  return rc;
}

QMStatus qmlStatusToJnl(QMJnlh jnl, QMSeverity sev, QMStatus status, ...) noexcept {
  va_list ap;
  va_start(ap, status);
  QMStatus rc = jnl->statusToJnl(jnl, sev, status, ap);
  va_end(ap);
  return rc;
}

QMStatus qmlGetLocale(QMJnlh jnl, ...) noexcept {
  va_list ap;
  va_start(ap, jnl);
  QMStatus rc = jnl->getLocale(jnl, ap);
  va_end(ap);
  return rc;
}
