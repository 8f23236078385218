/*
 * xvelm.h - the lock manager's workers. Each public entry qmelm<operation>
 * forwards unchanged to its worker xvelm<Operation>; the helpers below are
 * shared between workers. All are internal to the extension.
 */
#ifndef XVELM_H
#define XVELM_H

#include "qmelm.h"

// ---- lock acquisition, arbitration, release --------------------------------
QMELMLHndlp xvelmLockGet(QMELMExtensionp extHndl, QMMemPtr lockParms, QMMemSize resType,
                         QMMemSize lockType, QMJnlh jnl, int *qmrc) noexcept;
int xvelmLockGetInternal(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept;
int xvelmLockGetExternal(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept;
int xvelmLockRelease(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept;
int xvelmCloseFile(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) noexcept;
int xvelmLockChange(QMELMLHndlp lock, QMMemPtr lockParms, QMMemSize newLockType,
                    QMJnlh jnl) noexcept;

// ---- lock types --------------------------------------------------------------
// 0, or QMELM_E_INVALID_LOCKTYPE (journaled with its description).
int xvelmValidateLockType(QMELMExtensionp hndl, QMMemSize LockType, QMJnlh jnl) noexcept;
// Writes the description of LockType into msg (msglen QMChars), terminated.
int xvelmBuildLockTypeMsg(QMELMExtensionp hndl, QMMemSize LockType, QMChar *msg, QMStrSize msglen,
                          QMJnlh jnl) noexcept;

// ---- lock options ----------------------------------------------------------------
int xvelmAddOption(QMELMExtensionp ext, QMELMSetOptionParms *parms, QMJnlh jnl) noexcept;
int xvelmRemoveOption(QMELMExtensionp ext, QMELMSetOptionParms *parms, QMJnlh jnl) noexcept;
// The order of the option table: -1, 0 or 1 (case-sensitive, by code point,
// the shorter of two strings with a common start first).
int64_t xvelmLexicalCompare(const QMChar *a, QMStrSize alen, const QMChar *b,
                            QMStrSize blen) noexcept;
int xvelmGetLockOptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept;
int xvelmReleaseLockOptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl) noexcept;
int xvelmMatchOption(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl) noexcept;
int xvelmReleaseMatch(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl) noexcept;

// ---- I/O statistics --------------------------------------------------------------
int xvelmCreateIOInfo(QMELMLHndlp lock, QMELMCreateIOInfoParms *parms, QMJnlh jnl) noexcept;
int xvelmCloseIOInfo(QMELMLHndlp lock, QMELMCloseIOInfoParms *parms, QMJnlh jnl) noexcept;
int xvelmUpdateIOInfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh jnl) noexcept;
int xvelmResetIOInfo(QMELMExtensionp ext, QMELMResetIOInfoParms *parms, QMJnlh jnl) noexcept;
int xvelmGetIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMGetIOInfoParms *result,
                   QMJnlh jnl) noexcept;
int xvelmListIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMListIOInfoParms *result,
                    QMJnlh jnl) noexcept;
int xvelmListIOInfoFree(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed, QMJnlh jnl) noexcept;
int xvelmJnlIOInfo(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms, QMJnlh jnl) noexcept;

// ---- frame -------------------------------------------------------------------------
int XvelmEmergency(QMELMExtensionp ext) noexcept;

#endif  // XVELM_H
