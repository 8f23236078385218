/*
 * qmp.h - the extension's side of the host boundary: the loader entries, the
 * five journal stubs through which every message passes, and the clock.
 * Nothing here is exported from the shared object except the loader entries.
 */
#ifndef QMP_H
#define QMP_H

#include "qmkernel.h"

QM_EXTERN_C_BEGIN

/* The host handle remembered by the loader entries (the last host that
   loaded this copy of the extension). */
extern QMHndlp qmp_hndl;

/* The remembered host handle while an extension object of that host is
   alive, else null: a host that loaded this copy and then went away (or
   never made an object) is never followed. Whether an object is alive is
   the extension's to say, through the check it installs below: qmp calls
   nothing of the extension. */
QMHndlp qmpLiveHost(void) QM_NOEXCEPT;

/* Answers nonzero while an extension object made with hndl is alive. */
typedef int (*QMPHostCheck)(QMHndlp hndl);
/* Installs the check qmpLiveHost asks (the extension does, before it makes
   its first object). Until then qmpLiveHost answers null. */
void qmpSetHostCheck(QMPHostCheck check) QM_NOEXCEPT;

QM_EXPORT QMStatus qmextent(QMHndlp hndl) QM_NOEXCEPT;
QM_EXPORT QMStatus qmextver(QMHndlp hndl, int *major, int *minor) QM_NOEXCEPT;

/* Journal stubs: collect the variable arguments and call the journal's own
   entry of the same role, returning its status unchanged. jnl must not be null. */
QMStatus qmlMessageToBuf(QMJnlh jnl, const QMChar *fmt, QMStrSize fmtlen, QMChar *out,
                         QMStrSize cap, QMStrSize *outlen, ...) QM_NOEXCEPT;
QMStatus qmlMessageToJnl(QMJnlh jnl, QMSeverity sev, const QMChar *fmt, QMStrSize fmtlen,
                         ...) QM_NOEXCEPT;
QMStatus qmlStatusToBuf(QMJnlh jnl, QMStatus status, QMChar *out, QMStrSize cap, QMStrSize *outlen,
                        ...) QM_NOEXCEPT;
QMStatus qmlStatusToJnl(QMJnlh jnl, QMSeverity sev, QMStatus status, ...) QM_NOEXCEPT;
QMStatus qmlGetLocale(QMJnlh jnl, ...) QM_NOEXCEPT;

/* The current host datetime: ConfigureSystem(16, double[2], 0x10800000) of
   the remembered host, first value minus second; 0.0 when it fails. */
double qmzdttme(void) QM_NOEXCEPT;
/* The same through a given host handle (callers with an extension object use
   its own handle, so that several hosts in one process keep their clocks). */
double qmzdttmeOf(QMHndlp hndl) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMP_H */
