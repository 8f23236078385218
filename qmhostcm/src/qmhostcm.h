/*
 * qmhostcm.h - the host-common character helpers the lock manager uses.
 */
#ifndef QMHOSTCM_H
#define QMHOSTCM_H

#include "qmtypes.h"

QM_EXTERN_C_BEGIN

/* True only when the two strings have equal length and equal characters
   (exact, case-sensitive); two empty strings are equal. */
QMBoolean qmzsCompare(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                      QMStrSize str2L) QM_NOEXCEPT;
/* Length in characters of a zero-terminated QMChar string. */
QMStrSize xvStrTLen(const QMChar *s) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMHOSTCM_H */
